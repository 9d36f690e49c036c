/*
 * report.html: one file that opens from disk, with everything in it and no script. The style sheet
 * first, then one function for each section, in the order in which they are read.
 */
#include "report.h"

#include "numbers.h"
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <regex>

namespace corvane::lab {
namespace {

constexpr std::size_t kMostRows = 400; // of a table on the page; the CSV files have all

constexpr const char *kStyle = R"(
:root{color-scheme:light dark;--bg:#f3f5f7;--surface:#fff;--sunken:#eef1f4;--line:#dde2e8;--text:#141d27;
--muted:#505d6c;--accent:#1456bd;--soft:#e7effb;--held:#855000;--fault:#b0231a;--with:#1456bd;--without:#7c8896;
--unspread:#b56a00;--s0:#f1f5fb;--s1:#d5e3f6;--s2:#b0cbee;--s3:#83ade2;--s4:#548bd2;--s5:#2b68b8;--s6:#123f7c}
@media (prefers-color-scheme:dark){:root{--bg:#0e1319;--surface:#161d26;--sunken:#1e2732;--line:#2a3542;--text:#e8edf3;
--muted:#a5b2c0;--accent:#82b4ff;--soft:#1a2c47;--held:#f0b95f;--fault:#ff9f97;--with:#82b4ff;--without:#8d9aa8;
--unspread:#f0b95f;--s0:#17212d;--s1:#1b3150;--s2:#204373;--s3:#2a5b9c;--s4:#417bc6;--s5:#6fa3e6;--s6:#b5d3ff}}
*{box-sizing:border-box}body{margin:0;background:var(--bg);color:var(--text);
font:15px/1.5 system-ui,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;font-variant-numeric:tabular-nums}
main{max-width:1160px;margin:0 auto;padding:28px 20px 60px}
h1{font-size:1.6rem;line-height:1.25;margin:0 0 4px;letter-spacing:-.01em}h2{font-size:1.1rem;margin:0 0 4px}h3{font-size:1rem;margin:12px 0 0}
p{margin:0 0 8px}.muted{color:var(--muted)}
section{background:var(--surface);border:1px solid var(--line);border-radius:12px;padding:18px 20px;margin-top:16px;
break-inside:avoid}
section.long{break-inside:auto}
.answer{background:var(--soft);border-color:transparent}.answer p:first-child{font-size:1.3rem;line-height:1.4;font-weight:650;margin-bottom:10px}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(190px,1fr));gap:12px;margin-top:16px}
.tile{background:var(--surface);border:1px solid var(--line);border-radius:12px;padding:14px 16px}
.tile b{display:block;font-size:1.55rem;line-height:1.2;letter-spacing:-.02em}.tile span{color:var(--muted);font-size:.87rem}
.missed{border-color:var(--fault)}.missed h2{color:var(--fault)}
svg{display:block;width:100%;height:auto;margin-top:6px}svg text{font-size:12px;fill:var(--muted)}
svg.narrow{display:none}svg.heat{max-width:calc(var(--width)*1.2px)}.legend{display:flex;flex-wrap:wrap;gap:2px 22px;margin:8px 0 0;font-size:.87rem;color:var(--muted)}
.legend i{display:inline-block;width:26px;border-top:3px solid;margin-right:8px;vertical-align:middle}
i.with{border-color:var(--with)}i.without{border-color:var(--without)}i.unspread{border-color:var(--unspread);border-top-style:dashed}
svg .strong{font-weight:600;fill:var(--text)}svg .end{text-anchor:end}svg .middle{text-anchor:middle}
.grid{stroke:var(--line)}.axis{stroke:var(--muted)}.band{fill:var(--soft)}
.line{fill:none;stroke-width:2;stroke-linejoin:round}.line.with{stroke:var(--with);stroke-width:2.5}
.line.without{stroke:var(--without)}.line.unspread{stroke:var(--unspread);stroke-dasharray:6 4}
.limit{stroke:var(--fault);stroke-dasharray:3 4}svg .limit-text{fill:var(--fault)}
.shade0{fill:var(--s0)}.shade1{fill:var(--s1)}.shade2{fill:var(--s2)}.shade3{fill:var(--s3)}.shade4{fill:var(--s4)}
.shade5{fill:var(--s5)}.shade6{fill:var(--s6)}
.whole{white-space:nowrap}.scroll{overflow-x:auto}:focus-visible{outline:2px solid var(--accent);outline-offset:2px}table{border-collapse:collapse;width:100%;font-size:.9rem;margin-top:8px}
th,td{padding:6px 9px;text-align:right;border-bottom:1px solid var(--line);white-space:nowrap}
th{color:var(--muted);font-weight:600;vertical-align:bottom}th:first-child,td:first-child,.left{text-align:left}
tr.bad td{color:var(--fault)}td.words,th.words{text-align:left;white-space:normal}.pinned td.words{min-width:8.5em}
th[scope=row]{color:var(--text);font-weight:400;vertical-align:baseline}td.why{color:var(--muted)}
tr.total>*{font-weight:650;border-bottom:0;border-top:2px solid var(--line)}
details{margin-top:10px}summary{cursor:pointer;color:var(--accent);font-weight:600}
code{background:var(--sunken);padding:1px 5px;border-radius:5px;font-size:.9em;overflow-wrap:anywhere}
footer{margin-top:20px;color:var(--muted);font-size:.87rem}
@media (max-width:900px){svg text{font-size:15px}}
@media (max-width:640px){main{padding:16px 10px 40px}section{padding:14px 12px}h1{font-size:1.35rem}
.answer p:first-child{font-size:1.12rem}.tiles{grid-template-columns:repeat(2,minmax(0,1fr));gap:8px}.tile{padding:10px 12px}
.tile b{font-size:1.2rem}svg.wide{display:none}svg.narrow{display:block;max-width:480px}svg.narrow text{font-size:12.5px}
svg.heat{width:calc(var(--width)*.8px);max-width:none}th,td{padding:6px}thead th,th.words,td.words,.long th{white-space:normal}
.pinned th:first-child,.pinned td:first-child{position:sticky;left:0;background:var(--surface);white-space:normal}
table.stacked,table.stacked thead,table.stacked tbody{display:block}table.stacked thead th:first-child{display:none}
table.stacked tr{display:grid;grid-template-columns:repeat(3,1fr);align-items:end;border-bottom:1px solid var(--line)}
table.stacked th,table.stacked td{border:0;text-align:right}table.stacked th[scope=row]{grid-column:1/4;text-align:left;padding-bottom:0}
table.notes,table.notes tbody{display:block}table.notes thead{display:none}table.notes td{border:0;padding:0;color:var(--muted)}
table.notes tr{display:grid;grid-template-columns:auto 1fr;gap:0 12px;padding:6px 0;border-bottom:1px solid var(--line)}
table.notes td.words{grid-column:1/3;color:var(--text)}
table.notes tr.bad td{color:var(--fault)}
table.sum,table.sum tbody,table.sum tr{display:block}table.sum tr{display:grid;grid-template-columns:1fr auto;border-bottom:1px solid var(--line)}
table.sum th,table.sum td{border:0}table.sum td.why{grid-column:1/3;grid-row:2;padding-top:0}}
@media print{:root{--bg:#fff;--surface:#fff;--sunken:#f2f2f2;--line:#ccc;--text:#000;--muted:#444;--accent:#1456bd;
--soft:#eef3fb;--fault:#b0231a;--with:#1456bd;--without:#7c8896;--unspread:#b56a00;--s0:#f1f5fb;--s1:#d5e3f6;--s2:#b0cbee;
--s3:#83ade2;--s4:#548bd2;--s5:#2b68b8;--s6:#123f7c}*{print-color-adjust:exact;-webkit-print-color-adjust:exact}
body{font-size:11pt}main{padding:0;max-width:none}details{display:none}.scroll{overflow:visible}}
)";

std::string tag(const std::string &name, const std::string &content,
                const std::string &style = "") {
    return "<" + name + (style.empty() ? "" : " class=\"" + style + "\"") + ">" + content + "</" +
           name + ">";
}

std::string section(const std::string &heading, const std::string &hint, const std::string &content,
                    const std::string &style = "") {
    return tag("section",
               tag("h2", escaped(heading)) +
                   (hint.empty() ? "" : tag("p", escaped(hint), "muted")) + content,
               style) +
           "\n";
}

/* What may be wider than the page: scrolls by itself, also with the keys. */
std::string scrolling(const std::string &what, const std::string &content,
                      const std::string &style = "") {
    return "<div class=\"scroll" + (style.empty() ? "" : " " + style) +
           "\" role=\"region\" tabindex=\"0\" aria-label=\"" + escaped(what) + "\">" + content +
           "</div>";
}

std::string rowHeading(const std::string &text) {
    return "<th scope=\"row\" class=\"words\">" + escaped(text) + "</th>";
}

/* Legend and both formats; the style sheet chooses one. */
std::string drawn(const LineChart &chart) {
    std::string legend;
    for (const Series &series : chart.series)
        legend += tag("span", "<i class=\"" + series.style + "\"></i>" + escaped(series.name));
    return tag("div", legend, "legend") + draw(chart, Format::Wide) + draw(chart, Format::Narrow);
}

std::string tile(const std::string &value, const std::string &what) {
    return tag("div", tag("b", escaped(value)) + tag("span", escaped(what)), "tile");
}

std::string percentText(double value) { return number(value, std::abs(value) < 10 ? 1 : 0) + " %"; }

std::string cameBackTile(const Figures &figures) {
    const std::string when = "within " + std::to_string(kAfterMinutes / 60) + " hours after";
    if (figures.cameBackKwh < 0)
        return tile(energy(-figures.cameBackKwh), "less still " + when + ": nothing came back");
    return tile(energy(figures.cameBackKwh),
                "came back " + when +
                    (figures.reducedKwh > 0
                         ? ", " + percentText(figures.cameBackPercent()) + " of what was put off"
                         : ""));
}

std::string tiles(const Runs &runs, const Figures &figures) {
    std::string content;
    if (runs.events.empty()) {
        content = tile(energy(figures.withKwh), "used in " + number(figures.days, 0) + " days") +
                  tile(power(figures.withKwh * 1000 / figures.days / 24), "on average") +
                  tile(power(figures.peakWithWatt), "highest quarter of an hour");
    } else {
        content = tile(energy(figures.savedKwh()), "saved, " + percentText(figures.savedPercent()) +
                                                       " of the whole period's use") +
                  tile(power(figures.reducedWatt()),
                       "less in event hours, " + percentText(figures.reducedPercent())) +
                  cameBackTile(figures);
    }
    content += tile(celsius(figures.fridgeWith) + " / " + celsius(figures.freezerWith),
                    "the food's warmest hour, fridge / freezer");
    return tag("div", content, "tiles") + "\n";
}

std::string missedSection(const std::vector<std::string> &missed) {
    if (missed.empty())
        return "";
    std::string list;
    for (const std::string &line : missed)
        list += tag("li", escaped(line));
    return section("Not as the scenario expects", "", tag("ul", list), "missed");
}

std::string dayCurveSection(const Runs &runs) {
    const DayCurve curve = averageEventDay(runs);
    LineChart chart;
    chart.unit = "W";
    chart.xTitle = "local time, " + runs.scenario.zone;
    const bool isKw = *std::max_element(curve.without.begin(), curve.without.end()) > 5'000;
    const auto scaled = [&](std::vector<double> watt) {
        for (double &value : watt)
            value /= isKw ? 1000 : 1;
        return watt;
    };
    if (isKw)
        chart.unit = "kW";
    chart.series.push_back({runs.events.empty() ? "mean power" : "without the programme", "without",
                            scaled(curve.without)});
    if (!runs.events.empty()) {
        chart.series.push_back({"with the programme", "with", scaled(curve.with)});
        if (!curve.noSpread.empty())
            chart.series.push_back(
                {"with it, all returning at once", "unspread", scaled(curve.noSpread)});
    }
    for (int hour = 0; hour <= 24; hour += 3)
        chart.ticks.push_back({hour * 60.0 / curve.binMinutes, clockText(hour * 3600)});
    for (std::size_t bin = 0; bin < curve.inEvent.size(); ++bin) {
        if (!curve.inEvent[bin])
            continue;
        if (bin == 0 || !curve.inEvent[bin - 1])
            chart.bands.push_back({static_cast<double>(bin), static_cast<double>(bin)});
        chart.bands.back().end = static_cast<double>(bin) + 1;
    }
    chart.bandText = "event";
    const std::string heading = runs.events.empty()
                                    ? "Load curve of an average day"
                                    : "Load curve of an average event day, with and without";
    chart.title = heading;
    const std::string days = std::to_string(curve.days) + (curve.days == 1 ? " day" : " days");
    const std::string hint =
        "Mean power in steps of " + std::to_string(curve.binMinutes) + " minutes over " + days +
        (runs.events.empty()
             ? "."
             : "; the shaded hours are events. Without the programme means: the same refrigerator, "
               "household and seed, run again without any order.") +
        (runs.appliances > 1 ? " Sum of " + std::to_string(runs.appliances) + " appliances." : "");
    return section(heading, hint, drawn(chart));
}

std::string savingSection(const Runs &runs, const Figures &figures) {
    if (runs.events.empty())
        return "";
    const SavingSum sum = savingSum(figures);
    std::string rows;
    const auto add = [&](const std::string &what, const std::string &why, double kWh,
                         const char *style) {
        const std::string sign = *style == '\0' && kWh > 0 ? "+" : "";
        rows += tag("tr",
                    rowHeading(what) + tag("td", escaped(why), "words why") +
                        tag("td", sign + number(kWh, sum.digits) + " kWh"),
                    style);
    };
    const std::string hours = std::to_string(kAfterMinutes / 60);
    add(sum.less >= 0 ? "Less in event hours" : "More in event hours",
        "The same hours of both runs, with the programme and without.", sum.less, "");
    add(sum.cameBack >= 0 ? "Came back" : "Less in the hours after",
        "The " + hours + " hours after each event, or those until the next one.", -sum.cameBack,
        "");
    add(sum.later >= 0 ? "More in all other hours" : "Less in all other hours",
        "The two runs never meet again exactly: compressor cycles have shifted, and defrosts come "
        "earlier or later, or one more of them.",
        -sum.later, "");
    add("Saved", "", sum.saved, "total");
    return section("How the saving adds up", "", "<table class=\"sum\">" + rows + "</table>");
}

/* Both runs side by side; without events there is but one. */
class FigureTable {
public:
    explicit FigureTable(bool isComparison) : isComparison_(isComparison) {
        if (isComparison)
            rows_ = tag("thead", tag("tr", tag("th", "") + tag("th", "with the programme") +
                                               tag("th", "without") + tag("th", "difference")));
    }
    void add(const std::string &what, double with, double without, int digits) {
        row(what, number(with, digits), number(without, digits), number(with - without, digits));
    }
    /* In kW from 10,000 W on. */
    void addPower(const std::string &what, double with, double without) {
        const bool isKw = std::max(with, without) >= 10'000;
        const double unit = isKw ? 1000 : 1;
        add(what + (isKw ? ", kW" : ", W"), with / unit, without / unit, 1);
    }
    void addOnlyWith(const std::string &what, double with, int digits) {
        row(what, number(with, digits), "", "");
    }
    [[nodiscard]] std::string html() const {
        return "<table class=\"stacked\">" + rows_ + "</table>";
    }

private:
    void row(const std::string &what, const std::string &with, const std::string &without,
             const std::string &difference) {
        rows_ += tag("tr", rowHeading(what) + tag("td", with) +
                               (isComparison_ ? tag("td", without) + tag("td", difference) : ""));
    }

    bool isComparison_;
    std::string rows_;
};

/* The rows on the average event's return, and what the reader must know of them. */
std::string addReturnRows(const Runs &runs, const Figures &figures, FigureTable &table) {
    const std::string hours = std::to_string(kAfterMinutes / 60) + " hours after an event";
    table.addPower("Highest quarter of an hour in the " + hours, figures.returnPeakWatt,
                   figures.returnPeakWithoutWatt);
    table.addPower("The same, against the mean of these hours without", figures.returnPeakWatt,
                   figures.returnSteadyWatt);
    if (figures.returnPeakNoSpreadWatt)
        table.addPower("All appliances returning at once, against that mean",
                       *figures.returnPeakNoSpreadWatt, figures.returnSteadyWatt);
    const std::string events = figures.returnEvents == 1
                                   ? "the one event"
                                   : "the " + std::to_string(figures.returnEvents) + " events";
    return "The " + hours + " are those of the average event, over " + events +
           " that no other follows so soon." +
           (runs.appliances == 1 ? " Over few events of one refrigerator that peak is a compressor "
                                   "cycle or a defrost."
                                 : "");
}

std::string figuresSection(const Runs &runs, const Figures &figures) {
    FigureTable table(!runs.events.empty());
    std::string hint;
    table.add("Energy, kWh", figures.withKwh, figures.withoutKwh, 2);
    table.add("Energy a day, kWh", figures.withKwh / figures.days,
              figures.withoutKwh / figures.days, 3);
    if (!runs.events.empty())
        table.addPower("Mean power in event hours (" + number(figures.eventHours, 1) + " h)",
                       figures.eventWithWatt, figures.eventWithoutWatt);
    if (figures.returnEvents > 0)
        hint = addReturnRows(runs, figures, table);
    table.addPower("Highest quarter of an hour of the period", figures.peakWithWatt,
                   figures.peakWithoutWatt);
    table.add("The food's warmest hour, fridge, °C", figures.fridgeWith, figures.fridgeWithout, 1);
    table.add("The food's warmest hour, freezer, °C", figures.freezerWith, figures.freezerWithout,
              1);
    if (runs.appliances == 1) {
        table.add("Defrosts", figures.defrostsWith, figures.defrostsWithout, 0);
        table.add("Time in which defrosts were held back, h", figures.heldHoursWith,
                  figures.heldHoursWithout, 1);
    }
    table.addOnlyWith("Posted to the metering service, kWh", figures.reportedKwh, 2);
    return section("Energy and peaks", hint, table.html());
}

/* Where a month, or with few days a day, begins. */
std::vector<Tick> dayTicks(const std::vector<DayRow> &days) {
    std::vector<Tick> ticks;
    const std::size_t step = days.size() > 62 ? 0 : days.size() > 14 ? 7 : 1;
    for (std::size_t i = 0; i < days.size(); ++i) {
        const bool isTick = step == 0 ? days[i].date.day == 1 : i % step == 0;
        if (isTick)
            ticks.push_back({static_cast<double>(i), step == 0 ? dateText(days[i].date).substr(0, 7)
                                                               : dateText(days[i].date).substr(5)});
    }
    if (step == 0 && ticks.size() > 13) { // several years: every third month
        std::vector<Tick> fewer;
        for (std::size_t i = 0; i < ticks.size(); i += 3)
            fewer.push_back(ticks[i]);
        return fewer;
    }
    return ticks;
}

std::string heatSection(const Runs &runs, const std::vector<DayRow> &days) {
    HeatMap map;
    map.title = "Mean power of each hour";
    map.unit = "W";
    const bool isFleet = runs.appliances > 50;
    for (const DayRow &day : days) {
        map.columns.push_back(day.hourWatt);
        for (double &watt : map.columns.back())
            watt /= isFleet ? 1000 : 1;
    }
    if (isFleet)
        map.unit = "kW";
    map.ticks = dayTicks(days);
    return section("The hours of the period",
                   "Mean power of each hour" +
                       std::string(runs.events.empty() ? "" : " with the programme") +
                       ": days from left to right, hours of "
                       "the day from top to bottom, in local time.",
                   scrolling("Heat map of the hours", draw(map)));
}

std::string foodChart(const std::string &name, const std::vector<DayRow> &with,
                      const std::vector<DayRow> &without, double DayRow::*food, const Limit &limit,
                      bool hasEvents) {
    LineChart chart;
    chart.title = name;
    chart.unit = "°C";
    chart.xTitle = "date";
    chart.fromZero = false;
    chart.height = 230;
    const auto values = [food](const std::vector<DayRow> &days) {
        std::vector<double> y;
        for (const DayRow &day : days)
            y.push_back(day.*food);
        return y;
    };
    chart.series.push_back({name + (hasEvents ? ", without" : ""), "without", values(without)});
    if (hasEvents)
        chart.series.push_back({name + ", with the programme", "with", values(with)});
    chart.ticks = dayTicks(with);
    chart.limits.push_back(limit);
    return drawn(chart);
}

/* A short period is shown hour by hour. */
std::string foodHours(const std::string &name, const std::vector<HourRow> &hours,
                      double HourRow::*with, double HourRow::*without, const Limit &limit,
                      bool hasEvents) {
    LineChart chart;
    chart.title = name;
    chart.unit = "°C";
    chart.xTitle = "local time";
    chart.fromZero = false;
    chart.height = 230;
    Series withSeries{name + ", with the programme", "with", {}};
    Series withoutSeries{name + (hasEvents ? ", without" : ""), "without", {}};
    const bool isShort = hours.size() <= 48;
    for (std::size_t i = 0; i < hours.size(); ++i) {
        withSeries.y.push_back(hours[i].*with);
        withoutSeries.y.push_back(hours[i].*without);
        const LocalTime local = localTimeOf(hours[i].beginMs);
        if (local.secondOfDay % (isShort ? 6 * 3600 : 86'400) == 0)
            chart.ticks.push_back({static_cast<double>(i), isShort && local.secondOfDay != 0
                                                               ? clockText(local.secondOfDay)
                                                               : dateText(local.date).substr(5)});
    }
    chart.series.push_back(withoutSeries);
    if (hasEvents)
        chart.series.push_back(withSeries);
    chart.limits.push_back(limit);
    return drawn(chart);
}

std::string foodSection(const Runs &runs, const std::vector<DayRow> &with) {
    const appliance::Parameters &p = runs.scenario.parameters;
    const Limit fridge{p.fridgeFoodHighestCelsius,
                       "levels are set aside above " + celsius(p.fridgeFoodHighestCelsius)};
    const Limit freezer{p.freezerFoodHighestCelsius,
                        "levels are set aside above " + celsius(p.freezerFoodHighestCelsius)};
    const bool hasEvents = !runs.events.empty();
    const bool isShort = with.size() <= 7;
    std::string charts;
    if (isShort) {
        const std::vector<HourRow> hours = hourRows(runs);
        charts = foodHours("fridge", hours, &HourRow::fridgeFood, &HourRow::fridgeFoodWithout,
                           fridge, hasEvents) +
                 foodHours("freezer", hours, &HourRow::freezerFood, &HourRow::freezerFoodWithout,
                           freezer, hasEvents);
    } else {
        const std::vector<DayRow> without = dayRows(runs.without);
        charts = foodChart("fridge", with, without, &DayRow::fridgeFood, fridge, hasEvents) +
                 foodChart("freezer", with, without, &DayRow::freezerFood, freezer, hasEvents);
    }
    return section(
        "Food temperatures",
        std::string(isShort ? "Mean of each hour" : "Warmest hour of each day") +
            (runs.appliances > 1 ? ", of the warmest appliance." : ".") +
            " The figures name the warmest hour: the highest mean of sixty minutes in a row. "
            "Food is slow, and a minute at an open door does not spoil it.",
        charts);
}

std::string eventRow(const PlannedEvent &event, const EventFigures &figures, const EventFate &fate,
                     bool showsProgramme) {
    const std::string delay =
        fate.confirmedMs == 0
            ? "–"
            : number(
                  static_cast<double>(fate.confirmedMs - std::max(event.startMs, fate.acceptedMs)) /
                      1000,
                  0) +
                  " s";
    std::string row;
    const std::string start = localText(event.startMs);
    row +=
        tag("td", tag("span", start.substr(0, 10), "whole") + " " +
                      tag("span", start.substr(11, 5) + "–" + localText(event.endMs).substr(11, 5),
                          "whole"));
    if (showsProgramme)
        row += tag("td", escaped(event.programme), "words");
    row += tag("td", std::to_string(event.level));
    row += tag("td", number(figures.withoutWatt, 0));
    row += tag("td", number(figures.withWatt, 0));
    row += tag("td", number(figures.withoutWatt - figures.withWatt, 0));
    row += tag("td", number(figures.cameBackKwh * 1000, 0));
    row += tag("td", number(figures.fridgeFood, 1));
    row += tag("td", number(figures.freezerFood, 1));
    row += tag("td", delay);
    row += tag("td", escaped(figures.outcome), "words");
    const bool isGood =
        figures.outcome == "confirmed" || figures.outcome == "confirmed, then replaced";
    return tag("tr", row, isGood ? "" : "bad");
}

std::string eventsSection(const Runs &runs, const Figures &figures) {
    if (runs.events.empty())
        return "";
    const bool showsProgramme = runs.scenario.programmes.size() > 1;
    std::string headings = tag("th", "event, local time");
    if (showsProgramme)
        headings += tag("th", "programme", "left");
    for (const char *heading :
         {"level", "without<br>W", "with<br>W", "less<br>W", "came back<br>Wh",
          "fridge,<br>warmest<br>hour °C", "freezer,<br>warmest<br>hour °C", "confirmed<br>after"})
        headings += tag("th", heading);
    headings += tag("th", "outcome", "left");
    std::string rows = tag("thead", tag("tr", headings));
    for (std::size_t i = 0; i < std::min(runs.events.size(), kMostRows); ++i)
        rows += eventRow(runs.events[i], figures.events[i], runs.with.fates[i], showsProgramme);
    std::string hint =
        "A single event depends on where the compressor's cycle happens to be; the average over "
        "all events is what counts. What came back and the food are followed until " +
        std::to_string(kAfterMinutes / 60) + " hours after the event.";
    if (runs.appliances > 1)
        hint += " Outcomes are those of the first appliance.";
    if (runs.events.size() > kMostRows)
        hint += " The first " + std::to_string(kMostRows) + " are shown; events.csv has all.";
    return section("Event by event", hint,
                   scrolling("Event by event", tag("table", rows), "pinned"), "long");
}

bool isTrouble(const Note &note) { return note.isRefusal || note.kind == NoteKind::Fault; }

/* A request that is repeated differs in how much is left of its event. */
bool sameButForLengths(const Note &a, const Note &b) {
    static const std::regex kLength("[0-9]+:[0-9]{2}(:[0-9]{2})?");
    const auto words = [](const std::string &text) {
        return std::regex_replace(text, kLength, "");
    };
    return a.kind == b.kind && a.isRefusal == b.isRefusal && words(a.text) == words(b.text);
}

/* The end of what began at another moment: without the date where that is the same. */
std::string untilText(std::int64_t beginMs, std::int64_t endMs) {
    const std::string begin = localText(beginMs), end = localText(endMs);
    constexpr std::size_t kDate = 10;
    return begin.substr(0, kDate) == end.substr(0, kDate) ? end.substr(kDate + 1) : end;
}

std::string noteRow(const Note &note, const std::string &more) {
    static constexpr const char *kKinds[] = {"operator", "service → Micom", "service → operator",
                                             "fault", "service"};
    return tag("tr",
               tag("td", tag("span", localText(note.atMs), "whole")) +
                   tag("td", tag("span", kKinds[static_cast<int>(note.kind)], "whole"), "left") +
                   tag("td", escaped(note.text + more), "words"),
               note.isRefusal ? "bad" : "");
}

std::string noteTable(const std::string &rows) {
    return "<table class=\"notes\">" +
           tag("thead", tag("tr", tag("th", "local time") + tag("th", "who", "left") +
                                      tag("th", "what", "left"))) +
           rows + "</table>";
}

/* What repeats itself is told once. */
std::string troubleTable(const std::vector<Note> &all) {
    std::vector<Note> notes;
    std::copy_if(all.begin(), all.end(), std::back_inserter(notes), isTrouble);
    std::string rows;
    std::size_t count = 0;
    for (std::size_t i = 0; i < notes.size() && count < kMostRows; ++count) {
        std::size_t end = i + 1;
        while (end < notes.size() && sameButForLengths(notes[i], notes[end]))
            ++end;
        rows += noteRow(notes[i], end == i + 1 ? ""
                                               : ", " + std::to_string(end - i) + " times until " +
                                                     untilText(notes[i].atMs, notes[end - 1].atMs));
        i = end;
    }
    return noteTable(rows);
}

std::string wholeTable(const std::vector<Note> &notes) {
    std::string rows;
    for (std::size_t i = 0; i < std::min(notes.size(), kMostRows); ++i)
        rows += noteRow(notes[i], "");
    return noteTable(rows);
}

std::string talkSection(const Runs &runs) {
    const RunResult &run = runs.with;
    const std::string hint = countOf(run.requests, "request") + " of the operator, " +
                             std::to_string(run.refusals) + " refused or not delivered; " +
                             countOf(run.commands, "text") + " to the Micom, repeats included; " +
                             countOf(run.posts, "post") + " to the metering service; " +
                             std::to_string(run.lives) + (run.lives == 1 ? " life" : " lives") +
                             " of the service." +
                             (runs.appliances > 1 ? " All of the first appliance." : "");
    std::string content;
    if (std::any_of(run.notes.begin(), run.notes.end(), isTrouble))
        content += tag("h3", "Faults and refusals") + troubleTable(run.notes);
    else
        content += tag("p", "Nothing was refused and nothing failed.");
    const std::size_t shown = std::min(run.notes.size(), kMostRows);
    content +=
        tag("details", tag("summary", "Everything that was said" +
                                          (shown < run.notes.size()
                                               ? ", the first " + std::to_string(shown) + " of " +
                                                     std::to_string(run.notes.size())
                                               : std::string())) +
                           wholeTable(run.notes));
    return section("Commands and refusals", hint, content, "long");
}

std::string seedsSection(const std::vector<SeedLine> &seeds) {
    if (seeds.size() < 2)
        return "";
    std::string rows =
        tag("tr", tag("th", "seed") + tag("th", "saved kWh") + tag("th", "saved %") +
                      tag("th", "less in event hours W") + tag("th", "came back kWh") +
                      tag("th", "fridge, warmest hour °C") + tag("th", "freezer, warmest hour °C"));
    double mean = 0;
    double square = 0;
    for (const SeedLine &seed : seeds) {
        mean += seed.savedKwh / static_cast<double>(seeds.size());
        square += seed.savedKwh * seed.savedKwh / static_cast<double>(seeds.size());
        rows += tag(
            "tr",
            tag("td", std::to_string(seed.seed)) + tag("td", number(seed.savedKwh, 2)) +
                tag("td", number(seed.savedPercent, 1)) + tag("td", number(seed.reducedWatt, 1)) +
                tag("td", number(seed.cameBackKwh, 2)) + tag("td", number(seed.fridgeFood, 1)) +
                tag("td", number(seed.freezerFood, 1)));
    }
    const double spread = std::sqrt(std::max(0.0, square - mean * mean));
    return section("Other households",
                   "The same scenario with other seeds: other days, other doors. Saved " +
                       number(mean, 2) + " kWh on average, with a spread (standard deviation) of " +
                       number(spread, 2) + " kWh. The rest of the page is about the first seed.",
                   scrolling("Other households", tag("table", rows), "pinned"), "long");
}

} // namespace

std::string html(const Runs &runs, const Figures &figures, const std::vector<SeedLine> &seeds,
                 const Making &making) {
    const Scenario &scenario = runs.scenario;
    const std::vector<DayRow> days = dayRows(runs.with);
    std::string sentences;
    for (const std::string &sentence : answer(runs, figures))
        sentences += tag("p", escaped(sentence));
    const std::string period = dateText(scenario.from) + " to " + dateText(scenario.to);
    std::string page = "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                       "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">";
    page += tag("title", escaped(scenario.title)) + tag("style", kStyle) + "</head><body><main>\n";
    page += tag("h1", escaped(scenario.title));
    page += tag("p",
                escaped(period + " · " + scenario.zone +
                        (runs.appliances > 1
                             ? " · " + std::to_string(runs.appliances) +
                                   " appliances, seeds from " + std::to_string(runs.with.seed)
                             : " · one refrigerator, seed " + std::to_string(runs.with.seed)) +
                        " · kitchen at " +
                        (scenario.ambientByMonth.empty() ? celsius(scenario.ambientCelsius)
                                                         : "the month's temperature")),
                "muted");
    page += tag("section", sentences, "answer") + "\n";
    page += tiles(runs, figures);
    page += missedSection(unmet(runs, figures));
    page += savingSection(runs, figures);
    page += dayCurveSection(runs);
    page += figuresSection(runs, figures);
    page += seedsSection(seeds);
    page += heatSection(runs, days);
    page += foodSection(runs, days);
    page += eventsSection(runs, figures);
    page += talkSection(runs);
    page += tag("footer",
                tag("p", "The unmodified service lived through this in virtual time, with models "
                         "of refrigerator, Micom and display around it: " +
                             number(making.virtualSec / 86'400, 0) + " days in " +
                             number(making.realSec, 0) + " s. A judge watched " +
                             std::to_string(making.judgedSteps) +
                             " steps and saw no rule broken. Tables: "
                             "<code>events.csv</code>, <code>hours.csv</code>, "
                             "<code>figures.json</code>.") +
                    tag("p", "Scenario <code>" + escaped(making.file) +
                                 "</code>; the same again: <code>" + escaped(making.command) +
                                 "</code>"));
    return page + "</main></body></html>\n";
}

} // namespace corvane::lab
