/* The metering service: what it takes, what it refuses and why, and its faults. */
#include "metering.h"

#include <gmock/gmock.h>

#include "virtual_days.h"

namespace corvane::appliance {
namespace {

using testing::HasSubstr;

struct MeteringTest : testing::Test {
    MeteringService service{1};

    MeteringAnswer post(const std::string &query) {
        return service.take("POST", "/external/metering?" + query, kBegin);
    }

    void expectRefused(const std::string &query, const std::string &reason) {
        const MeteringAnswer answer = post(query);
        EXPECT_EQ(answer.status, 400) << query;
        EXPECT_THAT(answer.body, HasSubstr(reason)) << query;
        EXPECT_EQ(std::count(answer.body.begin(), answer.body.end(), '\n'), 1) << query;
        EXPECT_LT(answer.body.size(), 200U) << query;
        EXPECT_EQ(service.totals().totalCounts, 0) << query;
        EXPECT_EQ(service.totals().lastStatus, 400) << query;
    }
};

TEST_F(MeteringTest, TakesFiguresAndAddsThemUp) {
    EXPECT_EQ(
        service.take("POST", "/external/metering?cumulativepower=123.45&duration=60", afterSec(60))
            .status,
        204);
    const MeteringAnswer answer =
        service.take("POST", "/external/metering?cumulativepower=0.05&duration=60", afterSec(120));
    EXPECT_EQ(answer.status, 204);
    EXPECT_EQ(answer.body, "");
    EXPECT_EQ(answer.delayMs, 0);
    const MeteringTotals &totals = service.totals();
    EXPECT_EQ(totals.posts, 2);
    EXPECT_EQ(totals.refused, 0);
    EXPECT_EQ(totals.lastAt, afterSec(120));
    EXPECT_EQ(totals.lastFigure, "0.05");
    EXPECT_EQ(totals.lastStatus, 204);
    EXPECT_EQ(totals.totalCounts, 12'350);
    EXPECT_DOUBLE_EQ(totals.totalWh(), 123.5);
}

TEST_F(MeteringTest, ParametersMayComeInAnyOrderAndWithOthers) {
    EXPECT_EQ(post("duration=60&cumulativepower=1.00").status, 204);
    EXPECT_EQ(post("x=1&&cumulativepower=1.00&duration=1&y").status, 204);
    EXPECT_EQ(service.totals().totalCounts, 200);
}

TEST_F(MeteringTest, RefusesAWrongFigureWithTheReason) {
    expectRefused("duration=60", "cumulativepower is missing");
    expectRefused("", "cumulativepower is missing");
    expectRefused("cumulativepowers=1.00&duration=60", "cumulativepower is missing");
    expectRefused("cumulativepower=1.00&cumulativepower=2.00&duration=60",
                  "cumulativepower is given twice");
    for (const std::string figure :
         {"", "-1.00", "1", "1.0", "1.000", ".50", "1,00", "1.-5", "+1.00", "nan", "1e5", " 1.00",
          "0x1.00", "1.0a", "a.00", "1..0", "21474836.48", "99999999999999999999.00"}) {
        expectRefused("cumulativepower=" + figure + "&duration=60",
                      "cumulativepower is \"" + figure + "\", expected watt-hours");
    }
    expectRefused("cumulativepower&duration=60", "cumulativepower is \"\"");
}

TEST_F(MeteringTest, TakesTheSmallestAndTheLargestFigure) {
    EXPECT_EQ(post("cumulativepower=0.00&duration=60").status, 204);
    EXPECT_EQ(post("cumulativepower=21474836.47&duration=86400").status, 204);
    EXPECT_EQ(service.totals().totalCounts, INT32_MAX);
}

TEST_F(MeteringTest, RefusesAWrongDurationWithTheReason) {
    expectRefused("cumulativepower=1.00", "duration is missing");
    expectRefused("cumulativepower=1.00&duration=60&duration=60", "duration is given twice");
    for (const std::string duration :
         {"", "0", "-60", "60.0", "86401", "1m", "99999999999999999999"}) {
        expectRefused("cumulativepower=1.00&duration=" + duration,
                      "duration is \"" + duration + "\", expected whole seconds");
    }
}

TEST_F(MeteringTest, QuotesNoMoreThanALineOfWhatCame) {
    expectRefused("cumulativepower=" + std::string(5000, '9'),
                  "\"" + std::string(40, '9') + "…\", expected");
    expectRefused("cumulativepower=a\"\r\n\x01\xff", "\"a?????\"");
}

TEST_F(MeteringTest, OtherPathsAndMethodsAreNoFigures) {
    const std::string query = "?cumulativepower=1.00&duration=60";
    for (const std::string path : {"/", "", "/external", "/external/metering/", "external/metering",
                                   "/external/meteringx", "/EXTERNAL/METERING"}) {
        EXPECT_EQ(service.take("POST", path + query, kBegin).status, 404) << path;
    }
    for (const std::string method : {"GET", "PUT", "", "post", "DELETE"}) {
        const auto answer = service.take(method, "/external/metering" + query, kBegin);
        EXPECT_EQ(answer.status, 405) << method;
        EXPECT_THAT(answer.body, HasSubstr("expected POST"));
    }
    EXPECT_EQ(service.totals().posts, 0);
    EXPECT_EQ(service.totals().totalCounts, 0);
}

TEST_F(MeteringTest, WithoutAQueryTheFigureIsMissing) {
    EXPECT_EQ(service.take("POST", "/external/metering", kBegin).status, 400);
}

// --- Faults

TEST_F(MeteringTest, RefusingKeepsNothing) {
    service.setFaults({.refuses = true});
    const MeteringAnswer answer = post("cumulativepower=1.00&duration=60");
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(service.totals().totalCounts, 0);
    EXPECT_EQ(service.totals().posts, 1);
    EXPECT_EQ(service.totals().refused, 1);
    EXPECT_EQ(service.totals().lastStatus, 503);
    service.setFaults({});
    EXPECT_EQ(post("cumulativepower=1.00&duration=60").status, 204);
}

TEST_F(MeteringTest, SlowAnswersLateAndKeepsTheFigure) {
    service.setFaults({.slow = true});
    const MeteringAnswer answer = post("cumulativepower=1.00&duration=60");
    EXPECT_EQ(answer.status, 204);
    EXPECT_EQ(answer.delayMs, 20'000);
    EXPECT_EQ(service.totals().totalCounts, 100);
}

TEST_F(MeteringTest, NeverAnsweringKeepsNothing) {
    service.setFaults({.neverAnswers = true});
    EXPECT_EQ(post("cumulativepower=1.00&duration=60").delayMs, std::nullopt);
    EXPECT_EQ(service.totals().totalCounts, 0);
    EXPECT_EQ(service.totals().refused, 1);
    EXPECT_EQ(service.totals().lastStatus, 0);
}

TEST_F(MeteringTest, GarbageComesForFiguresThatAreKept) {
    service.setFaults({.garbage = true});
    const MeteringAnswer first = post("cumulativepower=1.00&duration=60");
    const MeteringAnswer second = post("cumulativepower=1.00&duration=60");
    EXPECT_EQ(first.status, 200);
    EXPECT_NE(first.body, "");
    EXPECT_NE(first.body, second.body);
    EXPECT_EQ(service.totals().totalCounts, 200);
    EXPECT_EQ(post("cumulativepower=x&duration=60").status, 400);
}

TEST_F(MeteringTest, TotalsGoOnAfterARestore) {
    post("cumulativepower=1.00&duration=60");
    MeteringService restarted(1);
    restarted.restore(service.totals());
    static_cast<void>(
        restarted.take("POST", "/external/metering?cumulativepower=2.00&duration=60", kBegin));
    EXPECT_EQ(restarted.totals().totalCounts, 300);
    EXPECT_EQ(restarted.totals().posts, 2);
}

} // namespace
} // namespace corvane::appliance
