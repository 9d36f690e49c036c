// The check of requests and the forms of answers: each rule with the exact reason that a refused
// client reads.
#include "proxy/handlers.h"
#include "proxy/wire.h"
#include "text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>

using namespace corvane::platform;
using nlohmann::json;

namespace {

Message post(CommandId id, std::string_view body) {
    Message message;
    message.command = &commandOf(id);
    message.method = Method::Post;
    message.body = body;
    return message;
}

std::variant<Request, Response> read(CommandId id, std::string_view body) {
    return readMessage(post(id, body));
}

// The reason of a refusal with 4.00; "accepted" when there is none.
std::string reasonFor(CommandId id, std::string_view body) {
    const auto result = read(id, body);
    const auto *refusal = std::get_if<Response>(&result);
    if (refusal == nullptr)
        return "accepted";
    EXPECT_EQ(refusal->code, 400);
    EXPECT_FALSE(refusal->format.has_value());
    EXPECT_EQ(refusal->body.find('\n'), std::string::npos);
    return refusal->body;
}

std::string cborOf(const json &object) {
    std::string bytes;
    json::to_cbor(object, bytes);
    return bytes;
}

std::string cborReasonFor(CommandId id, std::string_view body) {
    Message message = post(id, body);
    message.contentFormat = 60;
    const auto result = readMessage(message);
    const auto *refusal = std::get_if<Response>(&result);
    return refusal == nullptr ? "accepted" : refusal->body;
}

Request accepted(CommandId id, std::string_view body) {
    const auto result = read(id, body);
    if (const auto *refusal = std::get_if<Response>(&result)) {
        ADD_FAILURE() << refusal->body;
        return {};
    }
    return std::get<Request>(result);
}

std::string reservation(std::string_view start, std::string_view end, std::string_view period,
                        std::string_view description = "x") {
    return json{
        {"startTime", start}, {"endTime", end}, {"period", period}, {"description", description}}
        .dump();
}

constexpr const char *kLevelExpected = "expected a whole number from 0 to 4";
constexpr const char *kDurationExpected = "expected a text hh:mm:ss from 00:00:01 to 23:59:59";
constexpr const char *kStartExpected = "expected a text hh:mm:ss from 00:00:00 to 23:59:59";
constexpr const char *kDayExpected =
    "expected a text 0000-MM-DDThh:mm:ss with a month, day and time that exist";
constexpr const char *kDescriptionExpected =
    "expected a text of at most 30 bytes of printable UTF-8 without quotes and backslashes";

} // namespace

TEST(WireCommands, AreFoundByTheirNames) {
    ASSERT_EQ(allCommands().size(), kCommandCount);
    for (const Command &command : allCommands())
        EXPECT_EQ(findCommand(command.name), &command);
    EXPECT_EQ(findCommand("controlDRLC"), nullptr);
    EXPECT_EQ(findCommand(""), nullptr);
}

// ---- what is accepted -------------------------------------------------------------------------

TEST(WireRequest, EventFillsTheThreeTexts) {
    const auto request =
        accepted(CommandId::ControlDRLC, R"({"level":4,"duration":"23:59:59","start":"00:00:00"})");
    EXPECT_STREQ(request.drlc.drlcLevel, "4");
    EXPECT_STREQ(request.drlc.duration, "23:59:59");
    EXPECT_STREQ(request.drlc.drlcStartTime, "00:00:00");
}

TEST(WireRequest, AbsentDurationAndStartArePassedAsNull) {
    const auto request = accepted(CommandId::ControlDRLC, R"({"level":0})");
    EXPECT_STREQ(request.drlc.drlcLevel, "0");
    EXPECT_STREQ(request.drlc.duration, "null");
    EXPECT_STREQ(request.drlc.drlcStartTime, "null");
}

