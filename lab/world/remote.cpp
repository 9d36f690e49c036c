/*
 * Drawing requests. An absurd one begins as a right one and is then spoiled, so that some are still
 * right and some are wrong in a single character.
 */
#include "remote.h"

#include "fakes.h"
#include "wire.h"

#include <cstdio>
#include <variant>

namespace corvane::lab {
namespace {

std::string timeOfDay(std::int64_t second) {
    char text[40];
    const auto ofDay = static_cast<int>((second % 86'400 + 86'400) % 86'400);
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    return text;
}

std::string seasonDay(Draws &draws, const std::string &time) {
    char text[40];
    const int day = draws.whole(1, 28);
    const int month = draws.whole(1, 12);
    std::snprintf(text, sizeof text, "0000-%02d-%02dT", month, day);
    return text + time;
}

std::int64_t order(Draws &draws, std::int64_t utcSec) {
    if (draws.chance(0.15)) {
        (void)fakes::proxy::controlDrlc("0");
        return 0;
    }
    const int lengths[] = {draws.whole(1, 10), draws.whole(10, 600), draws.whole(600, 4 * 3600),
                           draws.whole(1, 86'399)};
    const int starts[] = {0, draws.whole(-5, 5), draws.whole(-7200, 7200), draws.whole(0, 86'399)};
    const int lengthSec = draws.oneOf(lengths);
    const int startSec = draws.oneOf(starts);
    const std::string start = draws.chance(0.3) ? "" : timeOfDay(utcSec + startSec);
    const std::string length = draws.chance(0.1) ? "" : timeOfDay(lengthSec);
    const std::string level = std::to_string(draws.whole(1, 4));
    for (int times = draws.chance(0.1) ? 2 : 1; times > 0; --times)
        (void)fakes::proxy::controlDrlc(level, length, start);
    return (start.empty() ? 0 : startSec) + (draws.chance(0.5) ? lengthSec : 0);
}

void reserve(Draws &draws, std::int64_t utcSec) {
    // Half of the windows are about to begin or to end.
    const std::int64_t begin =
        draws.chance(0.5) ? draws.whole(0, 86'399) : utcSec + draws.whole(-3600, 3600);
    const int longestSec = draws.chance(0.3) ? 86'399 : 7200;
    const std::string period = timeOfDay(draws.whole(1, longestSec));
    const std::string last = seasonDay(draws, "00:00:00");
    const std::string first = seasonDay(draws, timeOfDay(begin));
    const auto entry = fakes::proxy::reservation(first, last, period, "from the remote side");
    if (draws.chance(0.3))
        (void)fakes::proxy::setDefrostReservation(entry);
    else
        (void)fakes::proxy::createDefrostReservation(entry);
}

std::string rightBody(Draws &draws, platform::CommandId id) {
    using platform::CommandId;
    switch (id) {
    case CommandId::ControlDRLC:
        return R"({"level": 2, "duration": "01:00:00", "start": ")" +
               timeOfDay(draws.whole(0, 86'399)) + R"("})";
    case CommandId::ControlOverride:
        return R"({"override": 1})";
    case CommandId::SetDelayDefrost:
        return R"({"enabled": 1})";
    case CommandId::DelDefrostReservations:
        return R"({"id": "3"})";
    case CommandId::CreateDefrostReservations:
    case CommandId::SetDefrostReservations: {
        const std::string first = seasonDay(draws, "12:00:00");
        const std::string last = seasonDay(draws, "00:00:00");
        return R"({"startTime": ")" + first + R"(", "endTime": ")" + last +
               R"(", "period": "01:00:00", "description": "x"})";
    }
    default:
        return "";
    }
}

void spoil(Draws &draws, std::string &body) {
    static constexpr const char *kPieces[] = {"-",
                                              "9",
                                              "\"",
                                              "'",
                                              "\\",
                                              "{",
                                              "}",
                                              "[",
                                              "null",
                                              "1e99",
                                              "0000-02-30T00:00:00",
                                              "\xff",
                                              "'); DROP TABLE dr_usage_table; --",
                                              "24:00:00",
                                              "99:99:99",
                                              "\\u0000",
                                              ":",
                                              " "};
    for (int times = draws.whole(1, 3); times > 0; --times) {
        const auto at = static_cast<std::size_t>(draws.whole(0, static_cast<int>(body.size())));
        if (draws.chance(0.5))
            body.insert(at, draws.oneOf(kPieces));
        else if (draws.chance(0.7) && at < body.size())
            body.replace(at, 1, 1, static_cast<char>(draws.whole(32, 126)));
        else
            body.resize(at);
    }
}

void forward(const platform::Request &request) {
    using platform::CommandId;
    using namespace fakes::proxy;
    platform::Request mine = request; // handlers may write into it
    switch (request.id) {
    case CommandId::GetDRLCOverride:
        (void)getDrlcOverride();
        return;
    case CommandId::ControlOverride:
        (void)controlOverride(request.value);
        return;
    case CommandId::ControlDRLC:
        (void)controlDrlc(&mine.drlc);
        return;
    case CommandId::GetDefrostReservations:
        (void)getDefrostReservations();
        return;
    case CommandId::CreateDefrostReservations:
        (void)createDefrostReservation(request.reservation);
        return;
    case CommandId::SetDefrostReservations:
        (void)setDefrostReservation(request.reservation);
        return;
    case CommandId::DelDefrostReservations:
        (void)delDefrostReservation(request.reservationId.c_str());
        return;
    case CommandId::GetDelayDefrost:
        (void)getDelayDefrost();
        return;
    case CommandId::SetDelayDefrost:
        (void)setDelayDefrost(request.value);
        return;
    case CommandId::GetDefrostBlock:
        (void)getDefrostBlock();
        return;
    case CommandId::GetEnergyConsumption:
        (void)getEnergyConsumption();
        return;
    default:
        return;
    }
}

} // namespace

std::int64_t sendSensible(Draws &draws, std::int64_t utcSec, double orderShare, const Told &told) {
    using namespace fakes::proxy;
    switch (draws.whole(0, 11)) {
    case 0:
    case 1:
    case 2:
    case 3:
        if (draws.chance(orderShare))
            return order(draws, utcSec);
        (void)setDelayDefrost(1);
        break;
    case 4:
        (void)controlOverride(draws.whole(0, 1));
        break;
    case 5: {
        const DrlcOverride answer = getDrlcOverride();
        if (answer.answer == 1) {
            told("level", std::to_string(answer.level));
            told("override", std::to_string(answer.override_state));
        }
        break;
    }
    case 6: {
        const Value answer = getDefrostBlock();
        if (answer.answer == 1)
            told("block", std::to_string(answer.value));
        break;
    }
    case 7:
    case 8:
        (void)setDelayDefrost(draws.chance(0.8) ? 1 : 0);
        break;
    case 9:
        reserve(draws, utcSec);
        break;
    case 10:
        (void)delDefrostReservation(draws.chance(0.5) ? "2" : "3");
        break;
    default: {
        (void)getDefrostReservations();
        const Consumption consumption = getEnergyConsumption();
        if (consumption.answer == 1)
            told("consumption", consumption.cumulative + " and " + consumption.monthly);
        const Value answer = getDelayDefrost();
        if (answer.answer == 1)
            told("enabled", std::to_string(answer.value));
    }
    }
    return 0;
}

std::string sendAbsurd(Draws &draws) {
    const auto commands = platform::allCommands();
    platform::Message message;
    message.command =
        &commands[static_cast<std::size_t>(draws.whole(0, static_cast<int>(commands.size()) - 1))];
    message.method = draws.chance(0.9) ? platform::Method::Post : platform::Method::Get;
    message.contentFormat = draws.chance(0.9) ? 50U : 60U;
    std::string body = rightBody(draws, message.command->id);
    if (draws.chance(0.9))
        spoil(draws, body);
    message.body = body;
    const auto checked = platform::readMessage(message);
    if (const auto *refusal = std::get_if<platform::Response>(&checked))
        return std::string(message.command->name) + " " + std::to_string(refusal->code) + " " +
               refusal->body;
    forward(std::get<platform::Request>(checked));
    return "";
}

} // namespace corvane::lab
