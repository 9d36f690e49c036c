/* The command line. */
#include "options.h"

#include <gmock/gmock.h>

namespace corvane::appliance {
namespace {

TEST(ApplianceOptions, HaveTheirDefaults) {
    const Options options = readOptions({});
    EXPECT_EQ(options.listen.text(), "127.0.0.1:8080");
    EXPECT_EQ(options.meteringPort, 7777);
    EXPECT_EQ(options.speed, 0);
}

TEST(ApplianceOptions, AreRead) {
    const Options options =
        readOptions({"--listen", "[::1]:9000", "--metering-port", "0", "--speed", "600", "--at",
                     "2026-07-31T14:50", "--zone=Europe/Berlin", "--seed", "7", "--url",
                     "coap://192.0.2.7:5690/Name"});
    EXPECT_EQ(options.listen.port, 9000);
    EXPECT_EQ(options.meteringPort, 0);
    EXPECT_EQ(options.speed, 600);
    EXPECT_EQ(options.zone, "Europe/Berlin");
    EXPECT_EQ(options.seed, 7U);
    EXPECT_EQ(options.service.proxyName, "Name");
}

TEST(ApplianceOptions, AddressBeyondLoopbackNeedsAPassword) {
    EXPECT_THROW(readOptions({"--listen", "0.0.0.0:8080"}), Exit);
    EXPECT_EQ(readOptions({"--listen", "0.0.0.0:8080", "--password-file", "f"}).passwordFile, "f");
}

TEST(ApplianceOptions, WrongUsageIsOneLineWithStatusTwo) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--speed", "601"},
                                               {"--speed", "fast"},
                                               {"--at", "2026-07-31T14:50"},
                                               {"--listen", "x"},
                                               {"--none"},
                                               {"extra"},
                                               {"--url", "coaps://127.0.0.1"}}) {
        try {
            readOptions(arguments);
            ADD_FAILURE() << arguments.front() << " was taken";
        } catch (const Exit &exit) {
            EXPECT_EQ(exit.status, 2);
            EXPECT_THAT(exit.text, testing::EndsWith("--help\n"));
            EXPECT_EQ(std::count(exit.text.begin(), exit.text.end(), '\n'), 1);
        }
    }
}

TEST(ApplianceOptions, HelpHasExamplesAndStatusZero) {
    try {
        readOptions({"--help"});
        FAIL();
    } catch (const Exit &exit) {
        EXPECT_EQ(exit.status, 0);
        EXPECT_THAT(exit.text, testing::HasSubstr("corvane-appliance --speed 60"));
    }
}

} // namespace
} // namespace corvane::appliance