TEST(WireRequest, FlagsArePassedAsNumbers) {
    EXPECT_EQ(accepted(CommandId::ControlOverride, R"({"override":1})").value, 1);
    EXPECT_EQ(accepted(CommandId::ControlOverride, R"({"override":0})").value, 0);
    EXPECT_EQ(accepted(CommandId::SetDelayDefrost, R"({"enabled":1})").value, 1);
}

TEST(WireRequest, ReservationFillsTheEntryAndLeavesTheIdEmpty) {
    const auto request =
        accepted(CommandId::CreateDefrostReservations,
                 reservation("0000-02-29T00:00:00", "0000-12-31T23:59:59", "00:00:01", "Grüße"));
    EXPECT_STREQ(request.reservation.id, "");
    EXPECT_STREQ(request.reservation.startTime, "0000-02-29T00:00:00");
    EXPECT_STREQ(request.reservation.endTime, "0000-12-31T23:59:59");
    EXPECT_STREQ(request.reservation.period, "00:00:01");
    EXPECT_STREQ(request.reservation.description, "Grüße");
}

TEST(WireRequest, DescriptionMayBeAbsentOrEmpty) {
    const std::string body =
        R"({"startTime":"0000-01-01T00:00:00","endTime":"0000-01-01T00:00:00","period":"01:00:00")";
    EXPECT_STREQ(accepted(CommandId::SetDefrostReservations, body + "}").reservation.description,
                 "");
    EXPECT_STREQ(accepted(CommandId::SetDefrostReservations, body + R"(,"description":""})")
                     .reservation.description,
                 "");
}

TEST(WireRequest, DescriptionOfThirtyBytesFillsItsFieldWithoutTerminator) {
    const std::string thirty(30, 'd');
    const auto request =
        accepted(CommandId::CreateDefrostReservations,
                 reservation("0000-01-01T00:00:00", "0000-01-01T00:00:00", "01:00:00", thirty));
    EXPECT_EQ(std::string(request.reservation.description, 30), thirty);
}

TEST(WireRequest, IdsOfRemoteReservationsAreTaken) {
    EXPECT_EQ(accepted(CommandId::DelDefrostReservations, R"({"id":"2"})").reservationId, "2");
    EXPECT_EQ(accepted(CommandId::DelDefrostReservations, R"({"id":"3"})").reservationId, "3");
}

TEST(WireRequest, GettersTakeNoBodyOrAnEmptyObject) {
    for (const Command &command : allCommands()) {
        if (command.kind != CommandKind::Request || !command.isReadable)
            continue;
        EXPECT_EQ(reasonFor(command.id, ""), "accepted") << command.name;
        EXPECT_EQ(reasonFor(command.id, " {} "), "accepted") << command.name;
        EXPECT_EQ(reasonFor(command.id, R"({"x":1})"),
                  R"(member "x": unknown, expected no members)")
            << command.name;
    }
}

TEST(WireRequest, CborSaysTheSameAsJson) {
    Message message = post(CommandId::ControlDRLC, {});
    const std::string body = cborOf({{"level", 3}, {"duration", "01:30:00"}});
    message.body = body;
    message.contentFormat = 60;
    message.accept = 60;
    const auto request = std::get<Request>(readMessage(message));
    EXPECT_STREQ(request.drlc.drlcLevel, "3");
    EXPECT_STREQ(request.drlc.duration, "01:30:00");
    EXPECT_EQ(request.answerFormat, Format::Cbor);
}

TEST(WireRequest, CodeOfSuccessFollowsTheMethod) {
    Message message = post(CommandId::GetDefrostBlock, "");
    EXPECT_EQ(std::get<Request>(readMessage(message)).successCode, 204);
    message.method = Method::Get;
    EXPECT_EQ(std::get<Request>(readMessage(message)).successCode, 205);
}

// ---- what is refused --------------------------------------------------------------------------

