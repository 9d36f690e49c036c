/*
 * The remembered calendar of a run: the same answers as the C library's, which the program asks
 * itself outside a run.
 */
#include "virtual_time.h"

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAreArray;

void setZone(const char *zone) {
    setenv("TZ", zone, 1); // NOLINT(concurrency-mt-unsafe): there is one thread
    tzset();
}

std::tm read(const char *text) {
    std::tm fields{};
    EXPECT_NE(strptime(text, "%FT%T", &fields), nullptr) << text;
    return fields;
}

// Everything that the service asks, about the moments around one.
std::vector<std::string> askAbout(std::time_t around) {
    std::vector<std::string> answers;
    const auto note = [&answers](const std::tm &fields, std::time_t seconds) {
        char text[80] = "";
        strftime(text, sizeof text, "%FT%T", &fields);
        answers.push_back(std::string(text) + " " + fields.tm_zone + " " +
                          std::to_string(fields.tm_yday) + " " + std::to_string(fields.tm_isdst) +
                          " " + std::to_string(fields.tm_gmtoff) + " " + std::to_string(seconds));
    };
    for (const int offset : {-86'400, -3'601, -61, -1, 0, 1, 30, 59, 60, 3'599, 7'200, 86'400}) {
        const std::time_t moment = around + offset;
        std::tm local{};
        localtime_r(&moment, &local);
        std::tm again = local;
        note(local, mktime(&again));
        std::tm utc{};
        gmtime_r(&moment, &utc);
        again = utc;
        note(utc, timegm(&again));
        char text[80] = "";
        strftime(text, sizeof text, "%FT%T", &local);
        std::tm fromText = read(text);
        fromText.tm_isdst = -1;
        (void)mktime(&fromText);
        strftime(text, sizeof text, "%FT%T", &fromText);
        answers.emplace_back(text); // which of the two in an hour that comes twice is left open
    }
    return answers;
}

class CalendarInZone : public testing::TestWithParam<const char *> {
protected:
    void TearDown() override { setZone("UTC"); }
};

TEST_P(CalendarInZone, AnswersAsTheCLibraryDoesAlsoWhenAskedAgain) {
    setZone(GetParam());
    const std::time_t moments[] = {
        -3'000'000'001,
        -1,
        0,
        63'593'069, // offsets in seconds were still in use
        1'774'746'000,
        1'792'890'000, // Europe's changes of 2026
        1'772'953'200,
        1'793'512'800, // those of New York
        1'775'314'800,
        1'790'434'800, // and of the southern hemisphere
        1'835'438'400,
        1'798'761'600,
        4'102'444'800 // a leap day, a year's end, 2100
    };
    for (const std::time_t moment : moments) {
        SCOPED_TRACE(moment);
        const std::vector<std::string> expected = askAbout(moment);
        std::vector<std::string> first;
        std::vector<std::string> second;
        (void)virtualtime::run({}, [&] {
            first = askAbout(moment);
            second = askAbout(moment);
        });
        EXPECT_THAT(first, ElementsAreArray(expected));
        EXPECT_THAT(second, ElementsAreArray(expected));
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarInZone,
                         testing::Values("UTC", "Europe/Berlin", "America/New_York", "Asia/Kolkata",
                                         "Pacific/Auckland", "Australia/Lord_Howe",
                                         "Africa/Monrovia"));

class Calendar : public testing::Test {
protected:
    void SetUp() override { setZone("UTC"); }
    void TearDown() override { setZone("UTC"); }

    static int localHour() {
        const std::time_t noon = 1'785'499'200; // 2026-07-31T12:00Z
        std::tm local{};
        localtime_r(&noon, &local);
        return local.tm_hour;
    }
    static std::time_t madeFromNoon() {
        std::tm fields = read("2026-07-31T12:00:00");
        fields.tm_isdst = -1;
        return mktime(&fields);
    }
};

TEST_F(Calendar, ChangeOfZoneIsFollowedWhenTheCLibraryWouldNoticeIt) {
    (void)virtualtime::run({}, [] {
        EXPECT_EQ(localHour(), 12);
        setenv("TZ", "Asia/Seoul", 1);
        EXPECT_EQ(localHour(), 12) << "localtime_r() does not look at TZ";
        tzset();
        EXPECT_EQ(localHour(), 21);
        const std::time_t inSeoul = madeFromNoon();
        setenv("TZ", "Europe/Berlin", 1);
        EXPECT_EQ(madeFromNoon() - inSeoul, 7 * 3600) << "mktime() does";
        unsetenv("TZ");
        static char utc[] = "TZ=UTC";
        putenv(utc);
        EXPECT_EQ(madeFromNoon() - inSeoul, 9 * 3600);
    });
}

TEST_F(Calendar, ZoneSetBeforeARunHoldsInIt) {
    (void)virtualtime::run({}, [] { EXPECT_EQ(localHour(), 12); });
    setZone("Asia/Seoul");
    (void)virtualtime::run({}, [] { EXPECT_EQ(localHour(), 21); });
}

TEST_F(Calendar, ReadingLeavesAloneWhatTheTextDoesNotTell) {
    const auto readInto = [](int isDst) {
        std::tm fields{};
        fields.tm_isdst = isDst;
        strptime("2026-07-31T14:50:01", "%FT%T", &fields);
        return fields.tm_isdst;
    };
    (void)virtualtime::run({}, [&] {
        EXPECT_EQ(readInto(-1), -1);
        EXPECT_EQ(readInto(1), 1);
        EXPECT_EQ(readInto(-1), -1);
    });
}

TEST_F(Calendar, ReadingTellsWhereItEnded) {
    (void)virtualtime::run({}, [] {
        for (int i = 0; i < 2; ++i) {
            std::tm fields{};
            const char text[] = "2026-07-31T14:50:01Z";
            EXPECT_EQ(strptime(text, "%FT%T", &fields), text + 19);
            EXPECT_EQ(strptime("noon", "%FT%T", &fields), nullptr);
            EXPECT_EQ(strptime(text, "%F", &fields), text + 10) << "another format";
        }
    });
}

TEST_F(Calendar, UnusualTimesAreWrittenAsTheCLibraryDoes) {
    std::tm odd[4]{};
    odd[0].tm_year = -1'900; // year 0
    odd[1].tm_year = 10'000; // five digits
    odd[2] = read("2026-02-28T23:59:59");
    odd[2].tm_mday = 123;
    odd[3] = read("2026-02-28T23:59:59");
    odd[3].tm_hour = -1;
    for (const std::tm &fields : odd) {
        char expected[80] = "";
        char written[80] = "";
        const std::size_t length = strftime(expected, sizeof expected, "%FT%T", &fields);
        (void)virtualtime::run(
            {}, [&] { EXPECT_EQ(strftime(written, sizeof written, "%FT%T", &fields), length); });
        EXPECT_STREQ(written, expected);
    }
    const std::tm usual = read("2026-02-28T23:59:59");
    (void)virtualtime::run({}, [&] {
        char text[20] = "";
        EXPECT_EQ(strftime(text, 20, "%FT%T", &usual), 19U);
        EXPECT_STREQ(text, "2026-02-28T23:59:59");
        EXPECT_EQ(strftime(text, 19, "%FT%T", &usual), 0U) << "no room for the end";
    });
}

} // namespace
