/*
 * Where `corvane` and `corvane-timelapse` start: arguments are answered here, so that a call for
 * help shows the help and nothing of a service that starts. The linker leads the process here in
 * place of the service's main() (--wrap=main), which is called when there is nothing to answer.
 */
#include "command_line.h"

extern "C" {
int __real_main(int argc, char **argv);
int __wrap_main(int argc, char **argv);
}

int __wrap_main(int argc, char **argv) {
    if (const auto answered = corvane::platform::answerCommandLine(argc, argv))
        return *answered;
    return __real_main(argc, argv);
}
