/*
 * The platform's contract, one test a promise: settings, loop, log, Wi-Fi activation and proxy. The
 * program is linked once with the platform in memory and once with the Linux platform (see rig.h).
 *
 * A test has the service's part in it: its callbacks run under service_app_main() on a thread of
 * the fixture. Time is real or virtual, so a test waits for what it expects and never for a time.
 */
#include "rig.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <dlog.h>
#include <ocf_proxy.h>
#include <service_app.h>
#include <vconf.h>
#include <wifi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace contract {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using Outcome = Answer::Outcome;

constexpr auto kTick = std::chrono::milliseconds(1);
constexpr int kMaxTicks = 60'000;

// True once the condition holds; false when it did not in a minute.
bool waitFor(const std::function<bool()> &condition) {
    for (int i = 0; i < kMaxTicks && !condition(); ++i) {
        std::this_thread::sleep_for(kTick);
    }
    return condition();
}

// What a settings callback was called with, and where. A registration lasts as long as the process,
// so listeners do too.
class Listener {
public:
    static Listener &make(const std::string &key) {
        static std::deque<Listener> all;
        return all.emplace_back(key);
    }

    explicit Listener(std::string key) : key_(std::move(key)) {}

    static void hear(keynode_t *, void *listener) { static_cast<Listener *>(listener)->note(); }

    int listen() { return vconf_notify_key_changed(key_.c_str(), hear, this); }

    std::vector<int> values() {
        const std::lock_guard lock(mutex_);
        return values_;
    }
    std::size_t count() { return values().size(); }
    std::vector<std::thread::id> threads() {
        const std::lock_guard lock(mutex_);
        return threads_;
    }

private:
    void note() {
        int value = -1;
        (void)vconf_get_int(key_.c_str(), &value);
        const std::lock_guard lock(mutex_);
        values_.push_back(value);
        threads_.push_back(std::this_thread::get_id());
    }

    const std::string key_;
    std::mutex mutex_;
    std::vector<int> values_;              // guarded by mutex_
    std::vector<std::thread::id> threads_; // guarded by mutex_
};

// The service's part of the present test. Handlers are plain functions, so there is one for the
// process; its functions are set before the service starts and constant from then on.
struct Service {
    std::function<bool()> create = [] { return true; };
    std::function<void()> terminate = [] {};
    std::function<void()> appControl = [] {};
    std::function<int(int)> controlOverride = [](int) { return 1; };
    std::function<int(KestDrlcInfo &)> controlDrlc = [](KestDrlcInfo &) { return 1; };
};
Service service;

int handleOverride(int value) { return service.controlOverride(value); }
int handleDrlc(KestDrlcInfo *info) { return service.controlDrlc(*info); }

class Contract : public testing::Test {
protected:
    void SetUp() override { rig_ = makeRig(); }

    void TearDown() override {
        if (thread_.joinable()) {
            stop();
        }
        rig_.reset();
        service = {};
    }

    void launch() {
        thread_ = std::thread([this] { run(); });
        ASSERT_TRUE(waitFor([this] { return isCreated_ || hasReturned_; }));
    }

    // Runs the service until create has returned.
    void start() {
        launch();
        ASSERT_TRUE(isCreated_);
    }

    // The same with the proxy started in create, under a name and with commands it knows.
    void startWithProxy() {
        const std::function<bool()> createBefore = service.create;
        service.create = [createBefore] {
            startProxy();
            return createBefore();
        };
        start();
    }

    static void startProxy() {
        for (const char *command :
             {"GetDRLCOverride", "ControlOverride", "ControlDRLC", "GetDefrostReservations",
              "CreateDefrostReservations", "SetDefrostReservations", "DelDefrostReservations",
              "GetDelayDefrost", "SetDelayDefrost", "GetDefrostBlock", "GetEnergyConsumption"}) {
            EXPECT_EQ(KestAddProxyCommands(command, 1), 0) << command;
        }
        for (const char *notification : {"SendOverrideNotify", "SendDRLCNotify",
                                         "SendDelayDefrostNotify", "SendDefrostBlockNotify"}) {
            EXPECT_EQ(KestAddProxyCommands(notification, 0), 0) << notification;
        }
        EXPECT_EQ(KestInitProxy("KestProxyTest"), 0);
        EXPECT_EQ(KestStart(), 0);
        EXPECT_EQ(KestSendSetProxyCmds(), 0);
    }

