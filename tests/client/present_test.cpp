/* What is shown: one screen of 80 columns, and objects whose shape programs rely on. */
#include "present.h"

#include "calendar.h"
#include "time_zone.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace corvane::client {
namespace {

using testing::HasSubstr;
using testing::Not;

const Style kPlain(false);

class Present : public testing::Test {
protected:
    StatusReport full() const {
        StatusReport report;
        report.url = "coap://127.0.0.1:5683/KestProxyTest";
        report.now = parseUtc("2026-06-10T14:17:50").value();
        report.level.value = 2;
        report.override.value = 0;
        report.block.value = 1;
        report.event.value =
            EventReport{true, StoredEvent{2, {report.now - 1800, report.now + 1800}}};
        report.defrostEnabled.value = 1;
        report.defrostActive.value = 0;
        report.reservations.value = {
            {"0", "Summer Season", "0000-05-01T15:00:00", "0000-10-31T00:00:00", "04:00:00"},
            {"3", "An evening of thirty bytes now", "0000-06-01T17:30:30", "0000-06-30T00:00:00",
             "02:00:00"}};
        report.consumption.value = Consumption{"220.45", "100.00"};
        return report;
    }

    static void expectNarrow(const std::string &screen) {
        std::istringstream lines(screen);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80u) << line;
            EXPECT_TRUE(line.empty() || line.back() != ' ') << "\"" << line << "\"";
        }
    }

    TimeZone zone_{"Europe/Berlin"};
};

TEST(EnergyText, CountsHundredsOfWattHours) {
    EXPECT_EQ(energyText("0.00"), "0.000 kWh");
    EXPECT_EQ(energyText("1.00"), "0.100 kWh");
    EXPECT_EQ(energyText("220.45"), "22.045 kWh");
}

TEST(EnergyText, FigureThatIsNoNumberIsShownAsItIs) {
    for (const char *figure : {"", "much", "1.00 kWh", "1,00"})
        EXPECT_EQ(energyText(figure), figure);
}

TEST_F(Present, StatusShowsEveryPieceWithinEightyColumns) {
    const std::string screen = statusScreen(full(), kPlain);
    expectNarrow(screen);
    EXPECT_THAT(screen, HasSubstr("level         2  load reduced, level 2 of 4\n"));
    EXPECT_THAT(screen, HasSubstr("override      off\n"));
    EXPECT_THAT(screen, HasSubstr("defrost block on\n"));
    EXPECT_THAT(screen, HasSubstr("level 2, running, 30 min left  [##########..........]\n"));
    EXPECT_THAT(screen, HasSubstr("13:47:50 to 14:47:50 UTC\n"));
    EXPECT_THAT(screen, HasSubstr("15:47:50 to 16:47:50 local time\n"));
    EXPECT_THAT(screen, HasSubstr("enabled       yes\n"));
    EXPECT_THAT(screen, HasSubstr("active        no\n"));
    EXPECT_THAT(screen, HasSubstr("  > 3   An evening of thirt...  06-01"));
    EXPECT_THAT(screen, HasSubstr("opens 17:30:30\n"));
    EXPECT_THAT(screen, HasSubstr("    0   Summer Season"));
    EXPECT_THAT(screen, HasSubstr("this month    22.045 kWh\n"));
    EXPECT_THAT(screen, HasSubstr("last month    10.000 kWh\n"));
    EXPECT_THAT(screen, Not(HasSubstr("\033")));
}

TEST_F(Present, ColourChangesNoCharacterOfTheText) {
    std::string coloured = statusScreen(full(), Style(true));
    EXPECT_THAT(coloured, HasSubstr("\033[1m"));
    for (std::size_t at = coloured.find('\033'); at != coloured.npos; at = coloured.find('\033'))
        coloured.erase(at, coloured.find('m', at) - at + 1);
    EXPECT_EQ(coloured, statusScreen(full(), kPlain));
}

