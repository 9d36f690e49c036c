// See wire.h. The divisions of this file: the table; the checks of single values; the reader, which
// takes a body apart member by member; the two entrances.
//
// The body is read by events and not into a tree: an object of scalars is all that any command
// takes, so the reader stops at the first nested value, long before nesting could cost stack.
#include "wire.h"

#include "../text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

namespace corvane::platform {

namespace {

// ---- the table --------------------------------------------------------------------------------

constexpr std::array kOverrideFields{Field{"override", FieldKind::Flag, true}};
constexpr std::array kDrlcFields{
    Field{"level", FieldKind::Level, true},
    Field{"duration", FieldKind::Duration, false},
    Field{"start", FieldKind::TimeOfDay, false},
};
constexpr std::array kReservationFields{
    Field{"startTime", FieldKind::SeasonDay, true},
    Field{"endTime", FieldKind::SeasonDay, true},
    Field{"period", FieldKind::Duration, true},
    Field{"description", FieldKind::Description, false},
};
constexpr std::array kIdFields{Field{"id", FieldKind::RemoteId, true}};
constexpr std::array kEnabledFields{Field{"enabled", FieldKind::Flag, true}};

constexpr Command getter(CommandId id, const char *name) {
    return {id, name, CommandKind::Request, true, true, {}};
}

constexpr Command order(CommandId id, const char *name, std::span<const Field> fields) {
    return {id, name, CommandKind::Request, false, true, fields};
}

constexpr Command notification(CommandId id, const char *name) {
    return {id, name, CommandKind::Notification, true, false, {}};
}

constexpr std::array<Command, kCommandCount> kCommands{
    getter(CommandId::GetDRLCOverride, "GetDRLCOverride"),
    order(CommandId::ControlOverride, "ControlOverride", kOverrideFields),
    order(CommandId::ControlDRLC, "ControlDRLC", kDrlcFields),
    getter(CommandId::GetDefrostReservations, "GetDefrostReservations"),
    order(CommandId::CreateDefrostReservations, "CreateDefrostReservations", kReservationFields),
    order(CommandId::SetDefrostReservations, "SetDefrostReservations", kReservationFields),
    order(CommandId::DelDefrostReservations, "DelDefrostReservations", kIdFields),
    getter(CommandId::GetDelayDefrost, "GetDelayDefrost"),
    order(CommandId::SetDelayDefrost, "SetDelayDefrost", kEnabledFields),
    getter(CommandId::GetDefrostBlock, "GetDefrostBlock"),
    getter(CommandId::GetEnergyConsumption, "GetEnergyConsumption"),
    notification(CommandId::SendOverrideNotify, "SendOverrideNotify"),
    notification(CommandId::SendDRLCNotify, "SendDRLCNotify"),
    notification(CommandId::SendDelayDefrostNotify, "SendDelayDefrostNotify"),
    notification(CommandId::SendDefrostBlockNotify, "SendDefrostBlockNotify"),
    notification(CommandId::SendDefrostReservationsNotify, "SendDefrostReservationsNotify"),
};

constexpr bool isInOrderOfIds() {
    for (std::size_t i = 0; i < kCommands.size(); ++i)
        if (static_cast<std::size_t>(kCommands[i].id) != i)
            return false;
    return true;
}
static_assert(isInOrderOfIds());

// ---- single values ----------------------------------------------------------------------------

const char *expectation(FieldKind kind) {
    switch (kind) {
    case FieldKind::Level:
        return "a whole number from 0 to 4";
    case FieldKind::Flag:
        return "the number 0 or 1";
    case FieldKind::Duration:
        return "a text hh:mm:ss from 00:00:01 to 23:59:59";
    case FieldKind::TimeOfDay:
        return "a text hh:mm:ss from 00:00:00 to 23:59:59";
    case FieldKind::SeasonDay:
        return "a text 0000-MM-DDThh:mm:ss with a month, day and time that exist";
    case FieldKind::Description:
        return "a text of at most 30 bytes of printable UTF-8 without quotes and backslashes";
    case FieldKind::RemoteId:
        return "the text \"2\" or \"3\"";
    }
    return "";
}

// Whether the text has the shape of the pattern, in which each 0 stands for any digit.
bool hasShape(std::string_view text, std::string_view pattern) {
    return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                      [](char actual, char wanted) {
                          return wanted == '0' ? actual >= '0' && actual <= '9' : actual == wanted;
                      });
}

int twoDigits(std::string_view text, std::size_t position) {
    return (text[position] - '0') * 10 + (text[position + 1] - '0');
}

bool isTimeOfDay(std::string_view text) {
    return hasShape(text, "00:00:00") && twoDigits(text, 0) < 24 && twoDigits(text, 3) < 60 &&
           twoDigits(text, 6) < 60;
}

bool isDuration(std::string_view text) { return isTimeOfDay(text) && text != "00:00:00"; }

// A day of any year, so that the 29th of February exists.
bool isSeasonDay(std::string_view text) {
    constexpr std::array kDaysOfMonth{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (text.size() != 19 || !text.starts_with("0000-") || text[10] != 'T' ||
        !hasShape(text.substr(5, 5), "00-00") || !isTimeOfDay(text.substr(11)))
        return false;
    const int month = twoDigits(text, 5);
    const int day = twoDigits(text, 8);
    return month >= 1 && month <= 12 && day >= 1 &&
           day <= kDaysOfMonth[static_cast<std::size_t>(month - 1)];
}

bool isDescription(std::string_view text) {
    if (text.size() > sizeof(KestDefrostReservation::description))
        return false;
    for (std::size_t position = 0; position < text.size();) {
        const auto character = nextCharacter(text, position);
        if (!character || !isPrintable(*character) || *character == '"' || *character == '\'' ||
            *character == '`' || *character == '\\')
            return false;
    }
    return true;
}

bool isGoodText(FieldKind kind, std::string_view text) {
    switch (kind) {
    case FieldKind::Duration:
        return isDuration(text);
    case FieldKind::TimeOfDay:
        return isTimeOfDay(text);
    case FieldKind::SeasonDay:
        return isSeasonDay(text);
    case FieldKind::Description:
        return isDescription(text);
    case FieldKind::RemoteId:
        return text == "2" || text == "3";
    case FieldKind::Level:
    case FieldKind::Flag:
        return false;
    }
    return false;
}

bool isGoodNumber(FieldKind kind, std::uint64_t number) {
    return (kind == FieldKind::Level && number <= 4) || (kind == FieldKind::Flag && number <= 1);
}

// Copies a text into a member of fixed size; one that fills the member is not terminated.
template <std::size_t size>
void copyText(char (&member)[size], std::string_view text) {
    std::memset(member, 0, size);
    std::memcpy(member, text.data(), std::min(text.size(), size));
}

// The text in a member of fixed size, terminated or not.
template <std::size_t size>
std::string textOf(const char (&member)[size]) {
    return cleaned({member, strnlen(member, size)});
}

// "level, duration and start", or "no members".
std::string memberList(std::span<const Field> fields) {
    if (fields.empty())
        return "no members";
    std::string list;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0)
            list += i + 1 == fields.size() ? " and " : ", ";
        list += fields[i].name;
    }
    return list;
}

