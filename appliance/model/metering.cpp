#include "metering.h"

#include <algorithm>
#include <charconv>

#include "random.h"

namespace corvane::appliance {

namespace {

constexpr std::size_t kQuotedBytes = 40;

/* A text from outside for one line of an answer: printable and bounded. */
std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char c : text.substr(0, kQuotedBytes)) {
        result += c >= ' ' && c <= '~' && c != '"' ? c : '?';
    }
    return result + (text.size() > kQuotedBytes ? "…\"" : "\"");
}

bool isDigits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<std::int64_t> wholeNumber(std::string_view digits) {
    std::int64_t value = 0;
    const auto end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value);
    return isDigits(digits) && result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

/* "12.34" as 1234. */
std::optional<std::int64_t> hundredths(std::string_view figure) {
    const std::size_t point = figure.find('.');
    if (point == std::string_view::npos || figure.size() - point != 3 ||
        !isDigits(figure.substr(0, point))) {
        return std::nullopt;
    }
    return wholeNumber(std::string(figure.substr(0, point)) +
                       std::string(figure.substr(point + 1)));
}

/* A request's parameters: the values found, or why they are wrong. */
struct Request {
    std::string_view figure;
    std::int64_t counts = 0;
    std::string wrong;
};

/* The value of one parameter, or a reason in `wrong`. */
std::string_view parameter(std::string_view query, std::string_view name, std::string &wrong) {
    std::optional<std::string_view> value;
    while (!query.empty()) {
        const std::string_view part = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), part.size() + 1));
        if (part.substr(0, part.find('=')) != name) {
            continue;
        }
        if (value) {
            wrong = std::string(name) + " is given twice";
            return {};
        }
        value = part.size() > name.size() ? part.substr(name.size() + 1) : std::string_view();
    }
    if (!value) {
        wrong = std::string(name) + " is missing";
    }
    return value.value_or(std::string_view());
}

std::string expected(std::string_view name, std::string_view value, std::string_view what) {
    return std::string(name) + " is " + quoted(value) + ", expected " + std::string(what);
}

Request check(std::string_view query) {
    Request request;
    request.figure = parameter(query, "cumulativepower", request.wrong);
    if (!request.wrong.empty()) {
        return request;
    }
    const auto counts = hundredths(request.figure);
    if (!counts || *counts > MeteringService::kLargestCounts) {
        request.wrong = expected("cumulativepower", request.figure,
                                 "watt-hours with two decimals, from 0.00 to 21474836.47");
        return request;
    }
    request.counts = *counts;
    const std::string_view duration = parameter(query, "duration", request.wrong);
    if (!request.wrong.empty()) {
        return request;
    }
    const auto sec = wholeNumber(duration);
    if (!sec || *sec < 1 || *sec > MeteringService::kLongestDurationSec) {
        request.wrong = expected("duration", duration, "whole seconds from 1 to 86400");
    }
    return request;
}

std::string garbage(std::uint64_t seed, std::int64_t post) {
    Random random(seed, Draw::Garbage, static_cast<std::uint64_t>(post));
    std::string bytes(static_cast<std::size_t>(random.whole(1, 200)), '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random.whole(0, 255));
    }
    return bytes;
}

} // namespace

MeteringAnswer MeteringService::take(std::string_view method, std::string_view target, TimeMs now) {
    const std::size_t mark = target.find('?');
    if (target.substr(0, mark) != kPath) {
        return {404, "nothing is at this path, figures go to " + std::string(kPath) + "\n"};
    }
    if (method != "POST") {
        return {405, "the method is " + quoted(method) + ", expected POST\n"};
    }
    ++totals_.posts;
    totals_.lastAt = now;
    MeteringAnswer answer = answerTo(mark == std::string_view::npos ? "" : target.substr(mark + 1));
    totals_.lastStatus = answer.delayMs ? answer.status : 0;
    if (!answer.delayMs || answer.status >= 400) {
        ++totals_.refused;
    }
    return answer;
}

MeteringAnswer MeteringService::answerTo(std::string_view query) {
    if (faults_.neverAnswers) {
        return {0, "", std::nullopt};
    }
    const std::optional<TimeMs> delayMs = faults_.slow ? kSlowMs : 0;
    if (faults_.refuses) {
        return {503, "no figures are taken at present, try again later\n", delayMs};
    }
    const Request request = check(query);
    if (!request.wrong.empty()) {
        return {400, request.wrong + "\n", delayMs};
    }
    totals_.totalCounts += request.counts;
    totals_.lastFigure = std::string(request.figure);
    if (faults_.garbage) {
        return {200, garbage(seed_, totals_.posts), delayMs};
    }
    return {204, "", delayMs};
}

} // namespace corvane::appliance
