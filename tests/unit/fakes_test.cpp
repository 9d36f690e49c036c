/*
 * What the fakes add to the platform's contract: that they can fail on demand, record what was
 * asked of them, and hold still. The contract itself is tested in tests/contract, for them as well.
 */
#include "service_fixture.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include <curl/curl.h>
#include <device_power.h>
#include <dlog.h>
#include <vconf.h>

#include <gmock/gmock.h>

namespace {

using fakes::Kind;
using fakes::storage::Trouble;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kServiceFile =
    "/home/owner/apps_rw/org.tizen.corvane/shared/trusted/corvane.db";

// ---- Settings, log, Wi-Fi, power, metering ----

class FakesTest : public fakes::VirtualTest {};

TEST_F(FakesTest, ReadsOfAKeyFailAsOftenAsTold) {
    fakes::settings::set("db/key", 7);
    fakes::settings::failReads("db/key", 2);
    int value = -5;
    EXPECT_EQ(vconf_get_int("db/key", &value), -1);
    EXPECT_EQ(vconf_get_int("db/key", &value), -1);
    EXPECT_EQ(value, -5);
    EXPECT_EQ(vconf_get_int("db/key", &value), 0);
    EXPECT_EQ(value, 7);
}

TEST_F(FakesTest, FailedWriteChangesNothingAndIsNotRecorded) {
    fakes::settings::failWrites("db/key");
    EXPECT_EQ(vconf_set_int("db/key", 7), -1);
    EXPECT_EQ(fakes::settings::getInt("db/key"), std::nullopt);
    EXPECT_THAT(fakes::settings::history("db/key"), IsEmpty());
    EXPECT_THAT(fakes::texts({Kind::Setting}), IsEmpty());
}

TEST_F(FakesTest, HistoryKeepsEveryValueInOrderWhoeverWroteIt) {
    vconf_set_int("db/key", 1);
    fakes::settings::set("db/key", 1);
    vconf_set_str("db/key", "text");
    EXPECT_THAT(fakes::settings::history("db/key"), ElementsAre("1", "1", "text"));
    EXPECT_EQ(fakes::settings::getText("db/key"), "text");
    EXPECT_EQ(fakes::settings::getInt("db/key"), std::nullopt);
}

TEST_F(FakesTest, LogLineIsTakenApart) {
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "corvane", "%s: %s(%d) > level %d (%s)", "EnergyDR.cpp",
                 "operator()", 123, 2, "now");
    const fakes::log::Line line = fakes::log::find("level 2 (now)");
    EXPECT_EQ(line.priority, DLOG_INFO);
    EXPECT_EQ(line.tag, "corvane");
    EXPECT_EQ(line.file, "EnergyDR.cpp");
    EXPECT_EQ(line.function, "operator()");
    EXPECT_EQ(line.line, 123);
    EXPECT_EQ(fakes::log::find("another").priority, -1);
}

TEST_F(FakesTest, LogLineOfAnotherFormIsKeptWhole) {
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "tag", "%s", "plain (text) > with all"), 23);
    EXPECT_TRUE(fakes::log::has("plain (text) > with all"));
}

TEST_F(FakesTest, StandardOutputIsKeptForTheTest) {
    std::printf("[main:30] main\n");
    EXPECT_EQ(standardOutput(), "[main:30] main\n");
}

struct Heard {
    int calls = 0;
    wifi_error_e result = WIFI_ERROR_NONE;
};

void hear(wifi_error_e result, void *heard) {
    ++static_cast<Heard *>(heard)->calls;
    static_cast<Heard *>(heard)->result = result;
}