// ---- the reader -------------------------------------------------------------------------------

// Takes the events of the JSON or CBOR reader, checks each and stops at the first that is wrong,
// with the reason in reason(). The signatures are those that the library's readers call.
class BodyReader {
public:
    using number_integer_t = nlohmann::json::number_integer_t;
    using number_unsigned_t = nlohmann::json::number_unsigned_t;
    using number_float_t = nlohmann::json::number_float_t;
    using string_t = nlohmann::json::string_t;
    using binary_t = nlohmann::json::binary_t;

    BodyReader(const Command &command, Format format, Request &request)
        : command_(command), format_(format), request_(request) {}

    const std::string &reason() const { return reason_; }

    bool null() { return refuse("got \"null\""); }
    bool boolean(bool value) { return refuse(value ? "got \"true\"" : "got \"false\""); }
    bool number_integer(number_integer_t value) {
        return value >= 0 ? number_unsigned(static_cast<number_unsigned_t>(value))
                          : refuse("got \"" + std::to_string(value) + '"');
    }
    bool number_unsigned(number_unsigned_t value) {
        if (field_ == nullptr || !isGoodNumber(field_->kind, value))
            return refuse("got \"" + std::to_string(value) + '"');
        store(static_cast<int>(value));
        return true;
    }
    bool number_float(number_float_t value, const string_t &asWritten) {
        return refuse("got " +
                      inQuotes(asWritten.empty() ? nlohmann::json(value).dump() : asWritten));
    }
    bool string(const string_t &value) {
        if (field_ == nullptr || !isGoodText(field_->kind, value))
            return refuse("got the text " + inQuotes(value));
        store(value);
        return true;
    }
    bool binary(const binary_t &) { return refuse("got a byte string"); }

    bool start_array(std::size_t) { return refuse("got an array"); }
    bool end_array() { return true; }

    bool start_object(std::size_t) {
        if (isOpen_)
            return refuse("got an object");
        isOpen_ = true;
        return true;
    }
    bool end_object() {
        for (const Field &field : command_.fields)
            if (field.isRequired && (seen_ & bitOf(field)) == 0)
                return refuseWith(std::string(field.name) + ": missing, expected " +
                                  expectation(field.kind));
        return true;
    }
    bool key(const string_t &name) {
        const auto field = std::find_if(command_.fields.begin(), command_.fields.end(),
                                        [&](const Field &known) { return name == known.name; });
        if (field == command_.fields.end())
            return refuseWith("member " + inQuotes(name) + ": unknown, expected " +
                              memberList(command_.fields));
        if ((seen_ & bitOf(*field)) != 0)
            return refuseWith(name + ": given twice, expected once");
        field_ = &*field;
        seen_ |= bitOf(*field);
        return true;
    }

    bool parse_error(std::size_t position, const std::string &, const nlohmann::json::exception &) {
        return refuseWith("body: not " + std::string(format_ == Format::Json ? "JSON" : "CBOR") +
                          " from byte " + std::to_string(position) +
                          " on, expected an object with " + memberList(command_.fields));
    }

private:
    unsigned bitOf(const Field &field) const {
        return 1u << static_cast<unsigned>(&field - command_.fields.data());
    }

