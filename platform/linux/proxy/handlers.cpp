// See handlers.h. Whatever a handler leaves in its outputs is read back within bounds: texts no
// further than their buffers, entries no more than there is room for.
#include "handlers.h"

#include "../text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>

namespace corvane::platform {

namespace {

using nlohmann::ordered_json;

constexpr int kReservationRoom = 4;
constexpr std::size_t kConsumptionSize = 512;

Response refused(const Request &request, int error) {
    ordered_json answer{{"result", 0}};
    if (error != 0)
        answer["error"] = error;
    return {409, encode(answer, request.answerFormat), request.answerFormat, false};
}

// The response to a handler's result: the members beside "result" are sent when it was 1.
Response respond(const Request &request, int result,
                 const ordered_json &members = ordered_json::object()) {
    if (result == 0)
        return refused(request, 0);
    ordered_json answer{{"result", 1}};
    answer.update(members);
    return {request.successCode, encode(answer, request.answerFormat), request.answerFormat, false};
}

Response getDrlcOverride(const Handlers &handlers, const Request &request) {
    int level = -1;
    int overrideState = -1;
    const int result = handlers.getDrlcOverride.load()(&level, &overrideState);
    return respond(request, result, {{"level", level}, {"override", overrideState}});
}

Response getDefrostReservations(const Handlers &handlers, const Request &request) {
    std::array<KestDefrostReservation, kReservationRoom> entries{};
    int count = 0;
    const int result = handlers.getDefrostReservations.load()(entries.data(), &count);
    ordered_json list = ordered_json::array();
    for (int i = 0; i < std::clamp(count, 0, kReservationRoom); ++i)
        list.push_back(reservationMembers(entries[static_cast<std::size_t>(i)]));
    return respond(request, result, {{"reservations", list}});
}

Response createDefrostReservations(const Handlers &handlers, Request &request) {
    // The handler writes the id no further than the text that is there already.
    std::array<char, sizeof(KestDefrostReservation::id)> text{};
    std::fill(text.begin(), text.end() - 1, '0');
    int error = 0;
    const int result =
        handlers.createDefrostReservations.load()(&request.reservation, text.data(), &error);
    if (result == 0)
        return refused(request, error);
    return respond(request, result, {{"id", reservationMembers(request.reservation)["id"]}});
}

Response getDelayDefrost(const Handlers &handlers, const Request &request) {
    int enabled = -1;
    const int result = handlers.getDelayDefrost.load()(&enabled);
    return respond(request, result, {{"enabled", enabled}});
}

Response getDefrostBlock(const Handlers &handlers, const Request &request) {
    int block = -1;
    const int result = handlers.getDefrostBlock.load()(&block);
    return respond(request, result, {{"block", block}});
}

Response getEnergyConsumption(const Handlers &handlers, const Request &request) {
    std::array<char, kConsumptionSize> cumulative{};
    std::array<char, kConsumptionSize> monthly{};
    const int result = handlers.getEnergyConsumption.load()(cumulative.data(), monthly.data());
    const auto textOf = [](const auto &buffer) {
        return cleaned({buffer.data(), strnlen(buffer.data(), buffer.size())});
    };
    return respond(request, result,
                   {{"cumulative", textOf(cumulative)}, {"monthly", textOf(monthly)}});
}

} // namespace

bool isInstalled(const Handlers &handlers, CommandId id) {
    switch (id) {
    case CommandId::GetDRLCOverride:
        return handlers.getDrlcOverride != nullptr;
    case CommandId::ControlOverride:
        return handlers.controlOverride != nullptr;
    case CommandId::ControlDRLC:
        return handlers.controlDrlc != nullptr;
    case CommandId::GetDefrostReservations:
        return handlers.getDefrostReservations != nullptr;
    case CommandId::CreateDefrostReservations:
        return handlers.createDefrostReservations != nullptr;
    case CommandId::SetDefrostReservations:
        return handlers.setDefrostReservations != nullptr;
    case CommandId::DelDefrostReservations:
        return handlers.delDefrostReservations != nullptr;
    case CommandId::GetDelayDefrost:
        return handlers.getDelayDefrost != nullptr;
    case CommandId::SetDelayDefrost:
        return handlers.setDelayDefrost != nullptr;
    case CommandId::GetDefrostBlock:
        return handlers.getDefrostBlock != nullptr;
    case CommandId::GetEnergyConsumption:
        return handlers.getEnergyConsumption != nullptr;
    default:
        return false;
    }
}

Response callHandler(const Handlers &handlers, Request &request) {
    switch (request.id) {
    case CommandId::GetDRLCOverride:
        return getDrlcOverride(handlers, request);
    case CommandId::ControlOverride:
        return respond(request, handlers.controlOverride.load()(request.value));
    case CommandId::ControlDRLC:
        return respond(request, handlers.controlDrlc.load()(&request.drlc));
    case CommandId::GetDefrostReservations:
        return getDefrostReservations(handlers, request);
    case CommandId::CreateDefrostReservations:
        return createDefrostReservations(handlers, request);
    case CommandId::SetDefrostReservations:
        return respond(request, handlers.setDefrostReservations.load()(&request.reservation));
    case CommandId::DelDefrostReservations:
        return respond(request, handlers.delDefrostReservations.load()(
                                    nullptr, request.reservationId.c_str()));
    case CommandId::GetDelayDefrost:
        return getDelayDefrost(handlers, request);
    case CommandId::SetDelayDefrost:
        return respond(request, handlers.setDelayDefrost.load()(request.value));
    case CommandId::GetDefrostBlock:
        return getDefrostBlock(handlers, request);
    case CommandId::GetEnergyConsumption:
        return getEnergyConsumption(handlers, request);
    default:
        return refused(request, 0);
    }
}

} // namespace corvane::platform
