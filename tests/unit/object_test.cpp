/*
 * Object, what the controllers have in common: the texts of times, the command to the Micom, the
 * end of a worker; and the one way in which the service logs.
 *
 * Instants are compared with ones computed from the calendar of the standard library, which knows
 * nothing of the process's zone or locale.
 */
#include "calendar.h"
#include "virtual_test.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlog.h>
#include <memory>
#include <type_traits>
#include <vector>

#include "DefrostDelay.h"
#include "EnergyDR.h"
#include "EnergyManager.h"
#include "EnergyReport.h"
#include "Log.h"
#include "Object.h"

namespace {

using namespace std::chrono;
using Corvane::TimePoint;

constexpr const char *kTransmitKey = "memory/refrigerator/TxMessage";

static_assert(std::is_same_v<TimePoint::period, std::nano>);
static_assert(sizeof(TimePoint::rep) == 8 && std::is_signed_v<TimePoint::rep>);
static_assert(std::is_same_v<TimePoint::clock, system_clock>);

// A controller without a worker, with its insides open.
class Probe : public Corvane::Object {
public:
    using Object::_stopThread;
    using Object::lastTick;
    using Object::mutex;
    using Object::stop;
    using Object::thread;

    void work() {
        thread = new std::thread([this] {
            while (!stop.load()) {
                Corvane::sleepOneSecond();
            }
        });
    }
};

class ObjectTest : public fakes::VirtualTest {
protected:
    static TimePoint utc(int y, unsigned mon, unsigned d, int h = 0, int min = 0, int s = 0) {
        return sys_days(year(y) / month(mon) / day(d)) + hours(h) + minutes(min) + seconds(s);
    }

    static tm brokenDown(int y, int mon, int d, int h, int min, int s) {
        tm time{};
        time.tm_year = y - 1900;
        time.tm_mon = mon - 1;
        time.tm_mday = d;
        time.tm_hour = h;
        time.tm_min = min;
        time.tm_sec = s;
        return time;
    }

    // The system's setting changes, and nobody tells the C library.
    static void changeZoneSilently(const char *zone) { setenv("TZ", zone, 1); }

    Probe object;
};

const char *const kZones[] = {"UTC", "Asia/Seoul", "Europe/Berlin", "America/New_York"};

// ---- Fields and hooks ----

TEST_F(ObjectTest, NewObjectHasNoWorkerIsNotStoppedAndHasNoLastTick) {
    EXPECT_EQ(object.thread, nullptr);
    EXPECT_FALSE(object.stop.load());
    EXPECT_EQ(object.lastTick, -1);
    EXPECT_TRUE(object.mutex.try_lock());
    object.mutex.unlock();
}

TEST_F(ObjectTest, HooksOfTheBaseDoNothing) {
    object.Object::_initialize();
    object.Object::_finalize();
    EXPECT_FALSE(object.stop.load());
    EXPECT_TRUE(fakes::trace().empty());
}

TEST_F(ObjectTest, HooksFollowTheTwoDestructorsInTheVirtualTable) {
    const auto slotOf = [](void (Corvane::Object::*hook)()) {
        std::ptrdiff_t offset = 0; // of a virtual member: its offset in the table, plus one
        std::memcpy(&offset, &hook, sizeof offset);
        return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void *));
    };
    EXPECT_EQ(slotOf(&Corvane::Object::_initialize), 2);
    EXPECT_EQ(slotOf(&Corvane::Object::_finalize), 3);
}

TEST_F(ObjectTest, StoppingJoinsTheWorkerWithinASecondAndForgetsIt) {
    object.work();
    advance(0.3);
    object._stopThread();
    EXPECT_EQ(virtualtime::elapsedMs(), 1000);
    EXPECT_TRUE(object.stop.load());
    EXPECT_EQ(object.thread, nullptr);
}

TEST_F(ObjectTest, StoppingTwiceOrWithoutAWorkerOnlySetsTheFlag) {
    object._stopThread();
    EXPECT_TRUE(object.stop.load());
    object._stopThread();
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
}

template <class Controller>
class ControllerTest : public ObjectTest {};
using Controllers = testing::Types<Corvane::DefrostDelay, Corvane::EnergyDR, Corvane::EnergyReport>;