    // The exit status, once the service has returned.
    int stop() {
        if (!hasReturned_) {
            rig_->requestStop();
        }
        thread_.join();
        return status_;
    }

    Listener &listenTo(const std::string &key) {
        Listener &listener = Listener::make(key);
        EXPECT_EQ(listener.listen(), 0);
        return listener;
    }

    Answer request(const std::string &command, const json &members = json::object()) {
        return rig_->request(command, members);
    }

    std::unique_ptr<Rig> rig_;
    std::atomic<bool> hasReturned_{false};
    std::thread::id loopThread_; // constant once created

private:
    void run() {
        loopThread_ = std::this_thread::get_id();
        service_app_lifecycle_callback_s callbacks = {
            [](void *self) {
                const bool goesOn = service.create();
                static_cast<Contract *>(self)->isCreated_ = goesOn;
                return goesOn;
            },
            [](void *) { service.terminate(); },
            [](app_control_h, void *) { service.appControl(); }};
        char name[] = "corvane";
        char *arguments[] = {name, nullptr};
        status_ = service_app_main(1, arguments, &callbacks, this);
        hasReturned_ = true;
    }

    std::thread thread_;
    std::atomic<bool> isCreated_{false};
    int status_ = -1; // written before hasReturned_
};

// ---- Settings ----

using SettingsContract = Contract;

TEST_F(SettingsContract, NumberIsReadBackAsWritten) {
    const std::string key = rig_->key("number");
    for (const int written : {0, 7, -1, 2147483647, -2147483647 - 1}) {
        int read = 99;
        EXPECT_EQ(vconf_set_int(key.c_str(), written), 0);
        EXPECT_EQ(vconf_get_int(key.c_str(), &read), 0);
        EXPECT_EQ(read, written);
    }
}

TEST_F(SettingsContract, NumberWrittenByAnotherProcessIsRead) {
    const std::string key = rig_->key("number");
    rig_->writeInt(key, 42);
    int read = 99;
    EXPECT_EQ(vconf_get_int(key.c_str(), &read), 0);
    EXPECT_EQ(read, 42);
}

TEST_F(SettingsContract, ReadOfAnAbsentKeyFailsAndLeavesTheValueUntouched) {
    int read = 99;
    EXPECT_EQ(vconf_get_int(rig_->key("absent").c_str(), &read), -1);
    EXPECT_EQ(read, 99);
}

TEST_F(SettingsContract, NumberIsNotReadFromATextAndTheValueIsUntouched) {
    const std::string key = rig_->key("text");
    EXPECT_EQ(vconf_set_str(key.c_str(), "7"), 0);
    int read = 99;
    EXPECT_EQ(vconf_get_int(key.c_str(), &read), -1);
    EXPECT_EQ(read, 99);
    rig_->writeText(key, "SET_SMARTGRID_LEVEL1");
    EXPECT_EQ(vconf_get_int(key.c_str(), &read), -1);
    EXPECT_EQ(read, 99);
}

TEST_F(SettingsContract, LaterWriteMayBeOfTheOtherType) {
    const std::string key = rig_->key("either");
    EXPECT_EQ(vconf_set_str(key.c_str(), "text"), 0);
    EXPECT_EQ(vconf_set_int(key.c_str(), 5), 0);
    int read = 99;
    EXPECT_EQ(vconf_get_int(key.c_str(), &read), 0);
    EXPECT_EQ(read, 5);
}