TEST(WireRefusal, LevelOutsideItsRangeOrTypeIsNamed) {
    const auto reason = [](const char *value) {
        return reasonFor(CommandId::ControlDRLC, std::string(R"({"level":)") + value + "}");
    };
    const auto expected = [](const char *got) {
        return std::string("level: got ") + got + ", " + kLevelExpected;
    };
    EXPECT_EQ(reason("5"), expected("\"5\""));
    EXPECT_EQ(reason("-1"), expected("\"-1\""));
    EXPECT_EQ(reason("4294967296"), expected("\"4294967296\""));
    EXPECT_EQ(reason("18446744073709551615"), expected("\"18446744073709551615\""));
    EXPECT_EQ(reason("99999999999999999999"), expected("\"99999999999999999999\""));
    EXPECT_EQ(reason("2.0"), expected("\"2.0\""));
    EXPECT_EQ(reason("2e0"), expected("\"2e0\""));
    EXPECT_EQ(reason("\"2\""), expected("the text \"2\""));
    EXPECT_EQ(reason("true"), expected("\"true\""));
    EXPECT_EQ(reason("false"), expected("\"false\""));
    EXPECT_EQ(reason("null"), expected("\"null\""));
    EXPECT_EQ(reason("[2]"), expected("an array"));
    EXPECT_EQ(reason("{}"), expected("an object"));
}

TEST(WireRefusal, FlagsAreNumbersAndNotTruthValues) {
    for (const char *value : {"2", "-1"})
        EXPECT_EQ(
            reasonFor(CommandId::ControlOverride, std::string(R"({"override":)") + value + "}"),
            std::string("override: got \"") + value + "\", expected the number 0 or 1");
    EXPECT_EQ(reasonFor(CommandId::SetDelayDefrost, R"({"enabled":true})"),
              "enabled: got \"true\", expected the number 0 or 1");
}

TEST(WireRefusal, DurationsAreFromOneSecondToOneSecondBeforeADay) {
    for (const char *value : {"00:00:00", "24:00:00", "23:60:00", "23:59:60", "1:00:00", "01:00",
                              "01-00-00", "01:00:000", "0a:00:00", "", "null", " 1:00:00"})
        EXPECT_EQ(reasonFor(CommandId::ControlDRLC, json{{"level", 1}, {"duration", value}}.dump()),
                  "duration: got the text \"" + std::string(value) + "\", " + kDurationExpected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"duration":3600})"),
              std::string("duration: got \"3600\", ") + kDurationExpected);
    EXPECT_EQ(reasonFor(CommandId::CreateDefrostReservations,
                        reservation("0000-01-01T00:00:00", "0000-01-01T00:00:00", "00:00:00")),
              std::string("period: got the text \"00:00:00\", ") + kDurationExpected);
}

TEST(WireRefusal, StartIsATimeOfDay) {
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"start":"00:00:00"})"), "accepted");
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"start":"23:59:59"})"), "accepted");
    for (const char *value : {"24:00:00", "12:60:00", "12:00:60", "2026-11-21T12:00:00", "12:00"})
        EXPECT_EQ(reasonFor(CommandId::ControlDRLC, json{{"level", 1}, {"start", value}}.dump()),
                  "start: got the text \"" + std::string(value) + "\", " + kStartExpected);
}

TEST(WireRefusal, SeasonDaysMustExist) {
    for (const char *value :
         {"0000-13-01T00:00:00", "0000-00-01T00:00:00", "0000-01-00T00:00:00",
          "0000-01-32T00:00:00", "0000-02-30T00:00:00", "0000-04-31T00:00:00",
          "0000-06-31T00:00:00", "0000-09-31T00:00:00", "0000-11-31T00:00:00",
          "0000-01-01T24:00:00", "0000-01-01 00:00:00", "2026-01-01T00:00:00",
          "0000-1-01T00:00:000", "0000-01-01T00:00", "0000-01-01T00:00:00Z", ""}) {
        const std::string got = "got the text \"" + std::string(value) + "\", " + kDayExpected;
        EXPECT_EQ(reasonFor(CommandId::CreateDefrostReservations,
                            reservation(value, "0000-01-01T00:00:00", "01:00:00")),
                  // The object's members arrive in the order of their names.
                  "startTime: " + got);
        EXPECT_EQ(reasonFor(CommandId::SetDefrostReservations,
                            reservation("0000-01-01T00:00:00", value, "01:00:00")),
                  "endTime: " + got);
    }
    for (const char *value : {"0000-01-31T00:00:00", "0000-02-29T23:59:59", "0000-03-31T00:00:00",
                              "0000-04-30T00:00:00", "0000-12-31T00:00:00"})
        EXPECT_EQ(
            reasonFor(CommandId::CreateDefrostReservations, reservation(value, value, "01:00:00")),
            "accepted");
}