struct ControllerNames {
    template <class Controller>
    static std::string GetName(int index) {
        return std::vector<std::string>{"DefrostDelay", "EnergyDR",
                                        "EnergyReport"}[static_cast<std::size_t>(index)];
    }
};
TYPED_TEST_SUITE(ControllerTest, Controllers, ControllerNames);

TYPED_TEST(ControllerTest, DeletedAsAnObjectStopsItsWorkerWithinASecond) {
    const std::string name =
        ControllerNames::GetName<TypeParam>(std::is_same_v<TypeParam, Corvane::DefrostDelay> ? 0
                                            : std::is_same_v<TypeParam, Corvane::EnergyDR>   ? 1
                                                                                             : 2);
    std::unique_ptr<Corvane::Object> controller = std::make_unique<TypeParam>();
    this->advance(2.5);
    EXPECT_TRUE(fakes::log::has("start " + name + " Thread!!"));
    EXPECT_FALSE(fakes::log::has("stop " + name + " Thread!!"));
    controller.reset();
    EXPECT_TRUE(fakes::log::has("stop " + name + " Thread!!"));
    EXPECT_EQ(virtualtime::elapsedMs(), 3000);
    Corvane::EnergyManager::Finalize(); // its deferred tasks have made one
}

TYPED_TEST(ControllerTest, FinalizedTwiceIsFinalizedOnce) {
    TypeParam controller;
    controller._finalize();
    const auto end = virtualtime::elapsedMs();
    controller._finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), end);
    Corvane::EnergyManager::Finalize();
}

// ---- Texts of times ----

struct TextAndInstant {
    const char *text;
    TimePoint instant;
};

TEST_F(ObjectTest, TextIsReadAsUtcInEveryZone) {
    const TextAndInstant rows[] = {
        {"2016-01-31T23:59:59", utc(2016, 1, 31, 23, 59, 59)},
        {"2016-03-01T14:00:00", utc(2016, 3, 1, 14)},
        {"1970-01-01T00:00:00", utc(1970, 1, 1)},
        {"1969-12-31T23:59:59", utc(1969, 12, 31, 23, 59, 59)},
        {"2015-12-31T23:59:59", utc(2015, 12, 31, 23, 59, 59)},
        {"2016-01-01T00:00:00", utc(2016, 1, 1)},
        {"2016-02-29T12:34:56", utc(2016, 2, 29, 12, 34, 56)},
        {"2000-02-29T00:00:00", utc(2000, 2, 29)},
        {"2100-02-28T23:59:59", utc(2100, 2, 28, 23, 59, 59)},
        {"2038-01-19T03:14:08", utc(2038, 1, 19, 3, 14, 8)},
        {"2016-03-27T02:30:00", utc(2016, 3, 27, 2, 30)}, // no such local time in Berlin
        {"2016-10-30T02:30:00", utc(2016, 10, 30, 2, 30)},
        {"2016-11-06T01:30:00", utc(2016, 11, 6, 1, 30)},
    };
    for (const char *zone : kZones) {
        setZone(zone);
        for (const auto &[text, instant] : rows) {
            EXPECT_EQ(object._strToTp(text), instant) << text << " in " << zone;
        }
    }
}

TEST_F(ObjectTest, EveryDayOfALeapYearIsReadAsUtc) {
    for (sys_days day = year(2016) / 1 / 1; day < sys_days(year(2017) / 1 / 1); day += days(1)) {
        const year_month_day date = day;
        char text[32];
        std::snprintf(text, sizeof text, "2016-%02u-%02uT09:08:07", unsigned(date.month()),
                      unsigned(date.day()));
        EXPECT_EQ(object._strToTp(text), day + 9h + 8min + 7s) << text;
    }
}

TEST_F(ObjectTest, DayThatDoesNotExistRunsOnIntoTheNextMonth) {
    EXPECT_EQ(object._strToTp("2015-02-29T00:00:00"), utc(2015, 3, 1));
    EXPECT_EQ(object._strToTp("2016-04-31T10:00:00"), utc(2016, 5, 1, 10));
}

TEST_F(ObjectTest, DifferenceOfTheReadBackIsMadeGood) {
    virtualtime::calendar::misreadBySec(5);
    const TimePoint early = object._strToTp("2016-03-01T14:00:10");
    virtualtime::calendar::misreadBySec(-7);
    const TimePoint late = object._strToTp("2016-03-01T14:00:10");
    virtualtime::calendar::misreadBySec(0);
    EXPECT_EQ(early, utc(2016, 3, 1, 14, 0, 5));
    EXPECT_EQ(late, utc(2016, 3, 1, 14, 0, 17));
}

