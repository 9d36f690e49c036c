/*
 * Drawings as inline SVG: a line chart and a heat map. They take their colours from classes of the
 * page, so that one drawing serves light, dark and paper. Sizes are in the drawing's own units,
 * which the page scales; so a line chart is drawn twice, wide and for a phone, and the page shows
 * the one that is readable there.
 */
#ifndef CORVANE_LAB_SVG_H
#define CORVANE_LAB_SVG_H

#include <string>
#include <vector>

namespace corvane::lab {

/* Text with what HTML reserves made harmless. */
[[nodiscard]] std::string escaped(const std::string &text);

struct Series {
    std::string name;
    std::string style;     // class of the line: "with", "without", "unspread"
    std::vector<double> y; // one value a step of x; NaN leaves a gap
};

struct Tick {
    double x = 0; // in steps
    std::string text;
};

struct Band { // shaded, from step to step
    double begin = 0, end = 0;
};

struct Limit {
    double y = 0;
    std::string text;
};

struct LineChart {
    std::string title;  // for those who hear the page
    std::string unit;   // of y: "W"
    std::string xTitle; // "local time"
    bool fromZero = true;
    bool areCentred = true; // values stand for the middle of their step
    int height = 300;
    std::vector<Series> series;
    std::vector<Tick> ticks;
    std::vector<Band> bands;
    std::string bandText;
    std::vector<Limit> limits;
};
enum class Format { Wide, Narrow };
[[nodiscard]] std::string draw(const LineChart &chart, Format format);

/* Columns are days, rows are hours, from midnight at the top. NaN: no such hour. */
struct HeatMap {
    std::string title;
    std::string unit;
    std::vector<std::vector<double>> columns; // of 24 each
    std::vector<Tick> ticks;                  // under the columns
};
[[nodiscard]] std::string draw(const HeatMap &map);

/* Round values from lowest to highest, a few of them. */
[[nodiscard]] std::vector<double> roundValues(double lowest, double highest, int about = 5);

} // namespace corvane::lab

#endif