TEST(WireRefusal, DescriptionsThatCouldBreakATextAreRefused) {
    const auto reason = [](std::string_view description) {
        return reasonFor(
            CommandId::CreateDefrostReservations,
            reservation("0000-01-01T00:00:00", "0000-01-01T00:00:00", "01:00:00", description));
    };
    const auto expected = [](const char *shown) {
        return std::string("description: got the text \"") + shown + "\", " + kDescriptionExpected;
    };
    EXPECT_EQ(reason("it's"), expected("it's"));
    EXPECT_EQ(reason("a\"b"), expected("a\\\"b"));
    EXPECT_EQ(reason("a`b"), expected("a`b"));
    EXPECT_EQ(reason("a\\b"), expected("a\\\\b"));
    EXPECT_EQ(reason("a\nb"), expected("a\\u000ab"));
    EXPECT_EQ(reason("a\x7f"), expected("a\\u007f"));
    EXPECT_EQ(reason("a\xC2\x85"), expected("a\\u0085"));
    EXPECT_EQ(reason("\xE2\x80\xAEtxt"), expected("\\u202etxt"));
    EXPECT_EQ(reason("\xE2\x80\xA8"), expected("\\u2028"));
    EXPECT_EQ(reason(std::string("a\0b", 3)), expected("a\\u0000b"));
    EXPECT_EQ(reason(std::string(31, 'x')), expected(std::string(31, 'x').c_str()));
    EXPECT_EQ(reason("日本語の説明です。"), "accepted");
    EXPECT_EQ(reason("a%s;--b"), "accepted");
}

TEST(WireRefusal, CborTextsMustBeUtf8) {
    const std::string body = "\xA4\x69startTime\x73"
                             "0000-01-01T00:00:00\x67"
                             "endTime\x73"
                             "0000-01-01T00:00:00\x66period\x68"
                             "01:00:00\x6B"
                             "description\x62\xC3\x28";
    EXPECT_EQ(cborReasonFor(CommandId::CreateDefrostReservations, body),
              std::string("description: got the text \"\\xc3(\", ") + kDescriptionExpected);
}

TEST(WireRefusal, OnlyRemoteReservationsCanBeDeleted) {
    for (const char *value : {"0", "1", "4", "02", "2 ", "", "2 OR 1=1"})
        EXPECT_EQ(reasonFor(CommandId::DelDefrostReservations, json{{"id", value}}.dump()),
                  "id: got the text \"" + std::string(value) +
                      "\", expected the text \"2\" or \"3\"");
    EXPECT_EQ(reasonFor(CommandId::DelDefrostReservations, R"({"id":2})"),
              "id: got \"2\", expected the text \"2\" or \"3\"");
}

TEST(WireRefusal, MissingMembersAreNamedInTheOrderOfTheTable) {
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"duration":"01:00:00"})"),
              std::string("level: missing, ") + kLevelExpected);
    EXPECT_EQ(reasonFor(CommandId::CreateDefrostReservations, "{}"),
              std::string("startTime: missing, ") + kDayExpected);
    EXPECT_EQ(reasonFor(CommandId::CreateDefrostReservations,
                        R"({"startTime":"0000-01-01T00:00:00","period":"01:00:00"})"),
              std::string("endTime: missing, ") + kDayExpected);
    EXPECT_EQ(reasonFor(CommandId::ControlOverride, "{}"),
              "override: missing, expected the number 0 or 1");
}