TEST_F(ObjectTest, FieldsThatATextDoesNotGiveAreZero) {
    EXPECT_EQ(object._strToTp("2016-01-31"), utc(2016, 1, 31));
    EXPECT_EQ(object._strToTp("rubbish"), utc(1899, 12, 31));
    EXPECT_EQ(object._strToTp(""), utc(1899, 12, 31));
    EXPECT_EQ(object._strToTp_local("2016-01-31"), utc(2016, 1, 31));
    EXPECT_EQ(object._strToTp_local(""), utc(1899, 12, 31));
}

TEST_F(ObjectTest, WhatFollowsATimeTextIsNotRead) {
    EXPECT_EQ(object._strToTp("2016-01-31T23:59:59.75Z"), utc(2016, 1, 31, 23, 59, 59));
}

struct LocalRow {
    const char *zone;
    const char *text;
    TimePoint instant;
};

TEST_F(ObjectTest, TextIsReadAsLocalTimeByTheZonesRules) {
    const LocalRow rows[] = {
        {"UTC", "2016-01-31T23:59:59", utc(2016, 1, 31, 23, 59, 59)},
        {"Asia/Seoul", "2016-01-31T23:59:59", utc(2016, 1, 31, 14, 59, 59)},
        {"Asia/Seoul", "2016-01-01T08:59:59", utc(2015, 12, 31, 23, 59, 59)},
        {"Asia/Seoul", "2016-02-29T09:00:00", utc(2016, 2, 29)},
        {"Europe/Berlin", "2016-01-31T23:59:59", utc(2016, 1, 31, 22, 59, 59)},
        {"Europe/Berlin", "2016-07-01T12:00:00", utc(2016, 7, 1, 10)},
        {"America/New_York", "2016-01-31T23:59:59", utc(2016, 2, 1, 4, 59, 59)},
        {"America/New_York", "2016-07-01T12:00:00", utc(2016, 7, 1, 16)},
        {"America/New_York", "2015-12-31T19:00:00", utc(2016, 1, 1)},
        // The last second before the clocks change, and the first after.
        {"Europe/Berlin", "2016-03-27T01:59:59", utc(2016, 3, 27, 0, 59, 59)},
        {"Europe/Berlin", "2016-03-27T03:00:00", utc(2016, 3, 27, 1)},
        {"Europe/Berlin", "2016-10-30T01:59:59", utc(2016, 10, 29, 23, 59, 59)},
        {"Europe/Berlin", "2016-10-30T03:00:00", utc(2016, 10, 30, 2)},
        {"America/New_York", "2016-03-13T01:59:59", utc(2016, 3, 13, 6, 59, 59)},
        {"America/New_York", "2016-03-13T03:00:00", utc(2016, 3, 13, 7)},
        {"America/New_York", "2016-11-06T00:59:59", utc(2016, 11, 6, 4, 59, 59)},
        {"America/New_York", "2016-11-06T02:00:00", utc(2016, 11, 6, 7)},
    };
    for (const LocalRow &row : rows) {
        setZone(row.zone);
        EXPECT_EQ(object._strToTp_local(row.text), row.instant) << row.text << " in " << row.zone;
    }
}

TEST_F(ObjectTest, LocalTimeThatComesTwiceIsOneOfItsTwoInstants) {
    setZone("Europe/Berlin");
    const TimePoint instant = object._strToTp_local("2016-10-30T02:30:00");
    EXPECT_TRUE(instant == utc(2016, 10, 30, 0, 30) || instant == utc(2016, 10, 30, 1, 30));
}

TEST_F(ObjectTest, UtcAndLocalReadingDifferByTheOffsetAtThatInstant) {
    for (const char *zone : kZones) {
        setZone(zone);
        for (const char *text : {"2016-01-31T23:59:59", "2016-06-30T12:00:00",
                                 "2016-12-31T23:59:59", "2016-02-29T06:00:00"}) {
            const TimePoint local = object._strToTp_local(text);
            const std::time_t sec = system_clock::to_time_t(local);
            tm fields{};
            localtime_r(&sec, &fields);
            EXPECT_EQ(object._strToTp(text) - local, seconds(fields.tm_gmtoff))
                << text << " in " << zone;
        }
    }
}