TEST_F(SettingsContract, KeyOfNeitherKindIsRefused) {
    int read = 99;
    EXPECT_EQ(vconf_set_int("other/key", 1), -1);
    EXPECT_EQ(vconf_set_str("other/key", "1"), -1);
    EXPECT_EQ(vconf_get_int("other/key", &read), -1);
    EXPECT_EQ(read, 99);
    EXPECT_EQ(vconf_notify_key_changed("other/key", Listener::hear, nullptr), -1);
}

TEST_F(SettingsContract, EveryWriteNotifiesAlsoOfAnEqualValue) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    start();
    for (std::size_t i = 1; i <= 3; ++i) {
        vconf_set_int(key.c_str(), 2);
        ASSERT_TRUE(waitFor([&] { return listener.count() >= i; })) << i;
    }
    EXPECT_THAT(listener.values(), ElementsAre(2, 2, 2));
}

TEST_F(SettingsContract, WritesOfAnotherProcessNotifyEachOnce) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    start();
    rig_->writeInt(key, 3, 200);
    ASSERT_TRUE(waitFor([&] { return listener.count() >= 200; })) << listener.count();
    rig_->writeInt(key, 4);
    ASSERT_TRUE(waitFor([&] { return listener.values().back() == 4; }));
    EXPECT_EQ(listener.count(), 201U);
}

TEST_F(SettingsContract, TextWritesNotifyToo) {
    const std::string key = rig_->key("command");
    Listener &listener = listenTo(key);
    start();
    vconf_set_str(key.c_str(), "SET_SMARTGRID_LEVEL1");
    ASSERT_TRUE(waitFor([&] { return listener.count() == 1; }));
    rig_->writeText(key, "SET_SMARTGRID_LEVEL1");
    EXPECT_TRUE(waitFor([&] { return listener.count() == 2; }));
}

TEST_F(SettingsContract, IdenticalRegistrationIsKeptOnce) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    EXPECT_EQ(listener.listen(), 0);
    start();
    EXPECT_EQ(listener.listen(), 0);
    vconf_set_int(key.c_str(), 1);
    ASSERT_TRUE(waitFor([&] { return listener.count() >= 1; }));
    vconf_set_int(key.c_str(), 2);
    ASSERT_TRUE(waitFor([&] { return listener.values().back() == 2; }));
    EXPECT_EQ(listener.count(), 2U);
}

TEST_F(SettingsContract, AnotherUserDataIsAFurtherRegistration) {
    const std::string key = rig_->key("level");
    Listener &first = listenTo(key);
    Listener &second = listenTo(key);
    start();
    vconf_set_int(key.c_str(), 1);
    EXPECT_TRUE(waitFor([&] { return first.count() == 1 && second.count() == 1; }));
}

TEST_F(SettingsContract, AnotherCallbackIsAFurtherRegistration) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    static std::atomic<int> others;
    others = 0;
    EXPECT_EQ(vconf_notify_key_changed(
                  key.c_str(), [](keynode_t *, void *) { ++others; }, &listener),
              0);
    start();
    vconf_set_int(key.c_str(), 1);
    EXPECT_TRUE(waitFor([&] { return listener.count() == 1 && others == 1; }));
}

TEST_F(SettingsContract, WriteOfAnotherKeyDoesNotNotify) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    Listener &other = listenTo(key + "2");
    start();
    vconf_set_int((key + "2").c_str(), 1);
    ASSERT_TRUE(waitFor([&] { return other.count() == 1; }));
    vconf_set_int(key.c_str(), 5);
    ASSERT_TRUE(waitFor([&] { return listener.count() >= 1; }));
    EXPECT_THAT(listener.values(), ElementsAre(5));
}

TEST_F(SettingsContract, CallbacksRunOnTheLoopsThreadWhoeverWrites) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    start();
    vconf_set_int(key.c_str(), 1);
    std::thread([&key] { vconf_set_int(key.c_str(), 2); }).join();
    rig_->writeInt(key, 3);
    ASSERT_TRUE(waitFor([&] { return listener.count() == 3; }));
    EXPECT_THAT(listener.threads(), testing::Each(loopThread_));
}

