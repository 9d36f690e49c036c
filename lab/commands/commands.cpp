/*
 * Reading corvane-lab's command line: what all commands have in common.
 */
#include "commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace corvane::lab {
namespace {

struct Example {
    const char *command;
    const char *lines;
};
constexpr Example kExamples[] = {
    {"run", "  corvane-lab run lab/scenarios/august-evenings.toml\n"
            "  corvane-lab run lab/scenarios/august-evenings.toml --runs 10\n"
            "  corvane-lab run lab/scenarios/fleet-afternoon.toml --appliances 1000\n"},
    {"compare", "  corvane-lab compare lab-results/august-evenings lab-results/mild\n"},
    {"explore", "  corvane-lab explore --seeds 100 --jobs 2\n"
                "  corvane-lab explore --from 5000 --seeds 10 --days 3\n"},
    {"replay", "  corvane-lab replay --seed 17 --trace\n"
               "  corvane-lab replay --file lab/failed_seeds.txt --jobs 2\n"},
};

/* Ranges and what excludes what are said by the error that they lead to. */
class PlainHelp : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option *option) const override {
        const std::string type = option->get_type_name(); // "N:INT in [1 - 64]"
        return option->get_type_size() == 0 ? "" : " " + type.substr(0, type.find(':'));
    }
};

void addHelp(CLI::App &program) {
    const auto plain = std::make_shared<PlainHelp>();
    plain->column_width(20);
    program.formatter(plain);
    std::string all;
    for (const Example &example : kExamples) {
        CLI::App *command = program.get_subcommand(example.command);
        command->formatter(plain);
        command->footer(std::string("Examples:\n") + example.lines + "\nMore: man corvane-lab");
        all += std::string(example.lines).substr(0, std::string(example.lines).find('\n') + 1);
    }
    program.footer("Examples:\n" + all +
                   "\nExit status: 0 done, 1 failed, not as expected or a rule was broken, 2 wrong "
                   "usage.\nMore: corvane-lab COMMAND --help, man corvane-lab");
}

bool isCommand(const std::string &word) {
    return std::any_of(std::begin(kExamples), std::end(kExamples),
                       [&](const Example &example) { return word == example.command; });
}

/* One line: what is wrong, and which help tells more. */
int refuse(const CLI::App &program, const std::string &why) {
    const auto commands = program.get_subcommands();
    std::fprintf(stderr, "corvane-lab: %s; see corvane-lab %s--help\n", why.c_str(),
                 commands.empty() ? "" : (commands.front()->get_name() + " ").c_str());
    return 2;
}

} // namespace

int runCommand(int argc, char **argv) {
    CLI::App program("The laboratory: the unmodified service in virtual time", "corvane-lab");
    program.require_subcommand(1);
    Action action;
    addRun(program, action);
    addCompare(program, action);
    addExplore(program, action);
    addReplay(program, action);
    addHelp(program);
    const std::string first = argc > 1 ? argv[1] : "";
    if ((argc < 2 || first.rfind('-', 0) != 0) && !isCommand(first))
        return refuse(program, (argc < 2 ? "a command is missing"
                                         : "\"" + first.substr(0, 40) + "\" is no command") +
                                   std::string("; expected run, compare, explore or replay"));
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted);
    } catch (const CLI::ParseError &error) {
        return refuse(program, error.what());
    }
    try {
        return action();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "corvane-lab: %s\n", error.what());
        return dynamic_cast<const UsageError *>(&error) != nullptr ? 2 : 1;
    }
}

} // namespace corvane::lab