TEST_F(ObjectTest, ChangeOfTheZoneWhileRunningIsSeen) {
    changeZoneSilently("Asia/Seoul");
    EXPECT_EQ(object._strToTp_local("2016-01-31T09:00:00"), utc(2016, 1, 31));
    EXPECT_EQ(Corvane::toLocal(0).tm_hour, 9);
    changeZoneSilently("America/New_York");
    EXPECT_EQ(object._strToTp_local("2016-01-31T09:00:00"), utc(2016, 1, 31, 14));
    EXPECT_EQ(Corvane::toLocal(0).tm_hour, 19);
}

TEST_F(ObjectTest, BrokenDownTimeIsWrittenAsDateTAndTime) {
    EXPECT_EQ(object._tmToStr(brokenDown(2017, 3, 5, 8, 7, 6)), "2017-03-05T08:07:06");
    EXPECT_EQ(object._tmToStr(brokenDown(2016, 2, 29, 0, 0, 0)), "2016-02-29T00:00:00");
    EXPECT_EQ(object._tmToStr(brokenDown(2015, 12, 31, 23, 59, 59)), "2015-12-31T23:59:59");
}

TEST_F(ObjectTest, WrittenTimeReadsBackAsTheSameInstant) {
    for (const char *zone : kZones) {
        setZone(zone);
        for (std::time_t sec = 1448928000; sec < 1480550400; sec += 86400 * 3 + 3607) {
            const TimePoint instant = system_clock::from_time_t(sec);
            EXPECT_EQ(object._strToTp(object._tmToStr(Corvane::toUtc(sec))), instant) << sec;
            const TimePoint local = object._strToTp_local(object._tmToStr(Corvane::toLocal(sec)));
            EXPECT_TRUE(local == instant || abs(local - instant) == 1h) << sec << " in " << zone;
        }
    }
}

TEST_F(ObjectTest, DurationIsReadFromItsThreePlaces) {
    EXPECT_EQ(object._strToDuration("04:30:00"), 4h + 30min);
    EXPECT_EQ(object._strToDuration("00:00:01"), 1s);
    EXPECT_EQ(object._strToDuration("23:59:59"), 23h + 59min + 59s);
    EXPECT_EQ(object._strToDuration("12.34.56 and more"), 12h + 34min + 56s);
    EXPECT_EQ(object._strToDuration("99:99:99"), 99h + 99min + 99s);
}

TEST_F(ObjectTest, DurationThatIsTooShortOrNoNumberThrows) {
    for (const char *text : {"", "04", "04:3"}) {
        EXPECT_ANY_THROW((void)object._strToDuration(text)) << text;
    }
    EXPECT_THROW((void)object._strToDuration("04:30"), std::out_of_range);
    for (const char *text : {"xx:30:00", "04:yy:00", "04:30:zz", "04:30:"}) {
        EXPECT_THROW((void)object._strToDuration(text), std::invalid_argument) << text;
    }
}

TEST_F(ObjectTest, FullMemberOfARemoteRecordIsReadToItsEndOnly) {
    struct {
        char full[4] = {'a', 'b', 'c', 'd'};
        char behind[2] = {'x', '\0'};
        char part[4] = {'e', '\0', 'f', '\0'};
    } record;
    EXPECT_EQ(Corvane::textOf(record.full), "abcd");
    EXPECT_EQ(Corvane::textOf(record.part), "e");
    EXPECT_EQ(Corvane::textOf(record.behind), "x");
}

// ---- The command to the Micom ----

TEST_F(ObjectTest, CommandIsLeftUnchangedInTheTransmitKey) {
    for (const char *command : {"SET_SMARTGRID_LEVEL1", "", " a b ", "100 %s %n %d"}) {
        object._sendToMicom(command);
        EXPECT_EQ(fakes::settings::getText(kTransmitKey), command);
    }
}

TEST_F(ObjectTest, CommandIsLoggedWithItsUtcTimeAndThenWrittenOnce) {
    setZone("Asia/Seoul");
    virtualtime::setClock("2016-03-05T08:07:06.9");
    object._sendToMicom("SET_SMARTGRID_LEVEL1");
    EXPECT_EQ(fakes::texts(),
              (std::vector<std::string>{" [UTC] Send Time : Sat Mar  5 08:07:06 2016\n",
                                        "Send To Micom Info that SET_SMARTGRID_LEVEL1",
                                        "memory/refrigerator/TxMessage=SET_SMARTGRID_LEVEL1"}));
    for (const fakes::log::Line &line : fakes::log::lines()) {
        EXPECT_EQ(line.priority, DLOG_DEBUG) << line.message;
        EXPECT_EQ(line.file, "Object.cpp");
        EXPECT_EQ(line.function, "_sendToMicom");
    }
}