    bool refuse(const std::string &what) {
        if (field_ == nullptr)
            return refuseWith("body: " + what + ", expected an object with " +
                              memberList(command_.fields));
        return refuseWith(std::string(field_->name) + ": " + what + ", expected " +
                          expectation(field_->kind));
    }
    bool refuseWith(std::string reason) {
        reason_ = std::move(reason);
        return false;
    }

    void store(int number) {
        request_.value = number;
        if (field_->kind == FieldKind::Level)
            copyText(request_.drlc.drlcLevel, std::to_string(number));
    }
    void store(const std::string &text) {
        const std::string_view name = field_->name;
        if (name == "duration")
            copyText(request_.drlc.duration, text);
        else if (name == "start")
            copyText(request_.drlc.drlcStartTime, text);
        else if (name == "startTime")
            copyText(request_.reservation.startTime, text);
        else if (name == "endTime")
            copyText(request_.reservation.endTime, text);
        else if (name == "period")
            copyText(request_.reservation.period, text);
        else if (name == "description")
            copyText(request_.reservation.description, text);
        else if (name == "id")
            request_.reservationId = text;
    }

    const Command &command_;
    const Format format_;
    Request &request_;
    std::string reason_;
    const Field *field_ = nullptr; // the member whose value comes next
    unsigned seen_ = 0;            // one bit for each field of the command
    bool isOpen_ = false;
};

// An empty text when the body is good, else the reason why not.
std::string readBody(const Command &command, Format format, std::string_view body,
                     Request &request) {
    if (body.empty() && command.fields.empty())
        return {};
    BodyReader reader(command, format, request);
    const auto inputFormat = format == Format::Json ? nlohmann::detail::input_format_t::json
                                                    : nlohmann::detail::input_format_t::cbor;
    if (nlohmann::json::sax_parse(body.begin(), body.end(), &reader, inputFormat))
        return {};
    return reader.reason();
}

Response refusal(int code, std::string reason) { return {code, std::move(reason), {}, false}; }

std::string allowedMethods(const Command &command) {
    if (!command.isReadable)
        return "POST";
    return command.isWritable ? "GET and POST" : "GET";
}

bool isAllowed(const Command &command, Method method) {
    return (method == Method::Get && command.isReadable) ||
           (method == Method::Post && command.isWritable);
}

} // namespace

// ---- entrances --------------------------------------------------------------------------------

std::span<const Command> allCommands() { return kCommands; }

const Command &commandOf(CommandId id) { return kCommands[static_cast<std::size_t>(id)]; }

const Command *findCommand(std::string_view name) {
    const auto found = std::find_if(kCommands.begin(), kCommands.end(),
                                    [&](const Command &command) { return name == command.name; });
    return found == kCommands.end() ? nullptr : &*found;
}

std::optional<Format> formatFor(std::optional<unsigned> accept) {
    if (!accept || *accept == static_cast<unsigned>(Format::Json))
        return Format::Json;
    if (*accept == static_cast<unsigned>(Format::Cbor))
        return Format::Cbor;
    return std::nullopt;
}

std::variant<Request, Response> readMessage(const Message &message) {
    const Command &command = *message.command;
    if (!isAllowed(command, message.method))
        return refusal(405, std::string(command.name) + " takes " + allowedMethods(command));
    if (message.isInBlocks || message.body.size() > kMaxBodySize)
        return refusal(413, "body: expected at most " + std::to_string(kMaxBodySize) +
                                " bytes in one message");
    const auto bodyFormat = formatFor(message.contentFormat);
    if (!bodyFormat)
        return refusal(415, "content format: got " + std::to_string(*message.contentFormat) +
                                ", expected 50 (JSON) or 60 (CBOR)");
    const auto answerFormat = formatFor(message.accept);
    if (!answerFormat)
        return refusal(406, "accept: got " + std::to_string(*message.accept) +
                                ", expected 50 (JSON) or 60 (CBOR)");

    Request request;
    request.id = command.id;
    request.answerFormat = *answerFormat;
    request.successCode = message.method == Method::Get ? 205 : 204;
    copyText(request.drlc.duration, "null");
    copyText(request.drlc.drlcStartTime, "null");
    std::string reason = readBody(command, *bodyFormat, message.body, request);
    if (!reason.empty())
        return refusal(400, std::move(reason));
    return request;
}

std::string encode(const nlohmann::ordered_json &object, Format format) {
    if (format == Format::Json)
        return object.dump();
    std::string bytes;
    nlohmann::ordered_json::to_cbor(object, bytes);
    return bytes;
}

nlohmann::ordered_json reservationMembers(const KestDefrostReservation &entry) {
    return {{"id", textOf(entry.id)},
            {"description", textOf(entry.description)},
            {"startTime", textOf(entry.startTime)},
            {"endTime", textOf(entry.endTime)},
            {"period", textOf(entry.period)}};
}

} // namespace corvane::platform
