/*
 * The settings of the process behind <vconf.h>. The process has one store: each test uses keys of
 * its own.
 */
#include "settings.h"

#include "recorded_log.h"
#include "temp_folder.h"

#include <vconf.h>

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <thread>

#include <poll.h>

using corvane::platform::Settings;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class VconfTest : public testing::Test {
protected:
    VconfTest() : folder(processFolder()) {
        EXPECT_TRUE(Settings::instance().open().ok());
        takeLog();
    }

    std::string fileOf(const std::string &name) const {
        return folder / ("runtime/settings/memory/" + name);
    }

    /* What the main loop does while there is something to deliver. */
    static void deliver() {
        pollfd events{Settings::instance().fd(), POLLIN, 0};
        while (poll(&events, 1, 0) == 1)
            EXPECT_TRUE(Settings::instance().deliver().ok());
    }

    const TempFolder &folder;
};

void count(keynode_t *, void *calls) { ++*static_cast<int *>(calls); }

void countTwice(keynode_t *, void *calls) { *static_cast<int *>(calls) += 2; }

} // namespace

TEST_F(VconfTest, IntegersReadBack) {
    for (int value : {0, 1, -1, INT_MAX, INT_MIN}) {
        ASSERT_EQ(0, vconf_set_int("db/round/trip", value));
        int found = 99;
        ASSERT_EQ(0, vconf_get_int("db/round/trip", &found));
        EXPECT_EQ(value, found);
    }
}

TEST_F(VconfTest, AbsentKeyIsAQuietFailureThatLeavesTheOutputAlone) {
    int value = 7;
    EXPECT_EQ(-1, vconf_get_int("db/never/written", &value));
    EXPECT_EQ(7, value);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(VconfTest, TextIsNoInteger) {
    int value = 7;
    ASSERT_EQ(0, vconf_set_str("memory/text", "5"));
    EXPECT_EQ(-1, vconf_get_int("memory/text", &value));
    EXPECT_EQ(7, value);
    EXPECT_THAT(takeLog(), ElementsAre(HasSubstr("holds a text")));
}

TEST_F(VconfTest, DamagedFileIsWarnedOfOnceUntilItReadsWell) {
    int value = 7;
    writeFile(fileOf("damaged"), "rubbish");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(-1, vconf_get_int("memory/damaged", &value));
    EXPECT_EQ(7, value);
    EXPECT_THAT(takeLog(), ElementsAre(HasSubstr("\"memory/damaged\" cannot be read")));
    ASSERT_EQ(0, vconf_set_int("memory/damaged", 3));
    EXPECT_EQ(0, vconf_get_int("memory/damaged", &value));
    EXPECT_EQ(3, value);
    writeFile(fileOf("damaged"), "rubbish");
    EXPECT_EQ(-1, vconf_get_int("memory/damaged", &value));
    EXPECT_EQ(1U, takeLog().size());
}

TEST_F(VconfTest, BadArgumentsAreRefused) {
    int value = 0;
    EXPECT_EQ(-1, vconf_get_int(nullptr, &value));
    EXPECT_EQ(-1, vconf_get_int("memory/a", nullptr));
    EXPECT_EQ(-1, vconf_set_int(nullptr, 1));
    EXPECT_EQ(-1, vconf_set_str("memory/a", nullptr));
    EXPECT_EQ(-1, vconf_set_str(nullptr, "x"));
    EXPECT_EQ(-1, vconf_notify_key_changed(nullptr, count, nullptr));
    EXPECT_EQ(-1, vconf_notify_key_changed("memory/a", nullptr, nullptr));
    EXPECT_THAT(takeLog(), IsEmpty());
    EXPECT_EQ(-1, vconf_set_int("memory/../a", 1));
    EXPECT_EQ(-1, vconf_get_int("memory/../a", &value));
    EXPECT_EQ(-1, vconf_notify_key_changed("memory/../a", count, &value));
    EXPECT_EQ(0, value);
}

TEST_F(VconfTest, FailedWriteIsMinusOneAndWarnedOfOnce) {
    EXPECT_EQ(-1, vconf_set_int("file/other", 1));
    EXPECT_EQ(-1, vconf_set_int("file/other", 1));
    EXPECT_EQ(1U, takeLog().size());
}

TEST_F(VconfTest, CallbackRunsOncePerWriteAlsoOfTheSameValueAndOfTheProcessItself) {
    int calls = 0;
    ASSERT_EQ(0, vconf_notify_key_changed("memory/own", count, &calls));
    deliver();
    EXPECT_EQ(0, calls);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, vconf_set_int("memory/own", 1));
    ASSERT_EQ(0, vconf_set_int("memory/other", 1));
    EXPECT_EQ(0, calls) << "never inside the write";
    deliver();
    EXPECT_EQ(3, calls);
}

