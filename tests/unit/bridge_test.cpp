/*
 * The remote command bridge: what is declared to the proxy and in which order, who installs which
 * handler and when, and what a request meets while its controller is not there. What the handlers
 * do with a controller is held beside each controller.
 */
#include "service_fixture.h"

#include <dlog.h>
#include <functional>
#include <gmock/gmock.h>

namespace {

using Corvane::EnergyManager;
using fakes::Kind;
using fakes::proxy::kRefused;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Texts = std::vector<std::string>;

const std::vector<fakes::proxy::Command> kCommands = {
    {"GetDRLCOverride", 1},        {"ControlOverride", 1},           {"ControlDRLC", 1},
    {"GetDefrostReservations", 1}, {"CreateDefrostReservations", 1}, {"SetDefrostReservations", 1},
    {"DelDefrostReservations", 1}, {"GetDelayDefrost", 1},           {"SetDelayDefrost", 1},
    {"GetDefrostBlock", 1},        {"SendOverrideNotify", 0},        {"SendDRLCNotify", 0},
    {"SendDelayDefrostNotify", 0}, {"SendDefrostBlockNotify", 0},    {"GetEnergyConsumption", 1},
};

const Texts kOfDefrostDelay = {
    "KestRegisterCreateDefrostReservationsFunc", "KestRegisterSetDefrostReservationsFunc",
    "KestRegisterDelDefrostReservationsFunc",    "KestRegisterGetDefrostReservationsFunc",
    "KestRegisterSetDelayDefrostFunc",           "KestRegisterGetDelayDefrostFunc"};
const Texts kOfEnergyDR = {"KestRegisterControlOverrideFunc", "KestRegisterControlDRLCFunc",
                           "KestRegisterGetDRLCOverrideFunc", "KestRegisterGetDefrostBlockFunc"};
const Texts kOfEnergyReport = {"KestRegisterGetEnergyConsumptionFunc"};

enum class Owner { DefrostDelay, EnergyDR, EnergyReport };

// One request of each command, with nothing in it that a handler refuses by its content.
struct Request {
    const char *command;
    Owner owner;
    std::function<int()> make;
};

const std::vector<Request> kRequests = {
    {"CreateDefrostReservations", Owner::DefrostDelay,
     [] {
         return fakes::proxy::createDefrostReservation(
                    fakes::proxy::reservation("0000-06-01T10:00:00", "0000-06-30T00:00:00",
                                              "01:00:00"))
             .answer;
     }},
    {"DelDefrostReservations", Owner::DefrostDelay,
     [] { return fakes::proxy::delDefrostReservation("2"); }},
    {"SetDefrostReservations", Owner::DefrostDelay,
     [] {
         const int answer = fakes::proxy::setDefrostReservation(
             fakes::proxy::reservation("0000-07-01T10:00:00", "0000-07-31T00:00:00", "01:00:00"));
         fakes::proxy::delDefrostReservation("2"); // it adds, and the next time needs the room
         return answer;
     }},
    {"GetDefrostReservations", Owner::DefrostDelay,
     [] { return fakes::proxy::getDefrostReservations().answer; }},
    {"SetDelayDefrost", Owner::DefrostDelay, [] { return fakes::proxy::setDelayDefrost(0); }},
    {"GetDelayDefrost", Owner::DefrostDelay, [] { return fakes::proxy::getDelayDefrost().answer; }},
    {"ControlOverride", Owner::EnergyDR, [] { return fakes::proxy::controlOverride(0); }},
    {"ControlDRLC", Owner::EnergyDR, [] { return fakes::proxy::controlDrlc("1", "00:10:00", ""); }},
    {"GetDRLCOverride", Owner::EnergyDR, [] { return fakes::proxy::getDrlcOverride().answer; }},
    {"GetDefrostBlock", Owner::EnergyDR, [] { return fakes::proxy::getDefrostBlock().answer; }},
    {"GetEnergyConsumption", Owner::EnergyReport,
     [] { return fakes::proxy::getEnergyConsumption().answer; }},
};

std::string registrationOf(const Request &request) {
    return std::string("KestRegister") + request.command + "Func";
}

class BridgeTest : public fakes::ServiceTest {
protected:
    // Registrations only, in their order.
    static Texts registrations() {
        Texts wanted;
        for (const std::string &text : fakes::texts({Kind::Proxy})) {
            if (text.starts_with("KestRegister")) {
                wanted.push_back(text);
            }
        }
        return wanted;
    }

