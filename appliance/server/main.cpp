/*
 * corvane-appliance: everything around the energy service, and a page to see it. This file puts
 * the parts together; the main thread is the engine's.
 */
#include "appliance.h"
#include "http_api.h"
#include "http_guard.h"
#include "http_server.h"
#include "metering_listener.h"
#include "options.h"
#include "remote_side.h"
#include "table_watch.h"

#include "errors.h"
#include "folders.h"
#include "stop_signal.h"
#include "virtual_clock.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <unistd.h>

namespace corvane::appliance {
namespace {

constexpr const char *kFolder = "/appliance";
constexpr int kLargeAnswer = 64 * 1024; // bytes

void require(const platform::Status &status) {
    if (!status.ok())
        throw ApplianceError(status.text);
}

void requireNone(const std::string &complaint) {
    if (!complaint.empty())
        throw ApplianceError(complaint);
}

platform::Folders prepareFolders() {
    platform::Folders folders;
    require(platform::findFolders(folders));
    require(platform::makeFolders(folders));
    require(platform::makeFolder(folders.state + kFolder));
    return folders;
}

/* One appliance at a time on one pair of folders. The lock goes with the process's program. */
void lockFolder(const platform::Folders &folders) {
    const std::string path = folders.state + kFolder + "/lock";
    const int held = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (held < 0)
        require(platform::systemFailure(errno, path));
    if (flock(held, LOCK_EX | LOCK_NB) != 0)
        throw ApplianceError("another appliance uses " + folders.state +
                             "; stop it, or set CORVANE_STATE_DIR and CORVANE_RUNTIME_DIR");
}

/* The clock is read before main(), so the program starts itself anew in it. */
[[noreturn]] void liveByNewClock(const Options &options, const platform::Folders &folders,
                                 const std::vector<std::string> &arguments, char *name) {
    std::int64_t startNs = clock::VirtualClock().nowNs();
    if (!options.at.empty()) {
        std::time_t start = 0;
        requireNone(clock::parseLocalTime(options.at, start));
        startNs = std::int64_t{start} * 1'000'000'000;
    }
    const std::string path = folders.runtime + "/clock";
    requireNone(clock::createClock(path, options.speed, startNs));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread yet
    setenv(clock::kClockVariable, path.c_str(), 1);

    std::vector<char *> rest{name};
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string &argument = arguments[i];
        const bool isOfClock = argument == "--speed" || argument == "--at";
        if (isOfClock)
            ++i; // its value
        else if (!argument.starts_with("--speed=") && !argument.starts_with("--at="))
            rest.push_back(const_cast<char *>(argument.c_str()));
    }
    rest.push_back(nullptr);
    execv("/proc/self/exe", rest.data());
    throw ApplianceError(platform::systemFailure(errno, "cannot start anew in the clock").text);
}

/* The zone's name for people: what TZ says, else where /etc/localtime leads. */
std::string zoneName() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment any more
    if (const char *zone = std::getenv("TZ"); zone != nullptr && *zone != '\0')
        return zone;
    std::error_code ignored;
    const std::string target = std::filesystem::read_symlink("/etc/localtime", ignored);
    const std::size_t at = target.find("zoneinfo/");
    return at == std::string::npos ? "UTC" : target.substr(at + std::strlen("zoneinfo/"));
}

/* A month's consumption; the service counts in units of 100 Wh, and tells hundredths of them. */
std::optional<double> consumedKwh(const nlohmann::json &body, const char *name) {
    constexpr double kUnitsPerKwh = 10;
    const std::string text = body.value(name, "");
    char *end = nullptr;
    const double units = std::strtod(text.c_str(), &end);
    return text.empty() || *end != '\0' ? std::nullopt : std::optional(units / kUnitsPerKwh);
}

void askService(RemoteSide &remote, Appliance &appliance) {
    remote.requestLater("GetDefrostReservations", [&appliance](const Answer &answer) {
        std::vector<client::Reservation> reservations;
        if (answer.isGood())
            for (const auto &each : answer.body.value("reservations", nlohmann::json::array()))
                reservations.push_back({each.value("id", ""), each.value("description", ""),
                                        each.value("startTime", ""), each.value("endTime", ""),
                                        each.value("period", "")});
        appliance.mailbox().post(
            [&appliance, reservations] { appliance.serviceTellsReservations(reservations); });
    });
    remote.requestLater("GetEnergyConsumption", [&appliance](const Answer &answer) {
        if (!answer.isGood())
            return;
        appliance.mailbox().post([&appliance, thisMonth = consumedKwh(answer.body, "cumulative"),
                                  previous = consumedKwh(answer.body, "monthly")] {
            appliance.serviceTellsConsumption(thisMonth, previous);
        });
    });
}

