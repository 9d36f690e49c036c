/*
 * Scales first, then the two drawings, each from its frame inwards.
 */
#include "svg.h"

#include "numbers.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>

namespace corvane::lab {
namespace {

constexpr double kWidth = 960;
constexpr double kNarrowWidth = 360;
constexpr double kNarrowHeight = 230;
constexpr double kLeft = 58;
constexpr double kNarrowLeft = 42;
constexpr double kTickRoom = 56; // a month's text
constexpr double kRight = 24;
constexpr int kShades = 7;
constexpr double kShadeWidth = 44;
constexpr double kShadeNote = 110;

std::string at(double value) { return number(value, 1); }

std::string text(double x, double y, const std::string &style, const std::string &words) {
    return "<text x=\"" + at(x) + "\" y=\"" + at(y) + "\" class=\"" + style + "\">" +
           escaped(words) + "</text>";
}

std::string line(double x1, double y1, double x2, double y2, const std::string &style) {
    return "<line x1=\"" + at(x1) + "\" y1=\"" + at(y1) + "\" x2=\"" + at(x2) + "\" y2=\"" +
           at(y2) + "\" class=\"" + style + "\"/>";
}

std::string opening(double width, double height, const std::string &style,
                    const std::string &title) {
    return "<svg viewBox=\"0 0 " + at(width) + " " + at(height) + "\" class=\"" + style +
           "\" role=\"img\" aria-label=\"" + escaped(title) + "\">";
}

int digitsFor(double step) { return step >= 1 ? 0 : step >= 0.1 ? 1 : 2; }

} // namespace

std::string escaped(const std::string &text) {
    std::string safe;
    for (const char character : text) {
        switch (character) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += character;
        }
    }
    return safe;
}

std::vector<double> roundValues(double lowest, double highest, int about) {
    const double span = std::max(highest - lowest, 1e-9);
    const double magnitude = std::pow(10, std::floor(std::log10(span / about)));
    double step = magnitude;
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        step = magnitude * factor;
        if (span / step <= about)
            break;
    }
    std::vector<double> values;
    for (double value = std::floor(lowest / step) * step; value < highest + step * 0.999;
         value += step)
        values.push_back(value);
    return values;
}

std::string draw(const LineChart &chart, Format format) {
    const bool isWide = format == Format::Wide;
    const double width = isWide ? kWidth : kNarrowWidth;
    const double height = isWide ? chart.height : kNarrowHeight;
    const double left = isWide ? kLeft : kNarrowLeft;
    double lowest = chart.fromZero ? 0 : 1e9;
    double highest = chart.fromZero ? 1e-6 : -1e9;
    std::size_t steps = 1;
    for (const Series &series : chart.series) {
        steps = std::max(steps, series.y.size());
        for (const double value : series.y)
            if (std::isfinite(value)) {
                lowest = std::min(lowest, value);
                highest = std::max(highest, value);
            }
    }
    for (const Limit &limit : chart.limits) {
        lowest = std::min(lowest, limit.y);
        highest = std::max(highest, limit.y);
    }
    const std::vector<double> levels = roundValues(lowest, highest);
    const double top = 26;
    const double bottom = height - 42;
    const double right = width - kRight;
    const auto x = [&](double step) {
        return left + (right - left) * step / static_cast<double>(steps);
    };
    const auto y = [&](double value) {
        return bottom -
               (bottom - top) * (value - levels.front()) / (levels.back() - levels.front());
    };

    std::string svg = opening(width, height, isWide ? "wide" : "narrow", chart.title);
    for (std::size_t i = 0; i < chart.bands.size(); ++i) {
        const Band &band = chart.bands[i];
        svg += "<rect x=\"" + at(x(band.begin)) + "\" y=\"" + at(top) + "\" width=\"" +
               at(x(band.end) - x(band.begin)) + "\" height=\"" + at(bottom - top) +
               "\" class=\"band\"/>";
        if (i == 0 && !chart.bandText.empty())
            svg +=
                text((x(band.begin) + x(band.end)) / 2, top + 14, "middle strong", chart.bandText);
    }
    const int digits = digitsFor(levels[1] - levels[0]);
    for (const double level : levels) {
        svg += line(left, y(level), right, y(level), "grid");
        svg += text(left - 8, y(level) + 4, "end", number(level, digits));
    }
    svg += text(left - 8, top - 14, "end strong", chart.unit);
    double lastTick = -kTickRoom;
    for (const Tick &tick : chart.ticks) {
        if (x(tick.x) - lastTick < kTickRoom)
            continue;
        lastTick = x(tick.x);
        svg += line(x(tick.x), bottom, x(tick.x), bottom + 5, "axis");
        svg += text(x(tick.x), bottom + 19, "middle", tick.text);
    }
    svg += line(left, bottom, right, bottom, "axis");
    svg += text(right, bottom + 36, "end", chart.xTitle);
    for (const Limit &limit : chart.limits) {
        svg += line(left, y(limit.y), right, y(limit.y), "limit");
        svg += text(right - 4, y(limit.y) - 5, "end limit-text", limit.text);
    }
    const double shift = chart.areCentred ? 0.5 : 0;
    for (const Series &series : chart.series) {
        std::string path;
        bool isDown = false;
        for (std::size_t i = 0; i < series.y.size(); ++i) {
            if (!std::isfinite(series.y[i])) {
                isDown = false;
                continue;
            }
            path += (isDown ? "L" : "M") + at(x(static_cast<double>(i) + shift)) + " " +
                    at(y(series.y[i]));
            isDown = true;
        }
        svg += "<path d=\"" + path + "\" class=\"line " + series.style + "\"/>";
    }
    return svg + "</svg>";
}