TEST(WireRefusal, UnknownAndRepeatedMembersAreNamed) {
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"colour":"red"})"),
              R"(member "colour": unknown, expected level, duration and start)");
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"Level":1})"),
              R"(member "Level": unknown, expected level, duration and start)");
    EXPECT_EQ(reasonFor(CommandId::ControlOverride, R"({"":1})"),
              R"(member "": unknown, expected override)");
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"level":2})"),
              "level: given twice, expected once");
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1,"l\u0065vel":1})"),
              "level: given twice, expected once");
}

TEST(WireRefusal, BodiesThatAreNoObjectAreRefused) {
    const std::string expected = "expected an object with level, duration and start";
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, "[]"), "body: got an array, " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, "7"), "body: got \"7\", " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, "\"x\""), "body: got the text \"x\", " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, "null"), "body: got \"null\", " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, ""), "body: not JSON from byte 1 on, " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1)"),
              "body: not JSON from byte 11 on, " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":1} x)"),
              "body: not JSON from byte 13 on, " + expected);
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, "{\"level\":\"\xff\"}"),
              "body: not JSON from byte 11 on, " + expected);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, "{\"level\":1}").rfind("body: not CBOR", 0),
              0u);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, "").rfind("body: not CBOR", 0), 0u);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, cborOf({{"level", 1}}) + "\x01")
                  .rfind("body: not CBOR", 0),
              0u);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, "\xA1\x65level\x41\x01"),
              std::string("level: got a byte string, ") + kLevelExpected);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, std::string("\xA1\x65level\xF9\x40\x00", 10)),
              std::string("level: got \"2.0\", ") + kLevelExpected);
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, "\xA1\x65level\x20"),
              std::string("level: got \"-1\", ") + kLevelExpected);
}

TEST(WireRefusal, NestingEndsAtTheFirstInnerValue) {
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, R"({"level":)" + std::string(1000, '[')),
              std::string("level: got an array, ") + kLevelExpected);
    const std::string arrays = "\xA1\x65level" + std::string(1000, '\x81');
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, arrays),
              std::string("level: got an array, ") + kLevelExpected);
    const std::string chunks = "\xA1\x65level" + std::string(1000, '\x7F');
    EXPECT_EQ(cborReasonFor(CommandId::ControlDRLC, chunks).rfind("body: not CBOR", 0), 0u);
}

