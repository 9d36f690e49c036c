/*
 * corvane-standin: the smallest appliance that the service can talk to.
 *
 * It meets the service only where the real micro-controller does, in the settings store: it takes
 * each command in order, and after a short while reports the level or the override that it has
 * applied, by writing their keys when they change. It publishes an energy figure at a steady pace,
 * says that Wi-Fi is connected, and prints one line for everything that it hears and says. SIGINT
 * or SIGTERM ends it.
 */
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <string>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "folders.h"
#include "settings_store.h"
#include "settings_watcher.h"

using namespace corvane::platform;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char *kCommandKey = "memory/refrigerator/TxMessage";
constexpr const char *kLevelKey = "memory/refrigerator/SmartGridDrLevel";
constexpr const char *kOverrideKey = "memory/refrigerator/SmartGridOverrideState";
constexpr std::array<const char *, 4> kEnergyKeys = {
    "memory/refrigerator/SmartGridWatt1", "memory/refrigerator/SmartGridWatt2",
    "memory/refrigerator/SmartGridWatt3", "memory/refrigerator/SmartGridWatt4"};

constexpr std::chrono::milliseconds kApplyTime{300};
constexpr std::chrono::seconds kEnergyPeriod{10};
constexpr double kPowerWatt = 90;        // a refrigerator whose compressor runs
constexpr int kDisplayPowerCounts = 200; // of 10 mW

/* What a command makes the appliance report: a key and its value. */
struct Report {
    const char *key;
    int value;
    const char *name;
};

const std::map<std::string, Report> kReports = {
    {"SET_SMARTGRID_LEVEL_NORMAL", {kLevelKey, 0, "level"}},
    {"SET_SMARTGRID_LEVEL1", {kLevelKey, 1, "level"}},
    {"SET_SMARTGRID_LEVEL2", {kLevelKey, 2, "level"}},
    {"SET_SMARTGRID_LEVEL3", {kLevelKey, 3, "level"}},
    {"SET_SMARTGRID_LEVEL4", {kLevelKey, 4, "level"}},
    {"SET_SMARTGRID_OVERRIDE_FOREVER", {kOverrideKey, 1, "override"}},
    {"SET_SMARTGRID_OVERRIDE_OFF", {kOverrideKey, 0, "override"}},
};

[[noreturn]] void fail(const Status &status) {
    std::fprintf(stderr, "corvane-standin: %s\n", status.text.c_str());
    std::exit(1); // NOLINT(concurrency-mt-unsafe): there is one thread
}

void require(const Status &status) {
    if (!status.ok()) {
        fail(status);
    }
}

void say(const std::string &text) {
    const std::time_t now = std::time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char clock[32];
    std::strftime(clock, sizeof clock, "%F %T", &local);
    std::printf("%s  %-11s  %s\n", clock, "Micom", text.c_str());
    std::fflush(stdout);
}

class StandIn {
public:
    StandIn() : watcher_(store_) {
        Folders folders;
        require(findFolders(folders));
        require(store_.open(folders));
        require(watcher_.open());
        require(watcher_.watch(kCommandKey));
        require(store_.write("memory/wifi/connected", 1));
        require(store_.write("memory/board/power", kDisplayPowerCounts));
    }

    void run(int stopFd) {
        say("ready");
        std::array<pollfd, 2> waits = {{{stopFd, POLLIN, 0}, {watcher_.fd(), POLLIN, 0}}};
        while ((waits[0].revents & POLLIN) == 0) {
            if (poll(waits.data(), waits.size(), untilNextMs()) < 0 && errno != EINTR) {
                fail(systemFailure(errno, "cannot wait for commands"));
            }
            require(watcher_.drain([this](const SettingChange &change) { hear(change); }));
            reportDue();
            publishEnergy();
        }
        say("stopped");
    }

private:
    struct Pending {
        Clock::time_point due;
        Report report;
    };

    int untilNextMs() const {
        Clock::time_point next = nextEnergy_;
        if (!pending_.empty() && pending_.front().due < next) {
            next = pending_.front().due;
        }
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        return wait.count() > 0 ? static_cast<int>(wait.count()) : 0;
    }

    void hear(const SettingChange &change) {
        const auto *command =
            change.value.has_value() ? std::get_if<std::string>(&*change.value) : nullptr;
        if (command == nullptr) {
            return;
        }
        say("heard    " + *command);
        const auto found = kReports.find(*command);
        if (found != kReports.end()) {
            pending_.push_back({Clock::now() + kApplyTime, found->second});
        }
    }

    void reportDue() {
        while (!pending_.empty() && pending_.front().due <= Clock::now()) {
            const Report report = pending_.front().report;
            pending_.pop_front();
            const auto [reported, isFirst] = reported_.try_emplace(report.key, report.value);
            if (!isFirst && reported->second == report.value) {
                continue;
            }
            reported->second = report.value;
            require(store_.write(report.key, report.value));
            say("applied  " + std::string(report.name) + " " + std::to_string(report.value));
        }
    }

    /* The figure counts 0.01 Wh since the last one; the last byte goes last, it is the signal. */
    void publishEnergy() {
        if (Clock::now() < nextEnergy_) {
            return;
        }
        nextEnergy_ += kEnergyPeriod;
        const double hours = std::chrono::duration<double, std::ratio<3600>>(kEnergyPeriod).count();
        const auto counts = static_cast<unsigned>(kPowerWatt * hours * 100);
        for (std::size_t i = 0; i < kEnergyKeys.size(); ++i) {
            const auto byte = static_cast<int>(counts >> (8 * (3 - i)) & 255U);
            require(store_.write(kEnergyKeys[i], byte));
        }
    }

    SettingsStore store_;
    SettingsWatcher watcher_;
    std::deque<Pending> pending_;
    std::map<std::string, int> reported_;
    Clock::time_point nextEnergy_ = Clock::now() + kEnergyPeriod;
};

} // namespace

int main() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const int stopFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    if (stopFd < 0) {
        fail(systemFailure(errno, "cannot receive signals"));
    }
    StandIn().run(stopFd);
    close(stopFd);
    return 0;
}