TEST_F(SettingsContract, RegistrationFromAnotherThreadWhileTheLoopRuns) {
    const std::string key = rig_->key("level");
    start();
    Listener &listener = Listener::make(key);
    std::thread([&listener] { EXPECT_EQ(listener.listen(), 0); }).join();
    vconf_set_int(key.c_str(), 1);
    EXPECT_TRUE(waitFor([&] { return listener.count() == 1; }));
}

TEST_F(SettingsContract, CallbackMayUseTheStore) {
    static std::string key;
    static std::string answerKey;
    static Listener *answers;
    key = rig_->key("question");
    answerKey = rig_->key("answer");
    answers = &Listener::make(answerKey);
    EXPECT_EQ(vconf_notify_key_changed(
                  key.c_str(),
                  [](keynode_t *, void *) {
                      int value = 0;
                      EXPECT_EQ(vconf_get_int(key.c_str(), &value), 0);
                      EXPECT_EQ(answers->listen(), 0);
                      EXPECT_EQ(vconf_set_int(answerKey.c_str(), value + 1), 0);
                  },
                  nullptr),
              0);
    start();
    rig_->writeInt(key, 41);
    ASSERT_TRUE(waitFor([] { return answers->count() == 1; }));
    EXPECT_THAT(answers->values(), ElementsAre(42));
}

TEST_F(SettingsContract, NothingIsHeardFromTerminateOn) {
    const std::string key = rig_->key("level");
    Listener &listener = listenTo(key);
    std::size_t heardBefore = 0;
    service.terminate = [&] {
        heardBefore = listener.count();
        vconf_set_int(key.c_str(), 2);
        rig_->writeInt(key, 3);
    };
    start();
    vconf_set_int(key.c_str(), 1);
    ASSERT_TRUE(waitFor([&] { return listener.count() == 1; }));
    EXPECT_EQ(stop(), 0);
    rig_->writeInt(key, 4);
    EXPECT_EQ(heardBefore, 1U);
    EXPECT_EQ(listener.count(), 1U);
}

// ---- Loop ----

using LoopContract = Contract;

TEST_F(LoopContract, CreateComesFirstAndTerminateLastOnTheCallersThread) {
    std::vector<std::string> order;
    std::vector<std::thread::id> threads;
    const auto note = [&](const char *what) {
        order.emplace_back(what);
        threads.push_back(std::this_thread::get_id());
    };
    service.create = [&] {
        note("create");
        return true;
    };
    service.terminate = [&] { note("terminate"); };
    start();
    EXPECT_EQ(stop(), 0);
    EXPECT_THAT(order, ElementsAre("create", "terminate"));
    EXPECT_THAT(threads, testing::Each(loopThread_));
}

TEST_F(LoopContract, CreateThatAnswersFalseEndsTheServiceWithAFailure) {
    service.create = [] { return false; };
    launch();
    ASSERT_TRUE(waitFor([this] { return hasReturned_.load(); }));
    EXPECT_NE(stop(), 0);
}

TEST_F(LoopContract, RequestsOfOtherApplicationsAreHeardOnTheLoopsThread) {
    std::atomic<int> heard{0};
    std::atomic<bool> isElsewhere{false};
    service.appControl = [&] {
        isElsewhere = isElsewhere || std::this_thread::get_id() != loopThread_;
        ++heard;
    };
    start();
    for (int i = 1; i <= 2; ++i) {
        rig_->requestAppControl();
        ASSERT_TRUE(waitFor([&] { return heard == i; })) << i;
    }
    EXPECT_FALSE(isElsewhere);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(heard, 2);
}

TEST_F(LoopContract, WifiActivationIsHeardOnceOnTheLoopsThread) {
    static std::atomic<int> heard;
    static std::thread::id thread;
    heard = 0;
    start();
    ASSERT_EQ(wifi_activate(
                  [](wifi_error_e, void *userData) {
                      thread = std::this_thread::get_id();
                      heard += *static_cast<int *>(userData);
                  },
                  [] {
                      static int one = 1;
                      return &one;
                  }()),
              0);
    ASSERT_TRUE(waitFor([] { return heard >= 1; }));
    EXPECT_EQ(thread, loopThread_);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(heard, 1);
}