    static Texts joined(std::initializer_list<Texts> parts) {
        Texts all;
        for (const Texts &part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }
};

// ---- Declaration ----

TEST_F(BridgeTest, FifteenCommandsAreDeclaredInTheirOrder) {
    EnergyManager::Initialize();
    EXPECT_THAT(fakes::proxy::commands(), ElementsAreArray(kCommands));
}

TEST_F(BridgeTest, AllIsDeclaredThenTheProxyIsMadeStartedAndToldToPublish) {
    EnergyManager::Initialize();
    Texts expected;
    for (const auto &[name, kind] : kCommands) {
        expected.push_back("KestAddProxyCommands(" + name + ", " + std::to_string(kind) + ")");
    }
    expected.insert(expected.end(),
                    {"KestInitProxy(KestProxyTest)", "KestStart", "KestSendSetProxyCmds"});
    EXPECT_THAT(fakes::texts({Kind::Proxy}), ElementsAreArray(expected));
}

TEST_F(BridgeTest, EachDeclarationIsLoggedBeforeItIsMade) {
    EnergyManager::Initialize();
    const Texts all = fakes::texts({Kind::Log, Kind::Proxy});
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (all[i].starts_with("KestAddProxyCommands")) {
            EXPECT_EQ(all.at(i - 1), "EnergyManager::KestAddProxy()");
        }
    }
    EXPECT_EQ(fakes::log::count("EnergyManager::KestAddProxy()"), 15);
}

TEST_F(BridgeTest, NotificationIsKindZeroAndRequestKindOne) {
    EnergyManager::KestAddProxy("told", EnergyManager::KEST_CMD_NOTIFY);
    EnergyManager::KestAddProxy("asked", EnergyManager::KEST_CMD_REQUEST);
    EXPECT_THAT(fakes::proxy::commands(),
                ElementsAre(fakes::proxy::Command{"told", 0}, fakes::proxy::Command{"asked", 1}));
}

TEST_F(BridgeTest, AnotherKindIsLoggedAndDeclaresNothing) {
    for (const int kind : {2, -1, 3, 1000}) {
        fakes::clearRecords();
        EnergyManager::KestAddProxy("odd", static_cast<EnergyManager::KestCmd>(kind));
        EXPECT_THAT(fakes::texts(), ElementsAre("EnergyManager::KestAddProxy()")) << kind;
        EXPECT_EQ(fakes::log::lines().at(0).priority, DLOG_INFO);
        EXPECT_THAT(fakes::proxy::commands(), IsEmpty());
    }
}

// ---- Registration ----

TEST_F(BridgeTest, NoHandlerIsInstalledBeforeTheLaunch) {
    startService();
    for (const Request &request : kRequests) {
        EXPECT_EQ(request.make(), kRefused) << request.command;
    }
    EXPECT_THAT(registrations(), IsEmpty());
}

TEST_F(BridgeTest, EachControllerInstallsItsOwnHandlersWhenItIsBuilt) {
    EnergyManager::LaunchApp();
    advance(0.99);
    EXPECT_THAT(registrations(), IsEmpty());
    advance(0.02);
    EXPECT_THAT(registrations(), ElementsAreArray(kOfDefrostDelay));
    advance(1.05);
    EXPECT_THAT(registrations(), ElementsAreArray(joined({kOfDefrostDelay, kOfEnergyDR})));
    advance(1.05);
    EXPECT_THAT(registrations(),
                ElementsAreArray(joined({kOfDefrostDelay, kOfEnergyDR, kOfEnergyReport})));
}

TEST_F(BridgeTest, CommandsAnswerFromTheMomentTheirControllerIsBuilt) {
    EnergyManager::LaunchApp();
    for (const Owner built : {Owner::DefrostDelay, Owner::EnergyDR, Owner::EnergyReport}) {
        advance(1.05);
        for (const Request &request : kRequests) {
            EXPECT_EQ(request.make(), request.owner <= built ? 1 : kRefused) << request.command;
        }
    }
}

TEST_F(BridgeTest, ControllersThatAreRebuiltInstallTheirHandlersAgain) {
    EnergyManager::LaunchApp();
    advance(4);
    EnergyManager::FinalThread();
    fakes::clearRecords();
    EnergyManager::LaunchApp();
    advance(6);
    EXPECT_THAT(registrations(),
                ElementsAreArray(joined({kOfDefrostDelay, kOfEnergyDR, kOfEnergyReport})));
    for (const Request &request : kRequests) {
        EXPECT_EQ(request.make(), 1) << request.command;
    }
}

TEST_F(BridgeTest, ProxyWhoseCallsAllAnswerFailureIsUsedAsAnyOther) {
    fakes::proxy::answerFailure();
    startServiceAndOpenGate();
    EXPECT_THAT(fakes::proxy::commands(), ElementsAreArray(kCommands));
    EXPECT_THAT(registrations(),
                ElementsAreArray(joined({kOfDefrostDelay, kOfEnergyDR, kOfEnergyReport})));
    for (const Request &request : kRequests) {
        EXPECT_EQ(request.make(), 1) << request.command;
    }
}

// ---- Requests ----

TEST_F(BridgeTest, HandlerLogsTheRegistrationThatInstalledItOnEntry) {
    startServiceAndOpenGate();
    for (const Request &request : kRequests) {
        fakes::clearRecords();
        request.make();
        const auto trace = fakes::trace({Kind::Request, Kind::Log});
        ASSERT_GE(trace.size(), 2U) << request.command;
        EXPECT_EQ(trace[0].kind, Kind::Request);
        EXPECT_EQ(trace[1].text, registrationOf(request));
        EXPECT_EQ(fakes::log::find(registrationOf(request)).priority, DLOG_DEBUG);
    }
}

TEST_F(BridgeTest, RequestWhoseControllerIsGoneIsLoggedAnsweredZeroAndDoesNothing) {
    startServiceAndOpenGate();
    EnergyManager::FinalThread();
    for (const Request &request : kRequests) {
        fakes::clearRecords();
        EXPECT_EQ(request.make(), 0) << request.command;
        EXPECT_TRUE(fakes::log::has(registrationOf(request))) << request.command;
        EXPECT_THAT(fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql, Kind::Post}),
                    IsEmpty())
            << request.command;
    }
}

TEST_F(BridgeTest, RequestWhoseControllerIsGoneLeavesItsAnswerAlone) {
    startServiceAndOpenGate();
    EnergyManager::FinalThread();
    const auto override = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(override.level, -99);
    EXPECT_EQ(override.override_state, -99);
    EXPECT_EQ(fakes::proxy::getDefrostBlock().value, -99);
    EXPECT_EQ(fakes::proxy::getDelayDefrost().value, -99);
    EXPECT_EQ(fakes::proxy::getDefrostReservations().count, -99);
    EXPECT_EQ(fakes::proxy::getEnergyConsumption().cumulative, "untouched");
    EXPECT_EQ(fakes::proxy::getEnergyConsumption().monthly, "untouched");
    const auto created = fakes::proxy::createDefrostReservation(
        fakes::proxy::reservation("0000-06-01T10:00:00", "0000-06-30T00:00:00", "01:00:00"));
    EXPECT_EQ(created.error, 0);
    EXPECT_EQ(created.text, "--------");
    EXPECT_EQ(FAKES_TEXT(created.entry.id), "");
}

} // namespace
