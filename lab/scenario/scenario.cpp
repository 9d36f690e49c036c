/*
 * Reading scenarios: one function for each table of the file, in the order in which they appear
 * there, then the calendar that places the programme's events.
 */
#include "scenario.h"

#include "member_reader.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

namespace corvane::lab {
namespace {

constexpr int kDaySec = 86'400;
constexpr int kLongestEventSec = kDaySec - 1; // what an order can say
constexpr std::int64_t kLongestDays = 3 * 366;
constexpr std::int64_t kAfterEndMs = kMinuteMs;

constexpr std::array kMonths = {"january",   "february", "march",    "april",
                                "may",       "june",     "july",     "august",
                                "september", "october",  "november", "december"};
constexpr std::array kWeekdays = {"monday", "tuesday",  "wednesday", "thursday",
                                  "friday", "saturday", "sunday"};

struct FaultWord {
    const char *word;
    FaultKind kind;
    bool lasts; // takes a duration
};
constexpr std::array kFaults = {
    FaultWord{"micom-silent", FaultKind::MicomSilent, true},
    FaultWord{"micom-slow", FaultKind::MicomSlow, true},
    FaultWord{"micom-drops", FaultKind::MicomDrops, true},
    FaultWord{"micom-wrong-echo", FaultKind::MicomWrongEcho, true},
    FaultWord{"micom-restart", FaultKind::MicomRestart, false},
    FaultWord{"wifi-lost", FaultKind::WifiLost, true},
    FaultWord{"metering-refuses", FaultKind::MeteringRefuses, true},
    FaultWord{"metering-hangs", FaultKind::MeteringHangs, true},
    FaultWord{"database-busy", FaultKind::DatabaseBusy, true},
    FaultWord{"disk-full", FaultKind::DiskFull, true},
    FaultWord{"io-error", FaultKind::IoError, true},
    FaultWord{"clock-wrong", FaultKind::ClockWrong, true},
    FaultWord{"override", FaultKind::Override, true},
    FaultWord{"restart", FaultKind::Restart, false},
    FaultWord{"kill", FaultKind::Kill, false},
    FaultWord{"power-cut", FaultKind::PowerCut, false},
};

/* What a scenario may say about the appliance beside its defaults. */
struct ApplianceMember {
    const char *name;
    double appliance::Parameters::*parameter;
    double lowest, highest;
};
using P = appliance::Parameters;
constexpr std::array kApplianceMembers = {
    ApplianceMember{"fridge-set-celsius", &P::fridgeSetCelsius, 0, 10},
    ApplianceMember{"freezer-set-celsius", &P::freezerSetCelsius, -28, -12},
    ApplianceMember{"ambient-swing-kelvin", &P::ambientSwingKelvin, 0, 10},
    ApplianceMember{"fridge-loss-watt-per-kelvin", &P::fridgeLossWattPerKelvin, 0.2, 3},
    ApplianceMember{"freezer-loss-watt-per-kelvin", &P::freezerLossWattPerKelvin, 0.1, 2},
    ApplianceMember{"full-capacity-watt", &P::fullCapacityWatt, 60, 400},
    ApplianceMember{"carnot-share", &P::carnotShare, 0.2, 0.7},
    ApplianceMember{"anti-sweat-watt", &P::antiSweatWatt, 0, 40},
    ApplianceMember{"display-idle-watt", &P::displayIdleWatt, 0, 20},
    ApplianceMember{"defrost-heater-watt", &P::defrostHeaterWatt, 50, 400},
    ApplianceMember{"strong-shed-sec", &P::strongShedSec, 0, 7200},
    ApplianceMember{"return-delay-longest-sec", &P::returnDelayLongestSec, 0, 14'400},
    ApplianceMember{"return-ramp-longest-sec", &P::returnRampLongestSec, 0, 14'400},
    ApplianceMember{"return-extras-longest-sec", &P::returnExtrasLongestSec, 0, 28'800},
    ApplianceMember{"return-capacity-limit", &P::returnCapacityLimit, 0.35, 1},
};

template <std::size_t N>
std::optional<int> placeOf(const std::array<const char *, N> &names, const std::string &word) {
    std::string lower = word;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (std::size_t i = 0; i < N; ++i)
        if (lower == names.at(i) || lower == std::string(names.at(i)).substr(0, 3))
            return static_cast<int>(i);
    return std::nullopt;
}

DayRule readDays(MemberReader &table) {
    DayRule days;
    days.months = table.words("months", R"(a list of months such as ["june", "july"])",
                              [](const std::string &word) -> std::optional<int> {
                                  const auto place = placeOf(kMonths, word);
                                  return place ? std::optional(*place + 1) : std::nullopt;
                              });
    days.weekdays = table.words("weekdays", R"(a list of weekdays such as ["mon", "wed"])",
                                [](const std::string &word) { return placeOf(kWeekdays, word); });
    days.dates = table.dates("dates");
    if (const auto every = table.oneOf("every", {"day", "weekday", "weekend-day"})) {
        if (!days.weekdays.empty())
            table.refuse("every", "expected either every or weekdays, not both");
        if (*every == "weekday")
            days.weekdays = {0, 1, 2, 3, 4};
        else if (*every == "weekend-day")
            days.weekdays = {5, 6};
    }
    return days;
}

Programme readProgramme(MemberReader &table, const std::string &defaultName) {
    Programme programme;
    programme.name = table.text("name").value_or(defaultName);
    programme.days = readDays(table);
    programme.level = static_cast<int>(
        table.required(table.wholeNumber("level", 1, 4), "level", "a whole number from 1 to 4"));
    const auto from = table.timeOfDay("from");
    const auto to = table.timeOfDay("to");
    const auto start = table.timeOfDay("start");
    const std::vector<int> starts =
        table.words("starts", R"(a list of times of day such as ["07:00", "07:30"])", secondsOf);
    const auto duration = table.length("duration", 60, kLongestEventSec);
    if (from && to && !start && starts.empty() && !duration) {
        programme.startSecs = {*from};
        programme.endSec = *to;
        if (*from == *to)
            table.refuse("to", "expected another time than from");
    } else if (start.has_value() != !starts.empty() && duration && !from && !to) {
        programme.startSecs = start ? std::vector{*start} : starts;
        programme.durationSec = *duration;
    } else {
        table.refuse("", "expected either from and to, or start (or starts) and duration");
    }
    programme.leadSec = table.length("lead", 0, 20 * 3600).value_or(programme.leadSec);
    programme.limit = static_cast<int>(table.wholeNumber("limit", 1, 10'000).value_or(0));
    table.close();
    return programme;
}

ReservationOrder readReservation(MemberReader &table) {
    ReservationOrder order;
    const auto monthDay = [&](const std::string &name) {
        const std::string expected = "a day of the year such as \"06-01\"";
        const std::string text = table.required(table.text(name, 5), name, expected);
        Date date{2028, 0, 0}; // a leap year
        if (text.size() != 5 || std::sscanf(text.c_str(), "%2d-%2d", &date.month, &date.day) != 2 ||
            !exists(date))
            table.refuse(name, "expected " + expected + ", not \"" + text + "\"");
        return text;
    };
    order.description = table.text("description", 29).value_or("Scenario");
    if (order.description.find_first_of("'\"\\") != std::string::npos)
        table.refuse("description", "expected a text without quotes and backslashes");
    order.firstDay = monthDay("first-day");
    order.lastDay = monthDay("last-day");
    order.startSec = table.required(table.timeOfDay("start"), "start", "a time of day");
    order.periodSec =
        table.required(table.length("period", 60, kLongestEventSec), "period", "a length");
    table.close();
    return order;
}

Fault readFault(MemberReader &table, const Scenario &scenario) {
    std::vector<std::string> words;
    for (const FaultWord &fault : kFaults)
        words.emplace_back(fault.word);
    Fault fault;
    const std::string kind =
        table.required(table.oneOf("kind", words), "kind", "what goes wrong, such as \"kill\"");
    const FaultWord &word = *std::find_if(kFaults.begin(), kFaults.end(),
                                          [&](const FaultWord &w) { return w.word == kind; });
    fault.kind = word.kind;
    fault.date = table.required(table.date("date"), "date", "a date such as 2026-08-01");
    if (fault.date < scenario.from || fault.date > scenario.to)
        table.refuse("date", "expected a date from the scenario's first day to its last");
    fault.startSec = table.required(table.timeOfDay("start"), "start", "a time of day");
    const auto duration = table.length("duration", 1, kLongestEventSec);
    if (word.lasts)
        fault.durationSec = table.required(duration, "duration", "a length such as \"01:00\"");
    else if (duration)
        table.refuse("duration", "expected none: " + kind + " happens in an instant");
    const auto offset = table.wholeNumber("offset-sec", -2'000'000'000, 2'000'000'000);
    if (fault.kind == FaultKind::ClockWrong)
        fault.offsetSec = static_cast<int>(
            table.required(offset, "offset-sec", "how far the clock is set, in seconds"));
    else if (offset)
        table.refuse("offset-sec", "expected only with kind clock-wrong");
    table.close();
    return fault;
}

Expectations readExpectations(MemberReader &table) {
    Expectations expect;
    expect.energyBelowKwh = table.number("energy-below-kwh", 0, 1e6);
    expect.savedAtLeastKwh = table.number("saved-at-least-kwh", -1e6, 1e6);
    expect.reducedAtLeastWatt = table.number("reduced-at-least-watt", -1000, 1000);
    expect.fridgeFoodBelow = table.number("fridge-food-below-celsius", -10, 40);
    expect.freezerFoodBelow = table.number("freezer-food-below-celsius", -40, 40);
    expect.energyReportedWithinPercent = table.number("energy-reported-within-percent", 0, 100);
    expect.everyEventConfirmed = table.flag("every-event-confirmed").value_or(false);
    table.close();
    return expect;
}

void readHousehold(MemberReader &table, Scenario &scenario) {
    scenario.ambientCelsius = table.number("ambient-celsius", 5, 43).value_or(22);
    scenario.ambientByMonth = table.numbers("ambient-by-month-celsius", 12, 5, 43);
    const auto doors = table.oneOf("doors", {"family", "nobody"});
    scenario.householdPresent = doors.value_or("family") == "family";
    scenario.seed = static_cast<std::uint64_t>(table.wholeNumber("seed", 0, INT64_MAX).value_or(1));
    table.close();
}

void readAppliance(MemberReader &table, Scenario &scenario) {
    scenario.defrostDelay = table.flag("defrost-delay").value_or(false);
    for (const ApplianceMember &member : kApplianceMembers)
        if (const auto value = table.number(member.name, member.lowest, member.highest))
            scenario.parameters.*member.parameter = *value;
    table.close();
}

void readPeriod(MemberReader &file, Scenario &scenario) {
    const std::string expected = "a date such as 2026-08-01";
    scenario.from = file.required(file.date("from"), "from", expected);
    scenario.to = file.required(file.date("to"), "to", expected);
    if (scenario.to < scenario.from)
        file.refuse("to", "expected a date not before from");
    if (dayNumber(scenario.to) - dayNumber(scenario.from) >= kLongestDays)
        file.refuse("to", "expected at most three years after from");
    if (scenario.from.year < 2016 || scenario.to.year > 2037)
        file.refuse("from", "expected a period from 2016 to 2037");
    scenario.zone = file.text("zone").value_or("UTC");
    if (!isZone(scenario.zone))
        file.refuse("zone", "expected a time zone such as \"Europe/Berlin\", not \"" +
                                scenario.zone + "\"");
    useZone(scenario.zone);
}

bool holds(const DayRule &rule, const Date &date) {
    const auto passes = [](const auto &list, const auto &value) {
        return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
    };
    return passes(rule.months, date.month) && passes(rule.weekdays, weekdayOf(date)) &&
           passes(rule.dates, date);
}

PlannedEvent place(const Programme &programme, const Date &date, int startSec) {
    PlannedEvent event;
    event.programme = programme.name;
    event.level = programme.level;
    event.startMs = momentOf(date, startSec);
    const bool overMidnight = programme.endSec <= startSec;
    event.endMs = programme.durationSec > 0
                      ? event.startMs + programme.durationSec * std::int64_t{1000}
                      : momentOf(date, programme.endSec + (overMidnight ? kDaySec : 0));
    event.orderMs = event.startMs - programme.leadSec * std::int64_t{1000};
    return event;
}

} // namespace

Scenario parseScenario(std::string_view text, const std::string &fileName) {
    toml::table root;
    try {
        root = toml::parse(text, fileName);
    } catch (const toml::parse_error &error) {
        throw ScenarioError(fileName + ":" + std::to_string(error.source().begin.line) + ": " +
                            std::string(error.description()));
    }
    MemberReader file(root, "", fileName);
    Scenario scenario;
    scenario.title = file.text("title", 120).value_or(fileName);
    readPeriod(file, scenario);
    if (auto table = file.table("household"))
        readHousehold(*table, scenario);
    if (auto table = file.table("appliance"))
        readAppliance(*table, scenario);
    for (MemberReader &table : file.tables("programme")) {
        const std::string name = "programme " + std::to_string(scenario.programmes.size() + 1);
        scenario.programmes.push_back(readProgramme(table, name));
        for (const Date &date : scenario.programmes.back().days.dates)
            if (date < scenario.from || date > scenario.to)
                table.refuse("dates", "expected dates from the scenario's first day to its last");
    }
    for (MemberReader &table : file.tables("reservation"))
        scenario.reservations.push_back(readReservation(table));
    if (scenario.reservations.size() > 2)
        file.refuse("reservation", "expected at most 2, which is what the service has room for");
    for (MemberReader &table : file.tables("fault"))
        scenario.faults.push_back(readFault(table, scenario));
    if (auto table = file.table("expect"))
        scenario.expect = readExpectations(*table);
    file.close();
    return scenario;
}

Scenario readScenario(const std::string &file) {
    std::ifstream stream(file);
    std::ostringstream text;
    if (!stream || !(text << stream.rdbuf()))
        throw ScenarioError(file + ": cannot be read; give the path of a scenario file, such as "
                                   "lab/scenarios/august-evenings.toml");
    return parseScenario(text.str(), file);
}

std::string faultName(FaultKind kind) {
    return std::find_if(kFaults.begin(), kFaults.end(),
                        [&](const FaultWord &word) { return word.kind == kind; })
        ->word;
}

std::vector<PlannedEvent> planEvents(const Scenario &scenario) {
    std::vector<PlannedEvent> events;
    for (const Programme &programme : scenario.programmes) {
        int count = 0;
        for (std::int64_t day = dayNumber(scenario.from); day <= dayNumber(scenario.to); ++day) {
            if (!holds(programme.days, dateOfDay(day)))
                continue;
            for (const int startSec : programme.startSecs)
                if (programme.limit == 0 || count++ < programme.limit)
                    events.push_back(place(programme, dateOfDay(day), startSec));
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const auto &a, const auto &b) { return a.startMs < b.startMs; });
    std::int64_t lastEndMs = 0;
    for (PlannedEvent &event : events) {
        event.orderMs = std::max(event.orderMs, scenario.beginMs() + kMinuteMs);
        // An order carries a time of day, which the service puts on the UTC date of the order
        // unless it would be over by then.
        const std::int64_t lengthMs = event.endMs - event.startMs;
        const std::int64_t startDayMs = event.startMs / kDayMs * kDayMs;
        if (event.orderMs < startDayMs && event.startMs - kDayMs + lengthMs >= event.orderMs)
            event.orderMs = startDayMs;
        if (lastEndMs <= event.startMs)
            event.orderMs =
                std::max(event.orderMs, std::min(lastEndMs + kAfterEndMs, event.startMs));
        lastEndMs = std::max(lastEndMs, event.endMs);
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const auto &a, const auto &b) { return a.orderMs < b.orderMs; });
    return events;
}

} // namespace corvane::lab
