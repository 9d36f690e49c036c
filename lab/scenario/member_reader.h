/*
 * Reading a TOML table member by member: each is asked for once, by name and with what it must be;
 * close() then refuses what nobody has asked for. Every refusal is a ScenarioError of one line:
 *
 *     FILE:LINE: PATH.MEMBER: expected a whole number from 1 to 4, not 7
 */
#ifndef CORVANE_LAB_MEMBER_READER_H
#define CORVANE_LAB_MEMBER_READER_H

#include "local_time.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <toml++/toml.h>

namespace corvane::lab {

class MemberReader {
public:
    /* `table` must outlive the reader. `path` is empty for the file's own table. */
    MemberReader(const toml::table &table, std::string path, std::string file)
        : table_(table), path_(std::move(path)), file_(std::move(file)) {}

    /* Each: the member's value, or nothing when it is absent. */
    std::optional<std::int64_t> wholeNumber(const std::string &name, std::int64_t lowest,
                                            std::int64_t highest);
    std::optional<double> number(const std::string &name, double lowest, double highest);
    std::optional<bool> flag(const std::string &name);
    std::optional<std::string> text(const std::string &name, std::size_t longest = 80);
    std::optional<std::string> oneOf(const std::string &name,
                                     const std::vector<std::string> &choices);
    std::optional<Date> date(const std::string &name);
    std::optional<int> timeOfDay(const std::string &name); // seconds since midnight
    std::optional<int> length(const std::string &name, int shortestSec, int longestSec);
    /* Dates, or texts each of which `accept` turns into a number; `expected` says what they are. */
    std::vector<Date> dates(const std::string &name);
    /* Exactly so many numbers. */
    std::vector<double> numbers(const std::string &name, std::size_t count, double lowest,
                                double highest);
    std::vector<int> words(const std::string &name, const std::string &expected,
                           const std::function<std::optional<int>(const std::string &)> &accept);

    std::optional<MemberReader> table(const std::string &name);
    std::vector<MemberReader> tables(const std::string &name);

    /* Refuses the table for want of a member, or a member for a reason of the caller's own. */
    [[noreturn]] void missing(const std::string &name, const std::string &expected) const;
    [[noreturn]] void refuse(const std::string &name, const std::string &reason) const;
    template <class T>
    T required(const std::optional<T> &value, const std::string &name,
               const std::string &expected) const {
        if (!value)
            missing(name, expected);
        return *value;
    }

    void close() const;

private:
    const toml::node *find(const std::string &name);
    [[noreturn]] void fail(const toml::node &at, const std::string &name,
                           const std::string &reason) const;
    [[noreturn]] void notThat(const toml::node &node, const std::string &name,
                              const std::string &expected) const;
    std::optional<Date> asDate(const toml::node &node) const;

    const toml::table &table_;
    std::string path_;
    std::string file_;
    std::set<std::string> asked_;
};

} // namespace corvane::lab

#endif