std::string draw(const HeatMap &map) {
    constexpr double kTop = 8;
    constexpr double kRow = 11;
    constexpr double kBottom = kTop + 24 * kRow;
    const auto days = static_cast<double>(map.columns.size());
    const double width = std::min(64.0, (kWidth - kLeft - kRight) / days);
    // The few highest hours (defrosts) share the last shade, or all others would look alike.
    std::vector<double> values;
    for (const auto &column : map.columns)
        std::copy_if(column.begin(), column.end(), std::back_inserter(values),
                     [](double value) { return std::isfinite(value); });
    std::sort(values.begin(), values.end());
    const double lowest = values.empty() ? 0 : values.front();
    const double highest = values.empty() ? 1 : values[(values.size() - 1) * 94 / 100];
    // One path for each shade keeps a year of hours small.
    std::array<std::string, kShades> shades;
    const double step = std::max(highest - lowest, 1e-9) / kShades;
    for (std::size_t day = 0; day < map.columns.size(); ++day)
        for (std::size_t hour = 0; hour < map.columns[day].size(); ++hour) {
            const double value = map.columns[day][hour];
            if (!std::isfinite(value))
                continue;
            const auto shade = static_cast<std::size_t>(
                std::clamp(static_cast<int>((value - lowest) / step), 0, kShades - 1));
            shades.at(shade) += "M" + at(kLeft + static_cast<double>(day) * width) + " " +
                                at(kTop + static_cast<double>(hour) * kRow) + "h" + at(width) +
                                "v" + at(kRow) + "h-" + at(width) + "z";
        }
    // Few days are drawn no larger than many, which the page sees to.
    const double widest = std::max(days * width, kShades * kShadeWidth + kShadeNote);
    std::string svg = opening(kLeft + widest + kRight, kBottom + 78, "heat", map.title);
    svg.insert(svg.size() - 1, " style=\"--width:" + at(kLeft + widest + kRight) + "\"");
    for (std::size_t shade = 0; shade < kShades; ++shade)
        svg +=
            "<path d=\"" + shades.at(shade) + "\" class=\"shade" + std::to_string(shade) + "\"/>";
    for (int hour = 0; hour <= 24; hour += 6)
        svg += text(kLeft - 8, kTop + hour * kRow + 4, "end",
                    (hour < 10 ? "0" : "") + std::to_string(hour) + ":00");
    for (const Tick &tick : map.ticks)
        svg += text(kLeft + tick.x * width, kBottom + 18, "", tick.text);
    const double legend = kBottom + 42;
    for (int shade = 0; shade < kShades; ++shade) { // labelled with where it begins
        const double x = kLeft + shade * kShadeWidth;
        svg += "<rect x=\"" + at(x) + "\" y=\"" + at(legend) + "\" width=\"" + at(kShadeWidth) +
               "\" height=\"11.0\" class=\"shade" + std::to_string(shade) + "\"/>";
        svg += text(x, legend + 25, "", number(lowest + shade * step, digitsFor(step / 2)));
    }
    svg += text(kLeft + kShades * kShadeWidth + 6, legend + 10, "", "and more, " + map.unit);
    return svg + "</svg>";
}

} // namespace corvane::lab