void observe(RemoteSide &remote, Appliance &appliance) {
    remote.start({.link =
                      [&appliance](bool reachable, const std::string &reason) {
                          appliance.mailbox().post(
                              [=, &appliance] { appliance.serviceLink(reachable, reason); });
                      },
                  .present =
                      [&appliance](const std::string &resource, const nlohmann::json &body) {
                          appliance.mailbox().post(
                              [=, &appliance] { appliance.servicePresents(resource, body); });
                      },
                  .notified =
                      [&appliance](const std::string &resource, const nlohmann::json &body) {
                          appliance.mailbox().post(
                              [=, &appliance] { appliance.serviceNotifies(resource, body); });
                      }});
}

/* However the engine ends, nobody is left who would ask it: its threads end before what they use.
 */
class Ending {
public:
    Ending(Appliance &appliance, HttpServer &server, RemoteSide &remote)
        : appliance_(appliance), server_(server), remote_(remote) {}
    ~Ending() {
        appliance_.mailbox().shut();
        remote_.stop();
        server_.stop();
    }
    Ending(const Ending &) = delete;
    Ending &operator=(const Ending &) = delete;

private:
    Appliance &appliance_;
    HttpServer &server_;
    RemoteSide &remote_;
};

void live(const Options &options, const platform::Folders &folders, int stopFd) {
    std::optional<std::string> password;
    if (!options.passwordFile.empty())
        requireNone(readPasswordFile(options.passwordFile, password.emplace()));
    std::optional<client::Credentials> credentials;
    if (options.service.secure)
        credentials = client::readCredentials(options.pskFile, options.identity);
    lockFolder(folders);
    platform::SettingsStore store;
    require(store.open(folders));

    Terminal terminal;
    StreamHub hub;
    HttpServer server(options.listen);
    History history(folders.state + kFolder + "/history.db", clockNowMs());
    Appliance appliance({.seed = options.seed,
                         .speed = clock::processClock().factor(),
                         .version = CORVANE_VERSION,
                         .serviceUrl = options.service.url(),
                         .zone = zoneName(),
                         .hasMetering = options.meteringPort != 0},
                        store, history, hub, terminal);
    RemoteSide remote(options.service, credentials);
    appliance.onAskService = [&] { askService(remote, appliance); };

    std::unique_ptr<MeteringListener> metering;
    if (options.meteringPort != 0)
        metering = std::make_unique<MeteringListener>(appliance, options.meteringPort,
                                                      clock::processClock().factor());
    appliance.onMeteringFault = [&] {
        if (metering)
            metering->release();
    };
    observe(remote, appliance);
    const TableWatch table(folders, [&appliance](const auto &event, TimeMs atMs) {
        appliance.mailbox().post([=, &appliance] { appliance.serviceStores(event, atMs); });
    });

    const PageFiles files(options.pageFolder);
    const HttpApi api(appliance, history, remote, hub, files);
    const HttpGuard guard(server.place(), password);
    const Ending ending(appliance, server, remote);
    server.start(api, guard, hub);
    terminal.say(clockNowMs(), "Page", "served at http://" + server.place().text() + "/");
    appliance.run(stopFd);
}

int run(const std::vector<std::string> &arguments, char *name) {
    try {
        const Options options = readOptions(arguments);
        if (!options.zone.empty())
            requireNone(clock::useZone(options.zone));
        const platform::Folders folders = prepareFolders();
        if (options.speed != 0) {
            lockFolder(folders); // the clock there may be another appliance's
            liveByNewClock(options, folders, arguments, name);
        }
        // Threads that only wait should not each keep a heap of their own, and large answers
        // should go back to the system.
        // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet
        mallopt(M_ARENA_MAX, 2);
        mallopt(M_MMAP_THRESHOLD, kLargeAnswer);
        mallopt(M_TRIM_THRESHOLD, kLargeAnswer);
        // NOLINTEND(concurrency-mt-unsafe)
        signal(SIGPIPE, SIG_IGN);
        const client::StopSignal stop;
        live(options, folders, stop.fd());
        return 0;
    } catch (const Exit &exit) {
        (exit.status == 0 ? std::cout : std::cerr) << exit.text;
        return exit.status;
    } catch (const std::exception &error) {
        std::cerr << "corvane-appliance: " << error.what() << "\n";
        return 1;
    }
}

} // namespace
} // namespace corvane::appliance

int main(int argc, char **argv) {
    return corvane::appliance::run({argv + 1, argv + argc}, argv[0]);
}