TEST_F(Present, WhatIsNotKnownIsSaidWithItsReason) {
    StatusReport report;
    report.url = "coap://127.0.0.1:5683/KestProxyTest";
    report.level.missing = "the service is starting; retry in 5 s";
    report.defrostActive.missing =
        "a reason that is so long that it has to be folded into a second line of the screen";
    report.reservations.missing = "gone";
    const std::string screen = statusScreen(report, kPlain);
    expectNarrow(screen);
    EXPECT_THAT(screen,
                HasSubstr("level         unknown (the service is starting; retry in 5 s)\n"));
    EXPECT_THAT(screen, HasSubstr("folded into\n                a second line of the screen)\n"));
    EXPECT_THAT(screen, HasSubstr("reservations  unknown (gone)\n"));
}

TEST_F(Present, EventWithoutDetailsIsOnlyKnownToBeStored) {
    StatusReport report = full();
    report.event.value = EventReport{true, {}};
    report.event.note = "its times are elsewhere";
    EXPECT_THAT(
        statusScreen(report, kPlain),
        HasSubstr("event         one is stored\n                its times are elsewhere\n"));
    EXPECT_EQ(statusJson(report)["event"].dump(), R"({"stored":true})");
    report.event = {EventReport{}, "", ""};
    EXPECT_THAT(statusScreen(report, kPlain), HasSubstr("event         none\n\n"));
    EXPECT_EQ(statusJson(report)["event"].dump(), R"({"stored":false})");
}

TEST_F(Present, EventTellsWhetherItWaitsRunsOrIsOver) {
    StatusReport report = full();
    const auto shown = [&](std::time_t start, std::time_t end) {
        report.event.value = EventReport{true, StoredEvent{4, {start, end}}};
        return statusScreen(report, kPlain);
    };
    EXPECT_THAT(shown(report.now + 3661, report.now + 9000), HasSubstr("starts in 1 h 1 min\n"));
    EXPECT_THAT(shown(report.now, report.now + 90), HasSubstr("running, 1 min 30 s left  [....."));
    EXPECT_THAT(shown(report.now - 90, report.now - 1),
                HasSubstr("over, the service is ending it"));
}

TEST_F(Present, EventOfAnotherDayShowsItsDate) {
    StatusReport report = full();
    report.event.value = EventReport{true, StoredEvent{4,
                                                       {parseUtc("2026-06-11T21:00:00").value(),
                                                        parseUtc("2026-06-11T23:00:00").value()}}};
    const std::string screen = statusScreen(report, kPlain);
    expectNarrow(screen);
    EXPECT_THAT(screen, HasSubstr("2026-06-11 21:00:00 to 23:00:00 UTC\n"));
    EXPECT_THAT(screen, HasSubstr("2026-06-11 23:00:00 to 2026-06-12 01:00:00 local time\n"));
}

TEST_F(Present, WindowOfTheCurrentReservationSaysWhereTodayStands) {
    const std::vector<Reservation> one{
        {"2", "", "0000-06-01T17:30:00", "0000-06-30T00:00:00", "02:00:00"}};
    const auto shown = [&](const char *moment) {
        return reservationTable(one, local(moment), kPlain);
    };
    EXPECT_THAT(shown("2026-06-10T17:29:59"), HasSubstr("  opens 17:30\n"));
    EXPECT_THAT(shown("2026-06-10T17:30:00"), HasSubstr("  until 19:30\n"));
    EXPECT_THAT(shown("2026-06-10T19:30:00"), HasSubstr("  over for today\n"));
    EXPECT_THAT(shown("2026-07-10T17:30:00"), Not(HasSubstr(">")));
    EXPECT_EQ(reservationTable({}, 0, kPlain), "  none\n");
}

TEST_F(Present, TextFromOutsideCannotDriveTheTerminal) {
    const std::vector<Reservation> one{
        {"2", "evil\033[2J\nline", "0000-06-01T17:30:00", "0000-06-30T00:00:00", "02:00:00"}};
    const std::string table = reservationTable(one, 0, kPlain);
    EXPECT_THAT(table, HasSubstr("evil?[2J?line"));
}

