// Feeds arbitrary bodies to the check of requests: the first byte chooses the command, the second
// the format, the rest is the body. What is accepted must be fit for a handler.
#include "proxy/wire.h"
#include "text.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

using namespace corvane::platform;

namespace {

void require(bool condition) {
    if (!condition)
        std::abort();
}

template <std::size_t size>
void requireTerminated(const char (&member)[size]) {
    require(std::memchr(member, 0, size) != nullptr);
}

void checkRequest(const Request &request) {
    requireTerminated(request.drlc.drlcLevel);
    requireTerminated(request.drlc.duration);
    requireTerminated(request.drlc.drlcStartTime);
    requireTerminated(request.reservation.startTime);
    requireTerminated(request.reservation.endTime);
    requireTerminated(request.reservation.period);
    require(request.value >= 0 && request.value <= 4);
    if (request.id == CommandId::ControlDRLC)
        require(std::strlen(request.drlc.drlcLevel) == 1);
    if (request.id == CommandId::DelDefrostReservations)
        require(request.reservationId == "2" || request.reservationId == "3");
}

void checkRefusal(const Response &refusal) {
    require(refusal.code >= 400 && refusal.code < 500);
    require(!refusal.body.empty() && refusal.body.size() <= kMaxBodySize);
    require(cleaned(refusal.body) == refusal.body);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2)
        return 0;
    Message message;
    message.command = &allCommands()[data[0] % kCommandCount];
    message.method = Method::Post;
    message.contentFormat = data[1] % 2 == 0 ? 50 : 60;
    message.body = {reinterpret_cast<const char *>(data) + 2, size - 2};
    const auto result = readMessage(message);
    if (const auto *refusal = std::get_if<Response>(&result))
        checkRefusal(*refusal);
    else
        checkRequest(std::get<Request>(result));
    return 0;
}