TEST_F(FakesTest, WifiAnswersWhatItWasSetTo) {
    wifi_ap_h accessPoint = nullptr;
    bool activated = false;
    EXPECT_EQ(wifi_get_connected_ap(&accessPoint), 0);
    EXPECT_NE(accessPoint, nullptr);
    EXPECT_EQ(wifi_is_activated(&activated), 0);
    EXPECT_TRUE(activated);
    fakes::wifi::set({.connected = false, .initializeResult = -1, .isActivatedResult = -1});
    EXPECT_NE(wifi_get_connected_ap(&accessPoint), 0);
    EXPECT_NE(wifi_is_activated(&activated), 0);
    EXPECT_TRUE(activated);
    EXPECT_EQ(wifi_initialize(), -1);
    EXPECT_EQ(fakes::wifi::calls("wifi_get_connected_ap"), 2);
    EXPECT_EQ(fakes::texts({Kind::Wifi}).back(), "wifi_initialize");
}

TEST_F(FakesTest, WifiActivationIsHeardLaterOnTheLoopAndSwitchesTheRadioOn) {
    startLoop();
    fakes::wifi::set({.activated = false, .activationSec = 2});
    Heard heard;
    EXPECT_EQ(wifi_activate(hear, &heard), 0);
    advance(1.9);
    EXPECT_EQ(heard.calls, 0);
    advance(0.1);
    EXPECT_EQ(heard.calls, 1);
    EXPECT_TRUE(fakes::wifi::get().activated);
}

TEST_F(FakesTest, WifiActivationThatFailsLeavesTheRadioOff) {
    startLoop();
    fakes::wifi::set({.activated = false, .activationOutcome = WIFI_ERROR_OPERATION_FAILED});
    Heard heard;
    EXPECT_EQ(wifi_activate(hear, &heard), 0);
    advance(1);
    EXPECT_EQ(heard.calls, 1);
    EXPECT_EQ(heard.result, WIFI_ERROR_OPERATION_FAILED);
    EXPECT_FALSE(fakes::wifi::get().activated);
}

TEST_F(FakesTest, WifiActivationThatIsRefusedIsNeverHeardOf) {
    startLoop();
    fakes::wifi::set({.activated = false, .activateResult = -1});
    Heard heard;
    EXPECT_EQ(wifi_activate(hear, &heard), -1);
    advance(10);
    EXPECT_EQ(heard.calls, 0);
}

TEST_F(FakesTest, WifiCallHangsAsLongAsTold) {
    fakes::wifi::set({.hangSec = 30});
    wifi_initialize();
    EXPECT_EQ(virtualtime::elapsedMs(), 30'000);
}

TEST_F(FakesTest, PowerReadingIsWhatItWasSetTo) {
    EXPECT_EQ(device_get_power_measurement_value(), 0);
    fakes::power::set(7300);
    EXPECT_EQ(device_get_power_measurement_value(), 7300);
    EXPECT_EQ(fakes::power::readings(), 2);
}

TEST_F(FakesTest, TransferIsRecordedWithItsOptionsAndTime) {
    CURL *handle = curl_easy_init();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(fakes::metering::openHandles(), 1);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "POST");
    curl_easy_setopt(handle, CURLOPT_URL, "http://127.0.0.1:7777/");
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 5L);
    fakes::metering::hangTransfers(90);
    EXPECT_EQ(curl_easy_perform(handle), CURLE_OK);
    curl_easy_cleanup(handle);
    EXPECT_EQ(virtualtime::elapsedMs(), 90'000);
    ASSERT_EQ(fakes::metering::posts().size(), 1U);
    const fakes::metering::Post post = fakes::metering::posts()[0];
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.url, "http://127.0.0.1:7777/");
    EXPECT_THAT(post.options,
                ElementsAre("CUSTOMREQUEST=POST", "URL=http://127.0.0.1:7777/", "option 13"));
    EXPECT_EQ(fakes::formatUtc(post.utcNs), "2026-05-01T00:00:00");
    EXPECT_EQ(fakes::metering::openHandles(), 0);
    EXPECT_THAT(fakes::texts({Kind::Post}), ElementsAre("POST http://127.0.0.1:7777/"));
}

