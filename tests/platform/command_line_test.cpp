/*
 * What the service says to arguments.
 */
#include "command_line.h"

#include <gmock/gmock.h>

#include <vector>

using corvane::platform::answerCommandLine;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

struct Answer {
    std::optional<int> status;
    std::string output;
    std::string error;
};

Answer answerTo(std::vector<std::string> arguments) {
    std::vector<char *> argv{const_cast<char *>("corvane")};
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Answer answer;
    answer.status = answerCommandLine(static_cast<int>(argv.size()), argv.data());
    answer.output = testing::internal::GetCapturedStdout();
    answer.error = testing::internal::GetCapturedStderr();
    return answer;
}

} // namespace

TEST(CommandLine, WithoutArgumentsTheServiceRuns) {
    const Answer answer = answerTo({});
    EXPECT_EQ(answer.status, std::nullopt);
    EXPECT_THAT(answer.output + answer.error, IsEmpty());
}

TEST(CommandLine, HelpTellsTheEnvironmentAndEndsWithZero) {
    for (const char *argument : {"--help", "-h"}) {
        const Answer answer = answerTo({argument});
        EXPECT_EQ(answer.status, 0);
        EXPECT_THAT(answer.output, StartsWith("Usage: corvane\n"));
        for (const char *variable : {"CORVANE_STATE_DIR", "CORVANE_RUNTIME_DIR",
                                     "CORVANE_COAP_LISTEN", "CORVANE_COAP_PSK_FILE"})
            EXPECT_THAT(answer.output, HasSubstr(variable));
        EXPECT_THAT(answer.error, IsEmpty());
    }
}

TEST(CommandLine, VersionIsOneLine) {
    const Answer answer = answerTo({"--version"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.output, testing::MatchesRegex("corvane [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(CommandLine, AnythingElseIsOneLineAndStatusTwo) {
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"--verbose"}, {"run"}, {"--help", "me"}, {""}, {"a\nb"}}) {
        const Answer answer = answerTo(arguments);
        EXPECT_EQ(answer.status, 2);
        EXPECT_THAT(answer.output, IsEmpty());
        EXPECT_THAT(answer.error, StartsWith("corvane: "));
        EXPECT_EQ(answer.error.find('\n'), answer.error.size() - 1);
    }
}