// ---- Log ----

using LogContract = Contract;

TEST_F(LogContract, LineIsShownWithItsTagAndAnsweredWithItsSize) {
    int size = 0;
    const auto shown = rig_->logOf([&size] {
        size = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "contract", "%s: %s(%d) > %s", "Log.cpp", "log",
                            12, "message");
    });
    EXPECT_EQ(size, static_cast<int>(std::strlen("Log.cpp: log(12) > message")));
    if (shown) {
        EXPECT_THAT(*shown, testing::HasSubstr("contract: Log.cpp: log(12) > message\n"));
    }
}

TEST_F(LogContract, LongTextsAndLineEndsInTextsAreTaken) {
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "contract", "%s", "two\nlines\n"), 10);
    const std::string longText(5000, 'x');
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "contract", "%s", longText.c_str()), 5000);
}

TEST_F(LogContract, LinesMayComeFromAnyThreadAtOnceAndStayWhole) {
    std::atomic<int> bytes{0};
    const auto shown = rig_->logOf([&bytes] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&bytes, i] {
                for (int line = 0; line < 25; ++line) {
                    bytes +=
                        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "contract", "line %d.%02d", i, line);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    });
    EXPECT_EQ(bytes, 4 * 25 * 9);
    for (int i = 0; shown && i < 100; ++i) {
        char line[40];
        std::snprintf(line, sizeof line, "contract: line %d.%02d\n", i / 25, i % 25);
        EXPECT_THAT(*shown, testing::HasSubstr(line));
    }
}

// ---- Proxy ----

using ProxyContract = Contract;

template <std::size_t size>
std::string textOf(const char (&member)[size]) {
    return {member, strnlen(member, size)};
}

template <std::size_t size>
void setText(char (&member)[size], const char *text) {
    std::fill_n(member, size, '\0');
    std::string_view(text).copy(member, size);
}

TEST_F(ProxyContract, StepsOutOfOrderAreRefused) {
    service.create = [] {
        EXPECT_EQ(KestStart(), -1);
        EXPECT_EQ(KestSendSetProxyCmds(), -1);
        EXPECT_EQ(KestInitProxy("KestProxyTest"), 0);
        EXPECT_EQ(KestSendSetProxyCmds(), -1);
        EXPECT_EQ(KestStart(), 0);
        EXPECT_EQ(KestSendSetProxyCmds(), 0);
        return true;
    };
    start();
    EXPECT_EQ(stop(), 0);
}

TEST_F(ProxyContract, NoHandlerIsNoHandler) {
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(nullptr), -1);
    EXPECT_EQ(request("ControlOverride", {{"override", 1}}).outcome, Outcome::NotCalled);
}

