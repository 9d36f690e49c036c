/*
 * corvane-lab compare: the figures of two reports side by side.
 */
#include "commands.h"

#include <report.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace corvane::lab {
namespace {

struct Wish {
    std::string a, b;
    bool json = false;
};

int compare(const Wish &wish) {
    try {
        const std::string text =
            wish.json ? compareJson(wish.a, wish.b) : compareText(wish.a, wish.b);
        std::fputs(text.c_str(), stdout);
        return 0;
    } catch (const std::runtime_error &error) { // of a folder
        throw UsageError(error.what());
    }
}

} // namespace

void addCompare(CLI::App &program, Action &action) {
    auto wish = std::make_shared<Wish>();
    CLI::App *command = program.add_subcommand("compare", "Set two reports side by side");
    command->add_option("A", wish->a, "Folder that 'run' has written")->required()->type_name("");
    command->add_option("B", wish->b, "Another")->required()->type_name("");
    command->add_flag("--json", wish->json, "Print both and their difference as JSON");
    command->callback([wish, &action] { action = [wish] { return compare(*wish); }; });
}

} // namespace corvane::lab
