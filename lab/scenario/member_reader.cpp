/*
 * One function for each kind of value, all of the same form: find, convert, check, or refuse.
 */
#include "member_reader.h"

#include "scenario.h"

#include <algorithm>
#include <sstream>

namespace corvane::lab {
namespace {

constexpr std::size_t kMostShown = 40;

std::string bounded(std::string line) {
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return line.size() <= kMostShown ? line : line.substr(0, kMostShown) + "…";
}

/* What was written, as far as it fits into a line. */
std::string shown(const toml::node &node) {
    if (node.is_table())
        return "a table";
    if (const auto text = node.value_exact<std::string>())
        return '"' + bounded(*text) + '"';
    std::ostringstream text;
    node.visit([&](const auto &value) { text << value; });
    return bounded(text.str());
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string plain(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

} // namespace

const toml::node *MemberReader::find(const std::string &name) {
    asked_.insert(name);
    return table_.get(name);
}

void MemberReader::fail(const toml::node &at, const std::string &name,
                        const std::string &reason) const {
    throw ScenarioError(file_ + ":" + std::to_string(at.source().begin.line) + ": " +
                        (path_.empty() || name.empty() ? path_ : path_ + ".") + name + ": " +
                        reason);
}

void MemberReader::notThat(const toml::node &node, const std::string &name,
                           const std::string &expected) const {
    fail(node, name, "expected " + expected + ", not " + shown(node));
}

void MemberReader::missing(const std::string &name, const std::string &expected) const {
    fail(table_, name, "is missing; expected " + expected);
}

void MemberReader::refuse(const std::string &name, const std::string &reason) const {
    const toml::node *node = table_.get(name);
    fail(node != nullptr ? *node : static_cast<const toml::node &>(table_), name, reason);
}

std::optional<std::int64_t> MemberReader::wholeNumber(const std::string &name, std::int64_t lowest,
                                                      std::int64_t highest) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    const auto value = node->value_exact<std::int64_t>();
    if (!value || *value < lowest || *value > highest)
        notThat(*node, name,
                "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return *value;
}

std::optional<double> MemberReader::number(const std::string &name, double lowest, double highest) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    const auto value = node->is_number() ? node->value<double>() : std::nullopt;
    if (!value || !(*value >= lowest && *value <= highest))
        notThat(*node, name, "a number from " + plain(lowest) + " to " + plain(highest));
    return *value;
}

std::optional<bool> MemberReader::flag(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    if (!node->is_boolean())
        notThat(*node, name, "true or false");
    return node->value<bool>();
}

std::optional<std::string> MemberReader::text(const std::string &name, std::size_t longest) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    const auto value = node->value_exact<std::string>();
    if (!value || value->empty() || value->size() > longest)
        notThat(*node, name, "a text of 1 to " + std::to_string(longest) + " bytes");
    return *value;
}

std::optional<std::string> MemberReader::oneOf(const std::string &name,
                                               const std::vector<std::string> &choices) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    const auto value = node->value_exact<std::string>();
    if (!value || std::find(choices.begin(), choices.end(), *value) == choices.end())
        notThat(*node, name, "one of " + joined(choices));
    return *value;
}

std::optional<Date> MemberReader::asDate(const toml::node &node) const {
    const auto *value = node.as_date();
    if (value == nullptr)
        return std::nullopt;
    return Date{(*value)->year, (*value)->month, (*value)->day};
}

std::optional<Date> MemberReader::date(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    const std::optional<Date> value = asDate(*node);
    if (!value)
        notThat(*node, name, "a date such as 2026-08-01");
    return value;
}

std::optional<int> MemberReader::timeOfDay(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    std::optional<int> seconds;
    if (const auto *time = node->as_time(); time != nullptr)
        seconds = (*time)->hour * 3600 + (*time)->minute * 60 + (*time)->second;
    else if (const auto text = node->value_exact<std::string>())
        seconds = secondsOf(*text);
    if (!seconds)
        notThat(*node, name, "a time of day from \"00:00\" to \"23:59:59\"");
    return seconds;
}

std::optional<int> MemberReader::length(const std::string &name, int shortestSec, int longestSec) {
    const std::optional<int> seconds = timeOfDay(name);
    if (seconds && (*seconds < shortestSec || *seconds > longestSec))
        notThat(*table_.get(name), name,
                "a length from \"" + clockText(shortestSec) + "\" to \"" + clockText(longestSec) +
                    "\"");
    return seconds;
}

std::vector<Date> MemberReader::dates(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return {};
    const std::string expected = "a list of dates such as [2026-08-03, 2026-08-05]";
    std::vector<Date> values;
    if (!node->is_array() || node->as_array()->empty())
        notThat(*node, name, expected);
    for (const toml::node &item : *node->as_array()) {
        const std::optional<Date> value = asDate(item);
        if (!value)
            notThat(item, name, expected);
        values.push_back(*value);
    }
    return values;
}

std::vector<double> MemberReader::numbers(const std::string &name, std::size_t count, double lowest,
                                          double highest) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return {};
    const std::string expected = "a list of " + std::to_string(count) + " numbers from " +
                                 plain(lowest) + " to " + plain(highest);
    std::vector<double> values;
    if (!node->is_array() || node->as_array()->size() != count)
        notThat(*node, name, expected);
    for (const toml::node &item : *node->as_array()) {
        const auto value = item.is_number() ? item.value<double>() : std::nullopt;
        if (!value || !(*value >= lowest && *value <= highest))
            notThat(item, name, expected);
        values.push_back(*value);
    }
    return values;
}

std::vector<int>
MemberReader::words(const std::string &name, const std::string &expected,
                    const std::function<std::optional<int>(const std::string &)> &accept) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return {};
    std::vector<int> values;
    if (!node->is_array() || node->as_array()->empty())
        notThat(*node, name, expected);
    for (const toml::node &item : *node->as_array()) {
        const auto word = item.value_exact<std::string>();
        const std::optional<int> value = word ? accept(*word) : std::nullopt;
        if (!value)
            notThat(item, name, expected);
        values.push_back(*value);
    }
    return values;
}

std::optional<MemberReader> MemberReader::table(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return std::nullopt;
    if (!node->is_table())
        notThat(*node, name, "a table, written [" + name + "]");
    return MemberReader(*node->as_table(), path_.empty() ? name : path_ + "." + name, file_);
}

std::vector<MemberReader> MemberReader::tables(const std::string &name) {
    const toml::node *node = find(name);
    if (node == nullptr)
        return {};
    if (!node->is_array_of_tables())
        notThat(*node, name, "tables, each written [[" + name + "]]");
    std::vector<MemberReader> readers;
    for (const toml::node &item : *node->as_array())
        readers.emplace_back(*item.as_table(), name, file_);
    return readers;
}

void MemberReader::close() const {
    for (const auto &[key, node] : table_) {
        const std::string name(key.str());
        if (!asked_.contains(name))
            fail(node, name,
                 "is not a member; expected one of " + joined({asked_.begin(), asked_.end()}));
    }
}

} // namespace corvane::lab
