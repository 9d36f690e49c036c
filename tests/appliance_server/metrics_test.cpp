/* The text for Prometheus. */
#include "metrics.h"

#include <gmock/gmock.h>

#include <sstream>

namespace corvane::appliance {
namespace {

using testing::HasSubstr;
using testing::Not;

nlohmann::ordered_json state() {
    return {{"speed", 60},
            {"service", {{"reachable", true}}},
            {"refrigerator", {{"powerWatt", 61.5}, {"fridgeCelsius", 4.0}}},
            {"demandResponse", {{"event", nullptr}, {"block", nullptr}}},
            {"faults", {{{"name", "micomSilent"}, {"on", true}}}}};
}

TEST(Metrics, TellWhatIsKnownAndLeaveOutTheRest) {
    const std::string text = metricsText(state(), 3, false);
    EXPECT_THAT(text, HasSubstr("\ncorvane_power_watts 61.5\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvane_temperature_celsius{place=\"fridge\"} 4.0\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvane_service_up 1\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvane_fault_on{fault=\"micomSilent\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvane_streams_open 3\n"));
    EXPECT_THAT(text, Not(HasSubstr("\ncorvane_service_block ")));
    EXPECT_THAT(text, Not(HasSubstr("null")));
}

TEST(Metrics, EachNameHasOneHeadBeforeItsFigures) {
    std::istringstream lines(metricsText(state(), 0, true));
    std::set<std::string> heads;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# TYPE ")) {
            EXPECT_TRUE(heads.insert(line.substr(7, line.find(' ', 7) - 7)).second) << line;
        } else if (!line.starts_with("#")) {
            EXPECT_TRUE(heads.contains(line.substr(0, line.find_first_of(" {")))) << line;
        }
    }
    EXPECT_TRUE(heads.contains("corvane_history_failing"));
}

} // namespace
} // namespace corvane::appliance