TEST_F(ProxyContract, HandlerIsCalledWithTheValueAndItsAnswerDecides) {
    std::vector<int> values;
    service.controlOverride = [&values](int value) {
        values.push_back(value);
        return value;
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    EXPECT_EQ(request("ControlOverride", {{"override", 1}}).outcome, Outcome::Handled);
    EXPECT_EQ(request("ControlOverride", {{"override", 0}}).outcome, Outcome::Refused);
    EXPECT_THAT(values, ElementsAre(1, 0));
}

TEST_F(ProxyContract, EventArrivesInItsMembersWithAbsentOnesEmptyOrNull) {
    std::vector<std::string> seen;
    service.controlDrlc = [&seen](KestDrlcInfo &info) {
        const auto orNull = [](std::string text) { return text.empty() ? "null" : text; };
        seen.push_back(textOf(info.drlcLevel) + " " + orNull(textOf(info.duration)) + " " +
                       orNull(textOf(info.drlcStartTime)));
        // The handler may write into the request.
        setText(info.duration, "04:30:00");
        return 1;
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlDRLCFunc(handleDrlc), 0);
    EXPECT_EQ(
        request("ControlDRLC", {{"level", 2}, {"duration", "01:00:00"}, {"start", "14:00:00"}})
            .outcome,
        Outcome::Handled);
    EXPECT_EQ(request("ControlDRLC", {{"level", 0}}).outcome, Outcome::Handled);
    EXPECT_THAT(seen, ElementsAre("2 01:00:00 14:00:00", "0 null null"));
}

TEST_F(ProxyContract, QueriesAreAnsweredWithWhatTheHandlersWrite) {
    startWithProxy();
    EXPECT_EQ(KestRegisterGetDRLCOverrideFunc([](int *level, int *override_state) {
                  *level = 3;
                  *override_state = -1;
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc([](int *block) {
                  *block = 1;
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterGetDelayDefrostFunc([](int *enabled) {
                  *enabled = 0;
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterGetEnergyConsumptionFunc([](char *cumulative, char *monthly) {
                  // 512 bytes each belong to the handler.
                  std::memset(cumulative, 0, 512);
                  std::memset(monthly, 0, 512);
                  std::string_view("220.45").copy(cumulative, 511);
                  std::string_view("100.00").copy(monthly, 511);
                  return 1;
              }),
              0);
    EXPECT_EQ(request("GetDRLCOverride").members, json({{"level", 3}, {"override", -1}}));
    EXPECT_EQ(request("GetDefrostBlock").members, json({{"block", 1}}));
    EXPECT_EQ(request("GetDelayDefrost").members, json({{"enabled", 0}}));
    EXPECT_EQ(request("GetEnergyConsumption").members,
              json({{"cumulative", "220.45"}, {"monthly", "100.00"}}));
}

TEST_F(ProxyContract, DefrostOrdersArriveInTheirMembers) {
    static std::vector<std::string> seen;
    seen.clear();
    static const auto note = [](const char *what, const KestDefrostReservation &entry) {
        seen.push_back(std::string(what) + " " + textOf(entry.startTime) + " " +
                       textOf(entry.endTime) + " " + textOf(entry.period) + " " +
                       textOf(entry.description));
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterSetDelayDefrostFunc([](int enabled) {
                  seen.push_back("enabled " + std::to_string(enabled));
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterCreateDefrostReservationsFunc(
                  [](KestDefrostReservation *entry, char *text, int *) {
                      note("create", *entry);
                      setText(entry->id, "2");
                      // The id goes into the text as far as that reaches.
                      if (std::strlen(text) > 1) {
                          text[0] = '2';
                          text[1] = '\0';
                      }
                      return 1;
                  }),
              0);
    EXPECT_EQ(KestRegisterSetDefrostReservationsFunc([](KestDefrostReservation *entry) {
                  note("set", *entry);
                  return 0;
              }),
              0);
    EXPECT_EQ(KestRegisterDelDefrostReservationsFunc([](void *, const char *id) {
                  seen.push_back(std::string("delete ") + id);
                  return 1;
              }),
              0);
    const json full = {{"startTime", "0000-05-01T06:00:00"},
                       {"endTime", "0000-09-30T00:00:00"},
                       {"period", "04:00:00"},
                       {"description", "123456789012345678901234567890"}};
    EXPECT_EQ(request("SetDelayDefrost", {{"enabled", 1}}).outcome, Outcome::Handled);
    EXPECT_EQ(request("CreateDefrostReservations", full).members, json({{"id", "2"}}));
    EXPECT_EQ(request("SetDefrostReservations", full).outcome, Outcome::Refused);
    EXPECT_EQ(request("DelDefrostReservations", {{"id", "3"}}).outcome, Outcome::Handled);
    EXPECT_THAT(seen, ElementsAre("enabled 1",
                                  "create 0000-05-01T06:00:00 0000-09-30T00:00:00 04:00:00 "
                                  "123456789012345678901234567890",
                                  "set 0000-05-01T06:00:00 0000-09-30T00:00:00 04:00:00 "
                                  "123456789012345678901234567890",
                                  "delete 3"));
}

TEST_F(ProxyContract, RefusedCreationCarriesItsError) {
    startWithProxy();
    EXPECT_EQ(
        KestRegisterCreateDefrostReservationsFunc([](KestDefrostReservation *, char *, int *error) {
            *error = 507;
            return 0;
        }),
        0);
    const Answer answer =
        request("CreateDefrostReservations", {{"startTime", "0000-05-01T06:00:00"},
                                              {"endTime", "0000-09-30T00:00:00"},
                                              {"period", "04:00:00"}});
    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.error, 507);
}

TEST_F(ProxyContract, FourReservationsFitWithFullMembersUnterminated) {
    startWithProxy();
    EXPECT_EQ(
        KestRegisterGetDefrostReservationsFunc([](KestDefrostReservation *entries, int *count) {
            for (int i = 0; i < 4; ++i) {
                setText(entries[i].id, std::to_string(i).c_str());
                setText(entries[i].description, "123456789012345678901234567890");
                setText(entries[i].startTime, "0000-05-01T06:00:00");
                setText(entries[i].endTime, "0000-09-30T00:00:00");
                setText(entries[i].period, "04:00:00");
            }
            *count = 4;
            return 1;
        }),
        0);
    const json reservations = request("GetDefrostReservations").members["reservations"];
    ASSERT_EQ(reservations.size(), 4U);
    EXPECT_EQ(reservations[3], json({{"id", "3"},
                                     {"description", "123456789012345678901234567890"},
                                     {"startTime", "0000-05-01T06:00:00"},
                                     {"endTime", "0000-09-30T00:00:00"},
                                     {"period", "04:00:00"}}));
}

TEST_F(ProxyContract, SecondRegistrationReplacesTheFirst) {
    startWithProxy();
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc([](int *block) { return *block = 1; }), 0);
    EXPECT_EQ(request("GetDefrostBlock").members["block"], 1);
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc([](int *block) {
                  *block = 0;
                  return 1;
              }),
              0);
    EXPECT_EQ(request("GetDefrostBlock").members["block"], 0);
}

TEST_F(ProxyContract, HandlersRunOneAtATimeAndNotOnTheLoopsThread) {
    std::atomic<int> inside{0};
    std::atomic<int> handled{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> onLoop{false};
    service.controlOverride = [&](int) {
        overlapped = overlapped || ++inside > 1;
        onLoop = onLoop || std::this_thread::get_id() == loopThread_;
        std::this_thread::sleep_for(kTick);
        --inside;
        return ++handled > 0 ? 1 : 0;
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    std::vector<std::thread> remotes;
    for (int i = 0; i < 4; ++i) {
        remotes.emplace_back([this] {
            for (int n = 0; n < 5; ++n) {
                EXPECT_EQ(request("ControlOverride", {{"override", 1}}).outcome, Outcome::Handled);
            }
        });
    }
    for (std::thread &remote : remotes) {
        remote.join();
    }
    EXPECT_EQ(handled, 20);
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(onLoop);
}

TEST_F(ProxyContract, HandlerMayUseEveryFunctionAndSendingCallsNoneBack) {
    const std::string key = rig_->key("level");
    int depth = 0;
    int deepest = 0;
    service.controlDrlc = [&](KestDrlcInfo &) {
        deepest = std::max(deepest, ++depth);
        EXPECT_EQ(KestRegisterControlDRLCFunc(handleDrlc), 0);
        EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
        EXPECT_EQ(KestSendDRLCNotify(2), 0);
        EXPECT_EQ(KestSendOverrideNotify(1), 0);
        EXPECT_EQ(vconf_set_int(key.c_str(), 2), 0);
        --depth;
        return 1;
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlDRLCFunc(handleDrlc), 0);
    EXPECT_EQ(request("ControlDRLC", {{"level", 2}}).outcome, Outcome::Handled);
    EXPECT_EQ(deepest, 1);
    EXPECT_THAT(rig_->notified("SendDRLCNotify"), ElementsAre(json({{"level", 2}})));
}

TEST_F(ProxyContract, SendingReturnsWhileAHandlerIsBlocked) {
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    service.controlOverride = [&](int) {
        entered = true;
        return waitFor([&] { return released.load(); }) ? 1 : 0;
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    Outcome outcome = Outcome::NotCalled;
    std::thread remote([&] { outcome = request("ControlOverride", {{"override", 1}}).outcome; });
    ASSERT_TRUE(waitFor([&] { return entered.load(); }));
    EXPECT_EQ(KestSendDRLCNotify(1), 0);
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    released = true;
    remote.join();
    EXPECT_EQ(outcome, Outcome::Handled);
}

TEST_F(ProxyContract, NotificationsOfEveryKindAreSeenInTheirOrder) {
    startWithProxy();
    for (const int level : {0, 4, 4, -1}) {
        EXPECT_EQ(KestSendDRLCNotify(level), 0);
    }
    EXPECT_EQ(KestSendOverrideNotify(1), 0);
    EXPECT_EQ(KestSendDelayDefrostNotify(true), 0);
    EXPECT_EQ(KestSendDelayDefrostNotify(false), 0);
    EXPECT_EQ(KestSendDefrostBlockNotify(1), 0);
    KestDefrostReservation entry{};
    setText(entry.id, "2");
    setText(entry.period, "04:00:00");
    EXPECT_EQ(KestSendDefrostReservationsNotify(2, &entry, 1), 0);
    setText(entry.id, "3"); // the entry was copied
    EXPECT_THAT(rig_->notified("SendDRLCNotify"),
                ElementsAre(json({{"level", 0}}), json({{"level", 4}}), json({{"level", 4}}),
                            json({{"level", -1}})));
    EXPECT_THAT(rig_->notified("SendOverrideNotify"), ElementsAre(json({{"override", 1}})));
    EXPECT_THAT(rig_->notified("SendDelayDefrostNotify"),
                ElementsAre(json({{"enabled", true}}), json({{"enabled", false}})));
    EXPECT_THAT(rig_->notified("SendDefrostBlockNotify"), ElementsAre(json({{"block", 1}})));
    const std::vector<json> reservations = rig_->notified("SendDefrostReservationsNotify");
    ASSERT_EQ(reservations.size(), 1U);
    EXPECT_EQ(reservations[0]["action"], 2);
    EXPECT_EQ(reservations[0]["entries"].size(), 1U);
    EXPECT_EQ(reservations[0]["entries"][0]["id"], "2");
    EXPECT_EQ(reservations[0]["entries"][0]["period"], "04:00:00");
}

TEST_F(ProxyContract, TerminateWaitsForTheHandlerThatRuns) {
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
    std::atomic<bool> finishedBefore{false};
    service.controlOverride = [&](int) {
        entered = true;
        std::this_thread::sleep_for(20 * kTick);
        finished = true;
        return 1;
    };
    service.terminate = [&] { finishedBefore = finished.load(); };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    std::thread remote([this] { request("ControlOverride", {{"override", 1}}); });
    ASSERT_TRUE(waitFor([&] { return entered.load(); }));
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(finishedBefore);
    remote.join();
}

TEST_F(ProxyContract, NoHandlerIsCalledFromTerminateOn) {
    std::atomic<int> handled{0};
    Outcome duringTerminate = Outcome::Handled;
    service.controlOverride = [&](int) { return ++handled; };
    service.terminate = [&] {
        duringTerminate = request("ControlOverride", {{"override", 1}}).outcome;
        EXPECT_NE(KestSendDRLCNotify(0), 1); // harmless, whatever it answers
    };
    startWithProxy();
    EXPECT_EQ(KestRegisterControlOverrideFunc(handleOverride), 0);
    EXPECT_EQ(request("ControlOverride", {{"override", 1}}).outcome, Outcome::Handled);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(duringTerminate, Outcome::NotCalled);
    EXPECT_EQ(handled, 1);
}

} // namespace
} // namespace contract
