// The wire of the remote proxy without a wire: the table of commands, the check of a request, and
// the forms of an answer. Everything here is a function of its arguments; nothing here knows
// sockets or threads, so that each rule can be tested and fuzzed by itself.
//
// A request is checked completely before it is handed on: what readMessage() lets through has the
// forms, ranges and sizes that the handlers of <ocf_proxy.h> rely on.
#ifndef CORVANE_PLATFORM_LINUX_PROXY_WIRE_H
#define CORVANE_PLATFORM_LINUX_PROXY_WIRE_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <ocf_proxy.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace corvane::platform {

// The longest request body, and the longest value of a notification, in bytes.
constexpr std::size_t kMaxBodySize = 1024;

enum class CommandId {
    GetDRLCOverride,
    ControlOverride,
    ControlDRLC,
    GetDefrostReservations,
    CreateDefrostReservations,
    SetDefrostReservations,
    DelDefrostReservations,
    GetDelayDefrost,
    SetDelayDefrost,
    GetDefrostBlock,
    GetEnergyConsumption,
    SendOverrideNotify,
    SendDRLCNotify,
    SendDelayDefrostNotify,
    SendDefrostBlockNotify,
    SendDefrostReservationsNotify,
};
constexpr std::size_t kCommandCount = 16;

enum class CommandKind { Notification = 0, Request = 1 };

enum class FieldKind { Level, Flag, Duration, TimeOfDay, SeasonDay, Description, RemoteId };

// One member of a request's object.
struct Field {
    const char *name;
    FieldKind kind;
    bool isRequired;
};

struct Command {
    CommandId id;
    const char *name;
    CommandKind kind;
    bool isReadable; // GET is allowed
    bool isWritable; // POST is allowed
    std::span<const Field> fields;
};

// All commands, in the order of CommandId.
std::span<const Command> allCommands();
const Command &commandOf(CommandId id);
// Null when there is no command of that name.
const Command *findCommand(std::string_view name);

// The values are the registered numbers of the content formats.
enum class Format : std::uint16_t { Json = 50, Cbor = 60 };

enum class Method { Get, Post, Other };

// A request as it came: the options that matter, and the body.
struct Message {
    const Command *command = nullptr;
    Method method = Method::Get;
    std::optional<unsigned> contentFormat;
    std::optional<unsigned> accept;
    bool isInBlocks = false; // the body is only a part
    std::string_view body;
};

// A request that passed every check, in the forms that its handler takes. Only what its command
// uses is set.
struct Request {
    CommandId id{};
    Format answerFormat = Format::Json;
    int successCode = 205;
    KestDrlcInfo drlc{};
    KestDefrostReservation reservation{};
    int value = 0;
    std::string reservationId;
};

// What goes back. The code is written as in 4.04 = 404. Without a format the body is a plain
// one-line reason.
struct Response {
    int code = 205;
    std::string body;
    std::optional<Format> format;
    bool isForLater = false; // tells the client to come again, with Max-Age 5
};

// The checked request, or the response that refuses it.
std::variant<Request, Response> readMessage(const Message &message);

// The format that an Accept option asks for (JSON without one); nothing when it is neither.
std::optional<Format> formatFor(std::optional<unsigned> accept);

// The object in the given format. Texts in it are taken to be clean (see cleaned()).
std::string encode(const nlohmann::ordered_json &object, Format format);

// The members of a reservation entry, each read no further than its field.
nlohmann::ordered_json reservationMembers(const KestDefrostReservation &entry);

} // namespace corvane::platform

#endif