TEST_F(ObjectTest, SendTimeIsNamedOverYearEndAndLeapDay) {
    for (const auto &[clock, text] : std::vector<std::pair<std::string, std::string>>{
             {"2015-12-31T23:59:59", "Thu Dec 31 23:59:59 2015\n"},
             {"2016-01-01T00:00:00", "Fri Jan  1 00:00:00 2016\n"},
             {"2016-02-29T12:00:00", "Mon Feb 29 12:00:00 2016\n"}}) {
        virtualtime::setClock(clock);
        object._sendToMicom("x");
        EXPECT_TRUE(fakes::log::has(" [UTC] Send Time : " + text)) << text;
    }
}

TEST_F(ObjectTest, FailedWriteIsNeitherReportedNorRepeated) {
    fakes::settings::failWrites(kTransmitKey, 1);
    object._sendToMicom("SET_SMARTGRID_LEVEL1");
    EXPECT_EQ(fakes::settings::getText(kTransmitKey), std::nullopt);
    EXPECT_EQ(fakes::log::lines().size(), 2U);
    EXPECT_EQ(virtualtime::elapsedMs(), 0);
    object._sendToMicom("SET_SMARTGRID_LEVEL2");
    EXPECT_EQ(fakes::settings::history(kTransmitKey),
              std::vector<std::string>{"SET_SMARTGRID_LEVEL2"});
}

TEST_F(ObjectTest, CommandIsSentAlsoWhileTheControllersMutexIsHeld) {
    const std::lock_guard lock(object.mutex);
    object._sendToMicom("SET_SMARTGRID_ENABLE");
    EXPECT_EQ(fakes::settings::getText(kTransmitKey), "SET_SMARTGRID_ENABLE");
}

// ---- The log ----

TEST_F(ObjectTest, LineGoesToThePlatformLogAndToStandardOutput) {
    const int line = __LINE__ + 1;
    LOG(DLOG_DEBUG, "level : %d of %s", 3, "four");
    const fakes::log::Line logged = fakes::log::lines().at(0);
    EXPECT_EQ(logged.text,
              "object_test.cpp: TestBody(" + std::to_string(line) + ") > level : 3 of four");
    EXPECT_EQ(logged.buffer, LOG_ID_MAIN);
    EXPECT_EQ(logged.tag, "corvane");
    EXPECT_EQ(logged.priority, 3);
    EXPECT_EQ(standardOutput(), "[TestBody:" + std::to_string(line) + "] level : 3 of four\n");
}

TEST_F(ObjectTest, InformationHasPriorityFour) {
    LOG(DLOG_INFO, "main");
    EXPECT_EQ(fakes::log::find("main").priority, 4);
}

TEST_F(ObjectTest, LineEndOfAMessageStaysAndStandardOutputAddsItsOwn) {
    LOG(DLOG_DEBUG, "now : %s", "Sat Mar  5 08:07:06 2016\n");
    EXPECT_EQ(fakes::log::lines().at(0).message, "now : Sat Mar  5 08:07:06 2016\n");
    EXPECT_TRUE(standardOutput().ends_with("] now : Sat Mar  5 08:07:06 2016\n\n"));
}

TEST_F(ObjectTest, MessageIsLoggedWholeAndIsNoFormatItself) {
    for (const std::string &text : {std::string("100% %s %n"), std::string(255, 'x'),
                                    std::string(256, 'x'), std::string(5000, 'x')}) {
        LOG(DLOG_DEBUG, "%s", text.c_str());
        EXPECT_EQ(fakes::log::lines().back().message, text);
        EXPECT_TRUE(standardOutput().ends_with("] " + text + "\n"));
    }
}

TEST_F(ObjectTest, FileIsNamedWithoutItsFolders) {
    EXPECT_STREQ(Corvane::baseName("/a/b/EnergyDR.cpp"), "EnergyDR.cpp");
    EXPECT_STREQ(Corvane::baseName("EnergyDR.cpp"), "EnergyDR.cpp");
}

} // namespace