TEST_F(FakesTest, CreationAndTransferFailAsOftenAsTold) {
    fakes::metering::failCreation(1);
    fakes::metering::failTransfers(1);
    EXPECT_EQ(curl_easy_init(), nullptr);
    CURL *handle = curl_easy_init();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(curl_easy_perform(handle), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(curl_easy_perform(handle), CURLE_OK);
    curl_easy_cleanup(handle);
}

// ---- Trace ----

TEST_F(FakesTest, TraceShowsEverythingInOrderWithItsTime) {
    vconf_set_int("db/corvane/dr/level", 2);
    advance(3);
    KestSendDRLCNotify(2);
    KestSendDelayDefrostNotify(true);
    EXPECT_THAT(fakes::texts(), ElementsAre("db/corvane/dr/level=2", "SendDRLCNotify(2)",
                                            "SendDelayDefrostNotify(true)"));
    EXPECT_EQ(fakes::trace({Kind::Notification})[0].utc(), "2026-05-01T00:00:03");
}

TEST_F(FakesTest, ClearedRecordsLeaveTheStateAlone) {
    vconf_set_int("db/key", 2);
    KestAddProxyCommands("ControlDRLC", 1);
    KestSendDRLCNotify(2);
    fakes::clearRecords();
    EXPECT_THAT(fakes::texts(), IsEmpty());
    EXPECT_THAT(fakes::settings::history("db/key"), IsEmpty());
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    EXPECT_EQ(fakes::settings::getInt("db/key"), 2);
    EXPECT_EQ(fakes::proxy::commands().size(), 1U);
}

TEST_F(FakesTest, NewProcessKeepsSettingsAndForgetsRegistrations) {
    vconf_set_int("db/key", 2);
    vconf_notify_key_changed(
        "db/key", [](keynode_t *, void *) {}, nullptr);
    KestRegisterControlOverrideFunc([](int) { return 1; });
    fakes::newProcess();
    EXPECT_EQ(fakes::settings::getInt("db/key"), 2);
    EXPECT_EQ(fakes::settings::registrations("db/key"), 0);
    EXPECT_EQ(fakes::proxy::controlOverride(1), fakes::proxy::kRefused);
}

// ---- Proxy ----

TEST_F(FakesTest, RequestCarriesItsArgumentsAndBringsTheAnswersBack) {
    KestRegisterControlDRLCFunc([](KestDrlcInfo *info) {
        EXPECT_STREQ(info->drlcLevel, "2");
        EXPECT_STREQ(info->duration, "null");
        EXPECT_STREQ(info->drlcStartTime, "14:00:00");
        std::string("04:30:00").copy(info->duration, sizeof info->duration);
        return 1;
    });
    KestRegisterGetDRLCOverrideFunc([](int *level, int *override_state) {
        *level = 3;
        *override_state = 1;
        return 0;
    });
    KestDrlcInfo info{"2", "null", "14:00:00"};
    EXPECT_EQ(fakes::proxy::controlDrlc(&info), 1);
    EXPECT_STREQ(info.duration, "04:30:00");
    const fakes::proxy::DrlcOverride state = fakes::proxy::getDrlcOverride();
    EXPECT_EQ(state.answer, 0);
    EXPECT_EQ(state.level, 3);
    EXPECT_EQ(state.override_state, 1);
    EXPECT_THAT(fakes::texts({Kind::Request}),
                ElementsAre("ControlDRLC(2, null, 14:00:00)", "ControlDRLC -> 1",
                            "GetDRLCOverride()", "GetDRLCOverride -> 0"));
}

TEST_F(FakesTest, ReservationsAreHandedOverWithFullMembersUnterminated) {
    KestRegisterCreateDefrostReservationsFunc(
        [](KestDefrostReservation *entry, char *text, int *error) {
            EXPECT_EQ(FAKES_TEXT(entry->description), "123456789012345678901234567890");
            EXPECT_STREQ(text, "--------");
            entry->id[0] = '2';
            text[0] = '\0';
            *error = 507;
            return 0;
        });
    const auto created = fakes::proxy::createDefrostReservation(
        fakes::proxy::reservation("0000-05-01T06:00:00", "0000-09-30T00:00:00", "04:00:00",
                                  "123456789012345678901234567890 and more"));
    EXPECT_EQ(created.answer, 0);
    EXPECT_EQ(created.error, 507);
    EXPECT_EQ(FAKES_TEXT(created.entry.id), "2");
    EXPECT_EQ(created.text, "");
}

TEST_F(FakesTest, ReservationNotificationIsCopied) {
    KestDefrostReservation entry = fakes::proxy::reservation("a", "b", "c");
    entry.id[0] = '3';
    KestSendDefrostReservationsNotify(2, &entry, 1);
    entry.id[0] = '4';
    ASSERT_EQ(fakes::proxy::reservationNotifications().size(), 1U);
    EXPECT_EQ(FAKES_TEXT(fakes::proxy::reservationNotifications()[0].entries[0].id), "3");
    EXPECT_EQ(fakes::proxy::notifications().back(), "SendDefrostReservationsNotify(2, 3)");
}

TEST_F(FakesTest, RequestsAfterTheSilenceAreRefusedAndThoseWaitingToo) {
    static int handled;
    handled = 0;
    KestRegisterControlOverrideFunc([](int) {
        std::this_thread::sleep_for(std::chrono::seconds(5));
        return ++handled;
    });
    int first = 0;
    int second = 0;
    std::thread running([&first] { first = fakes::proxy::controlOverride(1); });
    advance(1);
    std::thread waiting([&second] { second = fakes::proxy::controlOverride(0); });
    advance(1);
    fakes::proxy::quiesce();
    EXPECT_EQ(virtualtime::elapsedMs(), 5000);
    running.join();
    waiting.join();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, fakes::proxy::kRefused);
    EXPECT_EQ(fakes::proxy::controlOverride(1), fakes::proxy::kRefused);
    EXPECT_EQ(handled, 1);
}