TEST(WireRefusal, LongAndNestedBodiesNeverReachTheReader) {
    for (const char opener : {'\x81', '\x7F', '\xBF', '\xC1', '['}) {
        Message message = post(CommandId::ControlDRLC, {});
        const std::string body(100'000, opener);
        message.body = body;
        message.contentFormat = opener == '[' ? 50 : 60;
        const auto result = readMessage(message);
        EXPECT_EQ(std::get<Response>(result).code, 413);
    }
}

TEST(WireRefusal, ValuesAreCutAtFortyCharacters) {
    const std::string wide = "ü";
    std::string forty;
    for (int i = 0; i < 40; ++i)
        forty += wide;
    EXPECT_EQ(
        reasonFor(CommandId::DelDefrostReservations, json{{"id", forty + wide + wide}}.dump()),
        "id: got the text \"" + forty + "...\", expected the text \"2\" or \"3\"");
    EXPECT_EQ(reasonFor(CommandId::DelDefrostReservations, json{{"id", forty}}.dump()),
              "id: got the text \"" + forty + "\", expected the text \"2\" or \"3\"");
    EXPECT_EQ(reasonFor(CommandId::ControlOverride, json{{std::string(41, 'n') + "\n", 1}}.dump()),
              "member \"" + std::string(40, 'n') + "...\": unknown, expected override");
}

// ---- options ----------------------------------------------------------------------------------

TEST(WireOptions, BodyOfMoreThan1024BytesOrInBlocksIsTooLarge) {
    const std::string good = R"({"level":1})";
    std::string body = good + std::string(1024 - good.size(), ' ');
    EXPECT_EQ(reasonFor(CommandId::ControlDRLC, body), "accepted");
    body += ' ';
    auto result = read(CommandId::ControlDRLC, body);
    EXPECT_EQ(std::get<Response>(result).code, 413);
    EXPECT_EQ(std::get<Response>(result).body, "body: expected at most 1024 bytes in one message");

    Message message = post(CommandId::ControlDRLC, good);
    message.isInBlocks = true;
    result = readMessage(message);
    EXPECT_EQ(std::get<Response>(result).code, 413);
}

TEST(WireOptions, OtherContentFormatsAreUnsupported) {
    Message message = post(CommandId::ControlDRLC, R"({"level":1})");
    message.contentFormat = 0;
    const auto result = readMessage(message);
    EXPECT_EQ(std::get<Response>(result).code, 415);
    EXPECT_EQ(std::get<Response>(result).body,
              "content format: got 0, expected 50 (JSON) or 60 (CBOR)");
}

TEST(WireOptions, OtherAcceptsAreNotAcceptable) {
    Message message = post(CommandId::ControlDRLC, R"({"level":1})");
    message.accept = 41;
    const auto result = readMessage(message);
    EXPECT_EQ(std::get<Response>(result).code, 406);
    EXPECT_EQ(std::get<Response>(result).body, "accept: got 41, expected 50 (JSON) or 60 (CBOR)");
}

TEST(WireOptions, EachResourceHasItsMethods) {
    const auto codeFor = [](const Command &command, Method method) {
        Message message;
        message.command = &command;
        message.method = method;
        const auto result = readMessage(message);
        const auto *refusal = std::get_if<Response>(&result);
        return refusal == nullptr || refusal->code == 400 ? "" : refusal->body;
    };
    for (const Command &command : allCommands()) {
        const std::string name = command.name;
        const bool isGetter = name.rfind("Get", 0) == 0;
        const bool isNotification = name.rfind("Send", 0) == 0;
        const std::string takes = isNotification ? name + " takes GET"
                                  : isGetter     ? name + " takes GET and POST"
                                                 : name + " takes POST";
        EXPECT_EQ(codeFor(command, Method::Other), takes);
        EXPECT_EQ(codeFor(command, Method::Get), isGetter || isNotification ? "" : takes);
        EXPECT_EQ(codeFor(command, Method::Post), isNotification ? takes : "");
    }
}

// ---- texts ------------------------------------------------------------------------------------

TEST(ShownText, IsWellFormedAndOneLine) {
    EXPECT_EQ(inQuotes("a\tb"), "\"a\\u0009b\"");
    EXPECT_EQ(inQuotes("\x80"), "\"\\x80\"");
    EXPECT_EQ(inQuotes("\xC0\x80"), "\"\\xc0\\x80\"");          // overlong
    EXPECT_EQ(inQuotes("\xE0\x80\x80"), "\"\\xe0\\x80\\x80\""); // overlong
    EXPECT_EQ(inQuotes("\xED\xA0\x80"), "\"\\xed\\xa0\\x80\""); // surrogate
    EXPECT_EQ(inQuotes("\xF4\x90\x80\x80"), "\"\\xf4\\x90\\x80\\x80\"");
    EXPECT_EQ(inQuotes("\xE2\x82"), "\"\\xe2\\x82\""); // cut off
    EXPECT_EQ(inQuotes("\xF0\x9F\x98\x80"), "\"\xF0\x9F\x98\x80\"");
}

TEST(CleanedText, IsNeverLongerAndAlwaysUtf8) {
    EXPECT_EQ(cleaned("plain 日本"), "plain 日本");
    EXPECT_EQ(cleaned(std::string("a\0b", 3)), "a?b");
    EXPECT_EQ(cleaned("\xFF\xFE"), "??");
    EXPECT_EQ(cleaned("x\xE2\x80\xAE"), "x?");
}