TEST_F(Present, StatusObjectHasTheDocumentedShape) {
    EXPECT_EQ(statusJson(full()).dump(),
              R"({"url":"coap://127.0.0.1:5683/KestProxyTest","at":"2026-06-10T14:17:50Z",)"
              R"("level":2,"override":0,"block":1,"event":{"stored":true,"level":2,)"
              R"("state":"running","start":"2026-06-10T13:47:50Z","end":"2026-06-10T14:47:50Z",)"
              R"("secondsToStart":0,"secondsLeft":1800},"defrost":{"enabled":1,"active":0,)"
              R"("reservations":[{"id":"0","description":"Summer Season","firstDay":"05-01",)"
              R"("lastDay":"10-31","at":"15:00:00","for":"04:00:00","current":false},{"id":"3",)"
              R"("description":"An evening of thirty bytes now","firstDay":"06-01",)"
              R"("lastDay":"06-30","at":"17:30:30","for":"02:00:00","current":true}]},)"
              R"("consumption":{"cumulative":"220.45","monthly":"100.00"},"missing":{},)"
              R"("notes":{}})");
}

TEST_F(Present, StatusObjectHasNullsWithTheirReasons) {
    StatusReport report;
    report.level.missing = report.override.missing = report.block.missing = "r";
    report.defrostActive.missing = "why";
    report.defrostEnabled = {1, "", "as stored"};
    const Json object = statusJson(report);
    EXPECT_TRUE(object["level"].is_null());
    EXPECT_TRUE(object["event"].is_null());
    EXPECT_TRUE(object["defrost"]["reservations"].is_null());
    EXPECT_TRUE(object["consumption"].is_null());
    EXPECT_EQ(object["missing"]["defrost.active"], "why");
    EXPECT_EQ(object["notes"].dump(), R"({"defrost.enabled":"as stored"})");
}

TEST_F(Present, ConfirmationShowsUtcAndLocalTime) {
    const std::time_t now = parseUtc("2026-06-10T14:00:00").value();
    const EventTime time{now + 3600, now + 9000};
    EXPECT_EQ(orderedText(3, time, now, kPlain), "Ordered level 3 for 1 h 30 min; starts in 1 h.\n"
                                                 "  UTC           15:00:00 to 16:30:00\n"
                                                 "  local time    17:00:00 to 18:30:00\n");
    EXPECT_EQ(orderedJson(3, time, now).dump(),
              R"({"level":3,"state":"waiting","start":"2026-06-10T15:00:00Z",)"
              R"("end":"2026-06-10T16:30:00Z","secondsToStart":3600,"secondsLeft":5400})");
}

Notification notified(const char *body) {
    const auto parsed = nlohmann::json::parse(body);
    return {parsed["seq"], parsed["at"], parsed};
}

TEST_F(Present, NotificationIsOneLineInLocalTime) {
    const auto line = [](const char *resource, const char *body) {
        return notificationLine(resource, notified(body), kPlain);
    };
    EXPECT_EQ(line("SendDRLCNotify", R"({"level":3,"seq":1,"at":"2026-06-10T14:00:00Z"})"),
              "2026-06-10 16:00:00  level        load reduced, level 3 of 4\n");
    EXPECT_THAT(line("SendDRLCNotify", R"({"level":0,"seq":1,"at":"x"})"),
                HasSubstr("normal operation"));
    EXPECT_THAT(line("SendOverrideNotify", R"({"override":1,"seq":1,"at":"x"})"),
                HasSubstr("override     on, events are not followed"));
    EXPECT_THAT(line("SendDefrostBlockNotify", R"({"block":1,"seq":1,"at":"x"})"),
                HasSubstr("block        on, an event is stored"));
    EXPECT_THAT(line("SendDelayDefrostNotify", R"({"enabled":false,"seq":1,"at":"x"})"),
                HasSubstr("defrost      defrost delay is off"));
    EXPECT_THAT(
        line("SendDefrostReservationsNotify",
             R"({"action":2,"entries":[{"id":"2","description":"Peak"}],"seq":1,"at":"x"})"),
        HasSubstr("reservation  removed 2 \"Peak\""));
}

TEST_F(Present, NotificationObjectBeginsWithItsResource) {
    EXPECT_EQ(notificationJson("SendDRLCNotify",
                               notified(R"({"level":3,"seq":7,"at":"2026-06-10T14:00:00Z"})"))
                  .dump(),
              R"({"resource":"SendDRLCNotify","seq":7,"at":"2026-06-10T14:00:00Z","level":3})");
}

} // namespace
} // namespace corvane::client
