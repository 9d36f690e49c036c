/*
 * Reading the command line with CLI11. Each command stores an action; it runs after the whole line
 * has been read and checked, so that wrong usage never has half an effect.
 */
#include "cli.h"

#include "calendar.h"
#include "commands.h"
#include "completion.h"
#include "errors.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace corvane::client {
namespace {

using Action = std::function<void(const Context &)>;

constexpr std::size_t kMaxDescription = 30; // bytes that the service keeps

/* What is typed; the action that it selects. */
struct CommandLine {
    std::string url;
    std::string pskFile;
    std::string identity;
    double timeoutSec = 5;
    bool json = false;
    std::string completionShell;
    EventOrder event;
    Reservation reservation;
    std::string firstDay;
    std::string lastDay;
    std::string dailyStart;
    std::string id;
    std::string key;
    std::vector<std::string> keys;
    std::string value;
    bool forceText = false;
    Action action;
};

CLI::Validator validator(const std::string &expected,
                         const std::function<bool(std::string &)> &accept) {
    return {[=](std::string &text) {
                return accept(text) ? std::string() : "\"" + text + "\" is not " + expected;
            },
            ""};
}

CLI::Validator oneOf(const std::vector<std::string> &values) {
    std::string expected = values.size() == 1 ? "" : "one of ";
    for (const std::string &value : values)
        expected += (&value == &values.front() ? "" : ", ") + value;
    return validator(expected, [=](std::string &text) {
        return std::find(values.begin(), values.end(), text) != values.end();
    });
}

/* hh:mm:ss or hh:mm, which becomes the former. */
CLI::Validator timeOfDay() {
    return validator("a time of day from 00:00:00 to 23:59:59", [](std::string &text) {
        const auto seconds = parseTimeOfDay(text, true);
        if (seconds)
            text = clockText(*seconds);
        return seconds.has_value();
    });
}

CLI::Validator length() {
    return validator("a length from 00:00:01 to 23:59:59",
                     [](std::string &text) { return parseTimeOfDay(text).value_or(0) > 0; });
}

CLI::Validator monthDay() {
    return validator("a day of the year such as 06-01",
                     [](std::string &text) { return parseMonthDay(text).has_value(); });
}

CLI::Validator description() {
    return validator("a text of at most 30 bytes without quotes, backslashes and controls",
                     [](std::string &text) {
                         return text.size() <= kMaxDescription &&
                                std::none_of(text.begin(), text.end(), [](char c) {
                                    return c == '"' || c == '\'' || c == '\\' || c == 0x7f ||
                                           static_cast<std::uint8_t>(c) < 0x20;
                                });
                     });
}

CLI::Validator positiveSeconds() {
    return validator("a number of seconds from 0.1 to 3600", [](std::string &text) {
        double seconds = 0;
        return CLI::detail::lexical_cast(text, seconds) && seconds >= 0.1 && seconds <= 3600;
    });
}

CLI::App *addCommand(CLI::App &parent, const std::string &name, const std::string &summary,
                     const std::string &examples) {
    CLI::App *command = parent.add_subcommand(name, summary);
    command->fallthrough(); // the global options may also follow the command
    command->footer("Examples:\n" + examples +
                    "\n\n'corvanectl --help' explains the options of all commands.");
    return command;
}

void addGlobalOptions(CLI::App &app, CommandLine &line) {
    app.add_option("--url", line.url,
                   "Where the service is: coap[s]://host[:port][/name]\n"
                   "(default $CORVANE_COAP_URL, else\n"
                   "coap://127.0.0.1:5683/KestProxyTest)")
        ->type_name("URL");
    app.add_option("--psk-file", line.pskFile, "Keys for coaps://, lines of identity:hex key")
        ->type_name("FILE");
    app.add_option("--identity", line.identity, "Which of the file's keys (default: its only one)")
        ->type_name("NAME");
    app.add_option("--timeout", line.timeoutSec, "How long to wait for an answer (default 5)")
        ->check(positiveSeconds())
        ->type_name("SEC");
    app.add_flag("--json", line.json, "Print one JSON object instead of text");
    app.set_version_flag("--version", "corvanectl " CORVANE_VERSION "\n",
                         "Print the version and exit");
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.add_option("--print-completion", line.completionShell)->check(oneOf({"bash"}))->group("");
}

void addDemandResponse(CLI::App &app, CommandLine &line) {
    CLI::App *dr = addCommand(app, "dr", "Order or cancel a demand-response event",
                              "  corvanectl dr start --level 2 --duration 01:00:00\n"
                              "  corvanectl dr cancel");
    dr->require_subcommand(1);
    CLI::App *start =
        addCommand(*dr, "start", "Order an event; it replaces a stored one",
                   "  corvanectl dr start --level 2\n"
                   "  corvanectl dr start --level 3 --duration 01:30:00 --start 14:00:00\n\n"
                   "--start is a time of day in UTC. An event that would be over already\n"
                   "today is taken to mean tomorrow.");
    start->add_option("--level", line.event.level, "How much load to shed, 1 to 4")
        ->required()
        ->check(oneOf({"1", "2", "3", "4"}))
        ->type_name("1|2|3|4");
    start->add_option("--duration", line.event.length, "How long (default 04:30:00)")
        ->check(length())
        ->type_name("hh:mm:ss");
    start->add_option("--start", line.event.start, "When, as UTC (default now)")
        ->transform(timeOfDay())
        ->type_name("hh:mm[:ss]");
    start->callback([&line] {
        line.action = [&line](const Context &context) { startEvent(context, line.event); };
    });
    addCommand(*dr, "cancel", "End the stored event at once", "  corvanectl dr cancel")
        ->callback([&line] { line.action = cancelEvent; });
}

void addOverride(CLI::App &app, CommandLine &line) {
    CLI::App *override = addCommand(app, "override", "Let the appliance ignore events, or not",
                                    "  corvanectl override on");
    override->require_subcommand(1);
    for (const bool on : {true, false})
        addCommand(*override, on ? "on" : "off",
                   on ? "Ignore events until switched off" : "Follow events again",
                   std::string("  corvanectl override ") + (on ? "on" : "off"))
            ->callback([&line, on] {
                line.action = [on](const Context &context) { setOverride(context, on); };
            });
}

void addDefrost(CLI::App &app, CommandLine &line) {
    CLI::App *defrost =
        addCommand(app, "defrost", "Switch defrost delay, and manage its reservations",
                   "  corvanectl defrost on\n"
                   "  corvanectl defrost list\n"
                   "  corvanectl defrost add --start-date 06-01 --end-date 08-31 --at 17:00 \\\n"
                   "      --for 02:00:00 --description \"Evening peak\"\n"
                   "  corvanectl defrost remove 2");
    defrost->require_subcommand(1);
    for (const bool on : {true, false})
        addCommand(*defrost, on ? "on" : "off",
                   on ? "Hold defrost in the reserved windows" : "Defrost at any time",
                   std::string("  corvanectl defrost ") + (on ? "on" : "off"))
            ->callback([&line, on] {
                line.action = [on](const Context &context) { setDefrostDelay(context, on); };
            });
    addCommand(*defrost, "list", "Show the reservations and which one holds today",
               "  corvanectl defrost list\n"
               "  corvanectl defrost list --json")
        ->callback([&line] { line.action = listReservations; });

    CLI::App *add =
        addCommand(*defrost, "add", "Add a reservation: a season and its daily window",
                   "  corvanectl defrost add --start-date 06-01 --end-date 08-31 --at 17:00 \\\n"
                   "      --for 02:00:00 --description \"Evening peak\"\n\n"
                   "Days and times are local time of the appliance. A season may run over the\n"
                   "year's end. There are places for two reservations beside the service's own.");
    add->add_option("--start-date", line.firstDay, "First day of the season")
        ->required()
        ->check(monthDay())
        ->type_name("MM-DD");
    add->add_option("--end-date", line.lastDay, "Last day of the season")
        ->required()
        ->check(monthDay())
        ->type_name("MM-DD");
    add->add_option("--at", line.dailyStart, "Daily start of the window")
        ->required()
        ->transform(timeOfDay())
        ->type_name("hh:mm[:ss]");
    add->add_option("--for", line.reservation.period, "Length of the window")
        ->required()
        ->check(length())
        ->type_name("hh:mm:ss");
    add->add_option("--description", line.reservation.description,
                    "Up to 30 bytes, without quotes and backslashes")
        ->check(description())
        ->type_name("TEXT");
    add->callback([&line] {
        line.action = [&line](const Context &context) {
            line.reservation.startTime = "0000-" + line.firstDay + "T" + line.dailyStart;
            line.reservation.endTime = "0000-" + line.lastDay + "T00:00:00";
            addReservation(context, line.reservation);
        };
    });

    CLI::App *remove = addCommand(*defrost, "remove", "Remove an added reservation",
                                  "  corvanectl defrost remove 2\n\n"
                                  "The service's own reservations 0 and 1 cannot be removed.");
    remove->add_option("id", line.id, "Its number, as defrost list shows it")
        ->required()
        ->check(oneOf({"2", "3"}))
        ->type_name("2|3");
    remove->callback([&line] {
        line.action = [&line](const Context &context) { removeReservation(context, line.id); };
    });
}

void addSettings(CLI::App &app, CommandLine &line) {
    CLI::App *settings =
        addCommand(app, "settings", "Read, write and watch this machine's settings store",
                   "  corvanectl settings list\n"
                   "  corvanectl settings get db/corvane/dr/level\n"
                   "  corvanectl settings set memory/refrigerator/SmartGridDrLevel 2\n"
                   "  corvanectl settings watch memory/refrigerator/TxMessage\n\n"
                   "The store is in CORVANE_STATE_DIR and CORVANE_RUNTIME_DIR.");
    settings->require_subcommand(1);
    const auto addKey = [&line](CLI::App *command) {
        command->add_option("key", line.key, "db/... or memory/...")->required()->type_name("");
    };
    CLI::App *get = addCommand(*settings, "get", "Print the value of a key",
                               "  corvanectl settings get db/corvane/dr/level");
    addKey(get);
    get->callback([&line] {
        line.action = [&line](const Context &context) { getSetting(context, line.key); };
    });

    CLI::App *set = addCommand(*settings, "set", "Write a key",
                               "  corvanectl settings set memory/refrigerator/SmartGridDrLevel 2\n"
                               "  corvanectl settings set --text memory/example/note 12");
    addKey(set);
    set->add_option("value", line.value, "What reads as an integer becomes one")
        ->required()
        ->type_name("");
    set->add_flag("--text", line.forceText, "Write a text in any case");
    set->callback([&line] {
        line.action = [&line](const Context &context) {
            setSetting(context, line.key, line.value, line.forceText);
        };
    });

    addCommand(*settings, "list", "Print every key with its value", "  corvanectl settings list")
        ->callback([&line] { line.action = listSettings; });

    CLI::App *watch = addCommand(*settings, "watch", "Print changes as they come, until Ctrl-C",
                                 "  corvanectl settings watch\n"
                                 "  corvanectl settings watch memory/refrigerator/TxMessage");
    watch->add_option("key", line.keys, "Which keys (default: all)")->type_name("");
    watch->callback([&line] {
        line.action = [&line](const Context &context) { watchSettings(context, line.keys); };
    });
}

std::unique_ptr<CLI::App> makeApp(CommandLine &line) {
    auto app = std::make_unique<CLI::App>("Drives the energy service of a connected refrigerator.",
                                          "corvanectl");
    app->require_subcommand(0, 1);
    app->get_formatter()->column_width(26);
    app->footer("Examples:\n"
                "  corvanectl status\n"
                "  corvanectl dr start --level 2 --duration 01:00:00\n"
                "  corvanectl watch\n"
                "  corvanectl --url coaps://192.0.2.7 --psk-file keys status\n\n"
                "'corvanectl COMMAND --help' explains a command.\n"
                "Exit status: 0 done, 1 refused or unreachable, 2 wrong usage.");
    addGlobalOptions(*app, line);
    addCommand(*app, "status", "Show the whole state on one screen",
               "  corvanectl status\n"
               "  corvanectl status --json")
        ->callback([&line] { line.action = showStatus; });
    addDemandResponse(*app, line);
    addOverride(*app, line);
    addDefrost(*app, line);
    addCommand(*app, "energy", "Show this month's and last month's consumption",
               "  corvanectl energy")
        ->callback([&line] { line.action = showEnergy; });
    addCommand(*app, "watch", "Show notifications as they come, until Ctrl-C",
               "  corvanectl watch\n"
               "  corvanectl watch --json")
        ->callback([&line] { line.action = watchNotifications; });
    addSettings(*app, line);
    return app;
}

std::string urlOf(const CommandLine &line) {
    if (!line.url.empty())
        return line.url;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
    const char *variable = std::getenv("CORVANE_COAP_URL");
    return variable != nullptr && *variable != '\0' ? variable : kDefaultUrl;
}

Context makeContext(const CommandLine &line, std::ostream &out, bool colour) {
    Context context{.endpoint = parseUrl(urlOf(line)),
                    .pskFile = line.pskFile,
                    .identity = line.identity,
                    .timeoutSec = line.timeoutSec,
                    .json = line.json,
                    .style = Style(colour),
                    .out = out};
    if (context.endpoint.secure && line.pskFile.empty())
        throw UsageError("a coaps:// address needs a key: give --psk-file FILE");
    if (!context.endpoint.secure && !(line.pskFile.empty() && line.identity.empty()))
        throw UsageError("--psk-file and --identity are for coaps:// addresses only, and " +
                         context.endpoint.url() + " is none");
    return context;
}

/* The commands that the line has got to, outermost first: corvanectl, dr, start. */
std::vector<const CLI::App *> selectedCommands(const CLI::App &app) {
    std::vector<const CLI::App *> path{&app};
    while (!path.back()->get_subcommands().empty())
        path.push_back(path.back()->get_subcommands().front());
    return path;
}

/* "corvanectl dr start", for the hint. */
std::string selectedCommand(const CLI::App &app) {
    std::string path;
    for (const CLI::App *command : selectedCommands(app))
        path += (path.empty() ? "" : " ") + command->get_name();
    return path;
}

/* What is wrong where the line stops before one of several commands; empty where it does not. */
std::string wrongCommand(const CLI::App &app) {
    const CLI::App &command = *selectedCommands(app).back();
    const auto choices = command.get_subcommands([](const CLI::App *) { return true; });
    if (choices.empty())
        return "";
    std::string expected = choices.front()->get_name();
    for (std::size_t i = 1; i < choices.size(); ++i)
        expected += (i + 1 < choices.size() ? ", " : " or ") + choices[i]->get_name();
    // A command hands on to its parents what it does not know.
    const auto given = app.remaining(true);
    return given.empty() ? "a command is missing, expected " + expected
                         : platform::inQuotes(given.front()) + " is none of " + expected;
}

/* The help of the selected command, without CLI11's doubled empty lines. */
std::string helpText(const CLI::App &app) {
    std::string text = app.help();
    for (std::size_t at = text.find("\n\n\n"); at != text.npos; at = text.find("\n\n\n"))
        text.erase(at, 1);
    return text;
}

std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

} // namespace