TEST_F(VconfTest, IdenticalRegistrationIsKeptOnceAndOthersAreAdded) {
    int one = 0;
    int two = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, vconf_notify_key_changed("memory/reg", count, &one));
        ASSERT_EQ(0, vconf_notify_key_changed("memory/reg", count, &two));
        ASSERT_EQ(0, vconf_notify_key_changed("memory/reg", countTwice, &two));
    }
    ASSERT_EQ(0, vconf_set_str("memory/reg", "x"));
    deliver();
    EXPECT_EQ(1, one);
    EXPECT_EQ(3, two);
}

TEST_F(VconfTest, CallbackMayReadWriteAndRegister) {
    static int calls = 0;
    static int seen = 0;
    const auto echo = [](keynode_t *, void *) {
        EXPECT_EQ(0, vconf_get_int("memory/asked", &seen));
        EXPECT_EQ(0, vconf_notify_key_changed("memory/echo", count, &calls));
        EXPECT_EQ(0, vconf_set_int("memory/echo", seen + 1));
    };
    ASSERT_EQ(0, vconf_notify_key_changed("memory/asked", echo, nullptr));
    ASSERT_EQ(0, vconf_set_int("memory/asked", 4));
    deliver();
    EXPECT_EQ(4, seen);
    EXPECT_EQ(1, calls);
}

TEST_F(VconfTest, CallbackRunsAlsoForWritesThatWereSeenTooLate) {
    int calls = 0;
    ASSERT_EQ(0, vconf_notify_key_changed("memory/late", count, &calls));
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(0, vconf_set_int("memory/late", i));
    deliver();
    EXPECT_EQ(3000, calls);
}

TEST_F(VconfTest, NumberFarAheadDoesNotHoldTheLoop) {
    int calls = 0;
    ASSERT_EQ(0, vconf_set_int("memory/far", 1));
    ASSERT_EQ(0, vconf_notify_key_changed("memory/far", count, &calls));
    std::string text = readFile(fileOf("far"));
    text.replace(text.find("change 1 "), 9, "change 999999999999 ");
    writeFile(folder / "far", text);
    ASSERT_EQ(0, rename((folder / "far").c_str(), fileOf("far").c_str()));
    deliver();
    EXPECT_GT(calls, 0);
    EXPECT_LE(calls, 16384);
}

TEST_F(VconfTest, RegistrationsComeFromAnyThreadWhileCallbacksRun) {
    static std::atomic<int> calls{0};
    const auto counted = [](keynode_t *, void *) { ++calls; };
    std::vector<int> contexts(100);
    std::thread registrar([&] {
        for (int &context : contexts) {
            EXPECT_EQ(0, vconf_notify_key_changed("memory/busy", counted, &context));
            EXPECT_EQ(0, vconf_set_int("memory/busy", 1));
        }
    });
    std::thread writer([&] {
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(0, vconf_set_int("memory/busy", i));
    });
    for (int i = 0; i < 100; ++i)
        deliver();
    registrar.join();
    writer.join();
    deliver();
    calls = 0;
    ASSERT_EQ(0, vconf_set_int("memory/busy", 1));
    deliver();
    EXPECT_EQ(100, calls);
}
