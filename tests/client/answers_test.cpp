/* What a person reads when the service says no. */
#include "answers.h"

#include "errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane::client {
namespace {

using testing::HasSubstr;
using testing::Not;

const Endpoint kEndpoint{false, "127.0.0.1", 5683, "KestProxyTest"};

std::string sentence(int code, const std::string &payload, const std::string &resource) {
    return sentenceFor({code, payload, 5}, resource, kEndpoint);
}

TEST(Answers, FullPlacesSayWhichCommandMakesRoom) {
    const std::string text =
        sentence(409, R"({"result":0,"error":507})", "CreateDefrostReservations");
    EXPECT_EQ(text,
              "all reservation places are taken; remove one with: corvanectl defrost remove ID");
}

TEST(Answers, RefusalWithoutANumberHasTheSentenceOfItsCommand) {
    EXPECT_THAT(sentence(409, R"({"result":0})", "CreateDefrostReservations"),
                HasSubstr("did not store the reservation"));
    EXPECT_THAT(sentence(409, R"({"result":0})", "GetDRLCOverride"),
                HasSubstr("refused GetDRLCOverride"));
    EXPECT_THAT(sentence(409, "not json", "ControlOverride"), HasSubstr("refused ControlOverride"));
}

TEST(Answers, ServiceThatCannotAnswerNowSaysWhyAndWhenToRetry) {
    EXPECT_EQ(sentence(503, "too many requests wait", "ControlDRLC"),
              "the service cannot answer now: too many requests wait; retry in 5 s");
    EXPECT_EQ(sentence(503, "", "ControlDRLC"), "the service cannot answer now; retry in 5 s");
}

TEST(Answers, RejectedRequestQuotesTheReasonOnOneLine) {
    const std::string text = sentence(400, "level \"9\":\nexpected 0-4\033[31m", "ControlDRLC");
    EXPECT_THAT(text, HasSubstr("level \"9\":?expected 0-4?[31m"));
    EXPECT_THAT(text, Not(HasSubstr("\n")));
}

TEST(Answers, UnknownResourceNamesAddressAndName) {
    EXPECT_THAT(sentence(404, "", "ControlDRLC"),
                HasSubstr("there is no KestProxyTest/ControlDRLC at 127.0.0.1:5683"));
}

TEST(Answers, OtherCodesAreShownWithTheirPoint) {
    EXPECT_THAT(sentence(415, "", "ControlDRLC"), HasSubstr("unexpected answer 4.15"));
    EXPECT_THAT(sentence(500, "boom", "ControlDRLC"), HasSubstr("5.00"));
}

TEST(Answers, GoodAnswerIsItsObjectAndAnyOtherFails) {
    EXPECT_EQ(goodAnswer({204, R"({"result":1,"id":"2"})", 60}, "X", kEndpoint)["id"], "2");
    EXPECT_THROW(goodAnswer({409, "", 60}, "X", kEndpoint), CommandFailed);
}

TEST(Answers, MemberOfAnotherTypeFailsInsteadOfBeingGuessed) {
    const auto answer = nlohmann::json::parse(R"({"level":"two"})");
    EXPECT_THROW(member<int>(answer, "level", "X"), CommandFailed);
    EXPECT_THROW(member<int>(answer, "override", "X"), CommandFailed);
    EXPECT_EQ(member<std::string>(answer, "level", "X"), "two");
}

TEST(Answers, PrintableTextHasNoControlsAndIsCutBetweenCharacters) {
    EXPECT_EQ(printable("a\tb\x7f", 10), "a?b?");
    EXPECT_EQ(printable("äöü", 3), "äöü");
    EXPECT_EQ(printable("äöü", 2), "äö...");
}

} // namespace
} // namespace corvane::client