int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err,
        bool colour) {
    CommandLine line;
    const std::unique_ptr<CLI::App> app = makeApp(line);
    const auto misused = [&](const std::string &reason) {
        err << "corvanectl: " << oneLine(reason) << "; see: " << selectedCommand(*app)
            << " --help\n";
        return 2;
    };
    try {
        app->parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        if (!line.completionShell.empty()) {
            out << bashCompletion(*app);
            return 0;
        }
        if (!line.action)
            return misused(wrongCommand(*app));
        line.action(makeContext(line, out, colour));
        return 0;
    } catch (const CLI::CallForHelp &) {
        out << helpText(*app);
        return 0;
    } catch (const CLI::CallForVersion &version) {
        out << version.what();
        return 0;
    } catch (const CLI::ParseError &error) {
        const bool isOfACommand = dynamic_cast<const CLI::RequiredError *>(&error) != nullptr ||
                                  dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr;
        const std::string wrong = isOfACommand ? wrongCommand(*app) : "";
        return misused(wrong.empty() ? error.what() : wrong);
    } catch (const UsageError &error) {
        return misused(error.what());
    } catch (const CommandFailed &error) {
        err << "corvanectl: " << oneLine(error.what()) << "\n";
        return 1;
    } catch (const std::exception &error) {
        err << "corvanectl: failed unexpectedly: " << oneLine(error.what())
            << "; please report it with the command\n";
        return 1;
    }
}

} // namespace corvane::client
