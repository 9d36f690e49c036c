/*
 * Wi-Fi and the display board's power, as the settings tell them.
 */
#include "main_queue.h"
#include "settings.h"

#include "child.h"
#include "recorded_log.h"
#include "temp_folder.h"

#include <device_power.h>
#include <vconf.h>
#include <wifi.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

/* Each test is a process of its own, so that no key of another is there. */
class ReadingsTest : public testing::Test {
protected:
    static void check(const std::function<int()> &work) {
        const Outcome outcome = runInChild([&] {
            const TempFolder folder;
            useFolder(folder);
            return work();
        });
        EXPECT_EQ(0, outcome.status) << outcome.error;
    }
};

/* The line of the first expectation that does not hold, 0 when all do. */
#define REQUIRE_THAT(holds)                                                                        \
    if (!(holds))                                                                                  \
    return __LINE__ % 200 + 1

int activationResult = 99;

void onActivated(wifi_error_e result, void *calls) {
    activationResult = result;
    ++*static_cast<int *>(calls);
}

/* A process that sees no network but its loopback; false where that is not allowed. */
bool leaveNetwork() {
    return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 || unshare(CLONE_NEWNET) == 0;
}

} // namespace

TEST_F(ReadingsTest, PowerIsTheKeysValueAndZeroWithoutIt) {
    check([] {
        REQUIRE_THAT(device_get_power_measurement_value() == 0);
        REQUIRE_THAT(vconf_set_int("memory/board/power", 7300) == 0);
        REQUIRE_THAT(device_get_power_measurement_value() == 7300);
        REQUIRE_THAT(vconf_set_int("memory/board/power", -1) == 0);
        REQUIRE_THAT(device_get_power_measurement_value() == -1);
        REQUIRE_THAT(takeLog().empty());
        REQUIRE_THAT(vconf_set_str("memory/board/power", "much") == 0);
        REQUIRE_THAT(device_get_power_measurement_value() == 0);
        return 0;
    });
}

TEST_F(ReadingsTest, WifiKeysDecideWhenTheyExist) {
    check([] {
        wifi_ap_h accessPoint = nullptr;
        bool activated = true;
        REQUIRE_THAT(wifi_initialize() == 0);
        REQUIRE_THAT(vconf_set_int("memory/wifi/connected", 0) == 0);
        REQUIRE_THAT(wifi_get_connected_ap(&accessPoint) != 0);
        REQUIRE_THAT(accessPoint == nullptr);
        REQUIRE_THAT(vconf_set_int("memory/wifi/connected", 1) == 0);
        REQUIRE_THAT(wifi_get_connected_ap(&accessPoint) == 0);
        REQUIRE_THAT(accessPoint != nullptr);
        REQUIRE_THAT(vconf_set_int("memory/wifi/activated", 0) == 0);
        REQUIRE_THAT(wifi_is_activated(&activated) == 0 && !activated);
        REQUIRE_THAT(vconf_set_int("memory/wifi/activated", 1) == 0);
        REQUIRE_THAT(wifi_is_activated(&activated) == 0 && activated);
        REQUIRE_THAT(wifi_unset_connection_state_changed_cb() == 0);
        return 0;
    });
}

TEST_F(ReadingsTest, KeyThatCannotBeReadIsAnErrorAndNoGuess) {
    check([] {
        bool activated = true;
        wifi_ap_h accessPoint = nullptr;
        REQUIRE_THAT(vconf_set_str("memory/wifi/connected", "yes") == 0);
        REQUIRE_THAT(vconf_set_str("memory/wifi/activated", "yes") == 0);
        REQUIRE_THAT(wifi_get_connected_ap(&accessPoint) != 0);
        REQUIRE_THAT(wifi_is_activated(&activated) != 0 && activated);
        return 0;
    });
}

TEST_F(ReadingsTest, WithoutKeysAMachineWithLoopbackAloneIsNotConnected) {
    check([] {
        if (!leaveNetwork())
            return 250;
        wifi_ap_h accessPoint = nullptr;
        bool activated = true;
        REQUIRE_THAT(wifi_get_connected_ap(&accessPoint) != 0);
        REQUIRE_THAT(wifi_is_activated(&activated) == 0 && !activated);
        return 0;
    });
}

TEST_F(ReadingsTest, ActivationWritesTheKeyAndAnswersOnceThroughTheMainQueue) {
    check([] {
        int calls = 0;
        int written = 0;
        REQUIRE_THAT(vconf_set_int("memory/wifi/activated", 0) == 0);
        REQUIRE_THAT(wifi_activate(onActivated, &calls) == 0);
        REQUIRE_THAT(calls == 0);
        corvane::platform::MainQueue::instance().run();
        corvane::platform::MainQueue::instance().run();
        REQUIRE_THAT(calls == 1 && activationResult == WIFI_ERROR_NONE);
        REQUIRE_THAT(vconf_get_int("memory/wifi/activated", &written) == 0 && written == 1);
        REQUIRE_THAT(wifi_activate(nullptr, &calls) != 0);
        return 0;
    });
}

TEST_F(ReadingsTest, ActivationWithoutKeyAndLinkAnswersAFailure) {
    check([] {
        if (!leaveNetwork())
            return 250;
        int calls = 0;
        REQUIRE_THAT(wifi_activate(onActivated, &calls) == 0);
        corvane::platform::MainQueue::instance().run();
        REQUIRE_THAT(calls == 1 && activationResult == WIFI_ERROR_OPERATION_FAILED);
        return 0;
    });
}
