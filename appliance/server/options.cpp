/* The options, on CLI11; see the header. */
#include "options.h"

#include "errors.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>

namespace corvane::appliance {
namespace {

constexpr const char *kDefaultListen = "127.0.0.1:8080";

std::string fromEnvironment(const char *name, const char *fallback) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
    const char *value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

[[noreturn]] void misuse(std::string reason) {
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    throw Exit{2, "corvane-appliance: " + reason + "; see: corvane-appliance --help\n"};
}

/* CLI11 doubles empty lines. */
std::string helpText(const CLI::App &app) {
    std::string text = app.help();
    for (std::size_t at = text.find("\n\n\n"); at != text.npos; at = text.find("\n\n\n"))
        text.erase(at, 1);
    return text;
}

} // namespace

Options readOptions(const std::vector<std::string> &arguments) {
    Options options;
    std::string listen = fromEnvironment("CORVANE_APPLIANCE_LISTEN", kDefaultListen);
    std::string url = fromEnvironment("CORVANE_COAP_URL", client::kDefaultUrl);
    CLI::App app("The refrigerator around the energy service, with a live page.",
                 "corvane-appliance");
    app.get_formatter()->column_width(26);
    app.add_option("--listen", listen,
                   "Where the page is served (default\n"
                   "$CORVANE_APPLIANCE_LISTEN, else 127.0.0.1:8080);\n"
                   "port 0 takes a free one and prints it")
        ->type_name("HOST:PORT");
    app.add_option("--password-file", options.passwordFile,
                   "First line is the password of user corvane;\n"
                   "needed for an address other than loopback")
        ->type_name("FILE");
    app.add_option("--url", url,
                   "The service (default $CORVANE_COAP_URL, else\n"
                   "coap://127.0.0.1:5683)")
        ->type_name("URL");
    app.add_option("--psk-file", options.pskFile, "Keys for a coaps:// service")->type_name("FILE");
    app.add_option("--identity", options.identity, "Which of the file's keys")->type_name("NAME");
    app.add_option("--metering-port", options.meteringPort,
                   "Port of the metering service (default 7777);\n"
                   "0 leaves it out")
        ->check(CLI::Range(0, 65535).description(""))
        ->type_name("PORT");
    app.add_option("--speed", options.speed,
                   "Make a clock that runs so many times as fast,\n"
                   "1 to 600, and live by it")
        ->check(CLI::Range(1, 600).description(""))
        ->type_name("N");
    app.add_option("--at", options.at, "What that clock shows first (default now)")
        ->type_name("YYYY-MM-DDThh:mm");
    app.add_option("--zone", options.zone, "Time zone, such as Europe/Berlin (default TZ)")
        ->type_name("ZONE");
    app.add_option("--seed", options.seed, "What chance is drawn from (default 1)")->type_name("N");
    app.add_option("--page-dir", options.pageFolder,
                   "Serve the page from this folder, to work on it")
        ->type_name("FOLDER");
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.set_version_flag("--version", "corvane-appliance " CORVANE_VERSION "\n",
                         "Print the version and exit");
    app.footer(
        "Examples:\n"
        "  corvane-appliance\n"
        "  corvane-appliance --listen 127.0.0.1:8081 --metering-port 0\n"
        "  corvane-appliance --speed 60 --at 2026-07-31T14:50 --zone Europe/Berlin\n"
        "  corvane-appliance --listen 0.0.0.0:8080 --password-file secret\n\n"
        "Files are kept in CORVANE_STATE_DIR and CORVANE_RUNTIME_DIR, as the service's are.\n"
        "Exit status: 0 stopped by a signal, 1 failed, 2 wrong usage.");
    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp &) {
        throw Exit{0, helpText(app)};
    } catch (const CLI::CallForVersion &version) {
        throw Exit{0, version.what()};
    } catch (const CLI::ParseError &error) {
        misuse(error.what());
    }
    const auto place = parseListenPlace(listen);
    if (!place)
        misuse("--listen: \"" + listen + "\" is not HOST:PORT, such as " + kDefaultListen);
    options.listen = *place;
    if (!place->isLoopback() && options.passwordFile.empty())
        misuse(place->text() + " can be reached from other machines and needs a password: give "
                               "--password-file FILE, or listen on 127.0.0.1");
    if (!options.at.empty() && options.speed == 0)
        misuse("--at belongs to a clock: give --speed 1 to 600 too");
    try {
        options.service = client::parseUrl(url);
    } catch (const client::UsageError &error) {
        misuse(error.what());
    }
    if (options.service.secure && options.pskFile.empty())
        misuse("a coaps:// service needs a key: give --psk-file FILE");
    return options;
}

} // namespace corvane::appliance