// ---- Loop ----

TEST_F(FakesTest, LoopMayRunAgainAndHearsNothingOfTheTimeBetween) {
    static int heard;
    heard = 0;
    vconf_notify_key_changed(
        "db/key", [](keynode_t *, void *) { ++heard; }, nullptr);
    fakes::settings::set("db/key", 1); // waits for the first loop
    startLoop();
    virtualtime::settle();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(stopLoop(), 0);
    fakes::settings::set("db/key", 2);
    startLoop();
    virtualtime::settle();
    EXPECT_EQ(heard, 1);
    fakes::settings::set("db/key", 3);
    virtualtime::settle();
    EXPECT_EQ(heard, 2);
    EXPECT_TRUE(fakes::loop::running());
}

// ---- SQLite ----

class StorageTest : public fakes::VirtualTest {
protected:
    StorageTest() = default;
    ~StorageTest() override = default;

    void SetUp() override {
        VirtualTest::SetUp();
        ASSERT_EQ(open(), SQLITE_OK);
        ASSERT_EQ(exec("CREATE TABLE t (a)"), SQLITE_OK);
        fakes::clearRecords();
    }

    void TearDown() override {
        sqlite3_close(connection_);
        VirtualTest::TearDown();
    }

    int open() {
        return sqlite3_open_v2(kServiceFile, &connection_,
                               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    }

    int exec(const char *sql) {
        char *message = nullptr;
        const int result = sqlite3_exec(connection_, sql, nullptr, nullptr, &message);
        message_ = message != nullptr ? message : "";
        sqlite3_free(message);
        return result;
    }

    sqlite3 *connection_ = nullptr;
    std::string message_; // of the last exec
};

TEST_F(StorageTest, ServiceFolderIsMappedToTheTestsOwn) {
    EXPECT_EQ(access((fakes::storage::folder() + "corvane.db").c_str(), F_OK), 0);
    EXPECT_NE(access(kServiceFile, F_OK), 0);
    EXPECT_TRUE(fakes::storage::tableExists("corvane.db", "t"));
}

TEST_F(StorageTest, EachTestStartsWithAnEmptyFolder) {
    const std::string before = fakes::storage::folder();
    fakes::storage::mount();
    EXPECT_NE(fakes::storage::folder(), before);
    EXPECT_NE(access(before.c_str(), F_OK), 0);
    EXPECT_FALSE(fakes::storage::tableExists("corvane.db", "t"));
}

TEST_F(StorageTest, FolderOfAProcessThatIsNoMoreIsSweptAway) {
    const std::string own = fakes::storage::folder();
    const std::string root = own.substr(0, own.find("corvane-test-"));
    // No process has a number above the kernel's limit.
    const std::string left = root + "corvane-test-4194305-abcdef";
    ASSERT_EQ(mkdir(left.c_str(), 0700), 0);
    fakes::storage::mount();
    EXPECT_NE(access(left.c_str(), F_OK), 0);
}

TEST_F(StorageTest, EveryCallIsRecordedWithItsResult) {
    exec("INSERT INTO t VALUES (1)");
    exec("nonsense");
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(connection_, "SELECT * FROM t", -1, &statement, nullptr);
    sqlite3_finalize(statement);
    sqlite3_busy_timeout(connection_, 200);
    std::vector<std::string> calls;
    for (const fakes::storage::Call &call : fakes::storage::calls()) {
        calls.push_back(call.function + " " + call.file + " " + call.text + " " +
                        std::to_string(call.result));
    }
    EXPECT_THAT(calls,
                ElementsAre("exec corvane.db INSERT INTO t VALUES (1) 0",
                            "exec corvane.db nonsense 1", "prepare corvane.db SELECT * FROM t 0",
                            "busy_timeout corvane.db 200 0"));
    EXPECT_THAT(fakes::storage::statements("corvane.db"),
                ElementsAre("INSERT INTO t VALUES (1)", "nonsense", "SELECT * FROM t"));
    EXPECT_EQ(fakes::storage::attempts("nonsense"), 1);
    EXPECT_THAT(fakes::texts({Kind::Sql}),
                ElementsAre("INSERT INTO t VALUES (1)", "nonsense", "SELECT * FROM t"));
}

TEST_F(StorageTest, AccessBesideTheServiceIsNotRecorded) {
    fakes::storage::failStatements(Trouble::IoError);
    fakes::storage::execute("corvane.db", "INSERT INTO t VALUES (1), (NULL)");
    EXPECT_THAT(fakes::storage::query("corvane.db", "SELECT a FROM t"),
                ElementsAre(ElementsAre("1"), ElementsAre("NULL")));
    EXPECT_THAT(fakes::storage::calls(), IsEmpty());
}

TEST_F(StorageTest, BusyStatementsFailAsOftenAsToldAndThenWork) {
    fakes::storage::failStatements(Trouble::Busy, 2);
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    EXPECT_EQ(message_, "database is locked");
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(StorageTest, BusyWaitOfTheLibrarySleepsInVirtualTime) {
    sqlite3_busy_timeout(connection_, 200);
    fakes::storage::failStatements(Trouble::Busy, 1);
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    EXPECT_GE(virtualtime::elapsedMs(), 180);
    EXPECT_LE(virtualtime::elapsedMs(), 220);
}

TEST_F(StorageTest, FullDiskIsWhatTheLibraryReports) {
    fakes::storage::failStatements(Trouble::Full, 1);
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_FULL);
    EXPECT_EQ(message_, "database or disk is full");
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(StorageTest, InputOutputErrorIsWhatTheLibraryReports) {
    fakes::storage::failStatements(Trouble::IoError);
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_IOERR);
    EXPECT_EQ(message_, "disk I/O error");
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_IOERR);
    fakes::storage::heal();
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(StorageTest, ChosenFileOperationFailsAlone) {
    int failures = 0;
    int n = 1;
    for (; n < 100; ++n) {
        fakes::storage::failFileOperation(n);
        const int result = exec("INSERT INTO t VALUES (1)");
        if (result == SQLITE_OK && fakes::storage::pendingFileFailure()) {
            break; // the statement needs fewer operations than n
        }
        failures += result == SQLITE_IOERR ? 1 : 0;
    }
    EXPECT_GT(failures, 2);
    EXPECT_LT(n, 100);
    EXPECT_EQ(fakes::storage::query("corvane.db", "PRAGMA integrity_check")[0][0], "ok");
}

TEST_F(StorageTest, OpensFailAsOftenAsToldAndTheHandleIsCounted) {
    sqlite3_close(connection_);
    EXPECT_EQ(fakes::storage::openConnections(), 0);
    fakes::storage::failOpens(1);
    EXPECT_EQ(open(), SQLITE_CANTOPEN);
    EXPECT_STREQ(sqlite3_errmsg(connection_), "unable to open database file");
    EXPECT_EQ(fakes::storage::openConnections(), 1);
    sqlite3_close(connection_);
    EXPECT_EQ(open(), SQLITE_OK);
    EXPECT_EQ(fakes::storage::opens("corvane.db"), 2);
    EXPECT_EQ(fakes::storage::openConnections(), 1);
}

TEST_F(StorageTest, CloseFailsAsOftenAsTold) {
    fakes::storage::failCloses(1);
    EXPECT_EQ(sqlite3_close(connection_), SQLITE_BUSY);
    EXPECT_EQ(sqlite3_close(connection_), SQLITE_OK);
    connection_ = nullptr;
}

TEST_F(StorageTest, LockOfAnotherConnectionKeepsOthersOut) {
    {
        const fakes::storage::Lock lock("corvane.db", fakes::storage::Lock::Kind::Reserved);
        EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
        EXPECT_EQ(exec("SELECT * FROM t"), SQLITE_OK);
    }
    {
        const fakes::storage::Lock lock("corvane.db", fakes::storage::Lock::Kind::Exclusive);
        EXPECT_EQ(exec("SELECT * FROM t"), SQLITE_BUSY);
    }
    {
        const fakes::storage::Lock lock("corvane.db", fakes::storage::Lock::Kind::Shared);
        EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    }
    EXPECT_EQ(exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

// ---- The fixture with the service in it ----

class FixtureTest : public fakes::ServiceTest {
protected:
    std::vector<std::string> dayOfEvents() {
        startServiceAndOpenGate();
        EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
        advance(7200);
        EXPECT_EQ(stopService(), 0);
        return fakes::texts();
    }
};

TEST_F(FixtureTest, ServiceStartsRunsAnEventAndEnds) {
    startServiceAndOpenGate();
    EXPECT_TRUE(fakes::loop::running());
    EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
    advanceTo("2026-05-01T00:10:01");
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL2");
    echoLevel(2);
    advance(1.1);
    EXPECT_EQ(fakes::proxy::notifications().back(), "SendDRLCNotify(2)");
    EXPECT_EQ(stopService(), 0);
    EXPECT_FALSE(fakes::loop::running());
    EXPECT_EQ(fakes::texts({Kind::Loop}), (std::vector<std::string>{"create", "terminate"}));
}

TEST_F(FixtureTest, ServiceStartsAgainAsAnotherProcess) {
    startServiceAndOpenGate();
    stopService();
    startServiceAndOpenGate();
    EXPECT_EQ(fakes::proxy::commands().size(), 15U);
    EXPECT_EQ(stopService(), 0);
}

TEST_F(FixtureTest, SameSeedTracesTheSameLifeOfTheService) {
    const std::vector<std::string> once = dayOfEvents();
    ServiceTest::TearDown();
    ServiceTest::SetUp();
    EXPECT_EQ(dayOfEvents(), once);
}

class SeoulTest : public fakes::ServiceTest {
protected:
    SeoulTest() : ServiceTest({.startUtc = "2026-01-01T12:00:00", .zone = "Asia/Seoul"}) {}
};

TEST_F(SeoulTest, ZoneAndStartAreTheOptions) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    EXPECT_EQ(local.tm_hour, 21);
    setZone("America/New_York");
    localtime_r(&now, &local);
    EXPECT_EQ(local.tm_hour, 7);
}

} // namespace
