/*
 * corvanectl: the energy service from a terminal.
 */
#include "cli.h"

#include <cstdlib>
#include <iostream>

#include <unistd.h>

int main(int argc, char **argv) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
    const char *noColour = std::getenv("NO_COLOR");
    const bool colour = isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
    const int status = corvane::client::run({argv + 1, argv + argc}, std::cout, std::cerr, colour);
    std::cout.flush();
    if (status == 0 && !std::cout) {
        std::cerr << "corvanectl: the output cannot be written; is the disk full?\n";
        return 1;
    }
    return status;
}
