/*
 * ServiceTest: the whole service, or pieces of it, in virtual time over the fakes.
 *
 *     class GateTest : public fakes::ServiceTest {};
 *
 *     TEST_F(GateTest, EventCommandsItsLevelWithinOnePassOfItsStart) {
 *         startServiceAndOpenGate();                       // real main() on the loop's thread
 *         EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
 *         advanceTo("2026-05-01T00:10:01");
 *         EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL2");
 *         echoLevel(2);
 *         advance(1.1);                                    // the echo's task sleeps a second
 *         EXPECT_EQ(fakes::proxy::notifications().back(), "SendDRLCNotify(2)");
 *     }                                                    // stopped and checked for threads
 *
 * What there is
 *   time       advance(sec), advanceTo(utc), setZone("Asia/Seoul"); of virtualtime: nowUtc(),
 *              elapsedMs(), setClock(utc), jumpClock(sec), sleepMs(ms), and settle(), which lets
 *              happen what is due now
 *   service    startService(), startServiceAndOpenGate(), stopService() (exit status);
 *              startLoop() for pieces that need settings or Wi-Fi callbacks, stopLoop()
 *   Micom      echoLevel(n), echoOverride(n), publishEnergy(a, b, c, d), micomCommands(),
 *              lastMicomCommand()
 *   settings   fakes::settings::set(key, value) as another process, getInt, getText, history,
 *              registrations, failReads(key, times), failWrites(key, times)
 *   log        fakes::log::messages(), lines(), has(text), count(text), find(text).priority;
 *              standardOutput() is everything printed
 *   proxy      fakes::proxy::controlDrlc("2", "01:00:00", "14:00:00") and the other ten requests
 *              (answer 1, 0 or kRefused), handlers(), commands(), notifications(),
 *              reservationNotifications(), reservation(start, end, period, description),
 *              FAKES_TEXT(entry.id)
 *   Wi-Fi      fakes::wifi::set({.connected = false}), calls("wifi_initialize")
 *   power      fakes::power::set(7300)
 *   metering   fakes::metering::posts(), failCreation(n), failTransfers(n), hangTransfers(sec)
 *   SQLite     fakes::storage::query("corvane.db", sql), execute(file, sql), statements(file),
 *              attempts(sql), calls(), failStatements(Trouble::Busy, n), failOpens(n),
 *              failCloses(n), failFileOperation(n), heal(), Lock held(file, Lock::Kind::Exclusive)
 *   order      fakes::texts({fakes::Kind::Setting, fakes::Kind::Notification}), fakes::trace(),
 *              fakes::clearRecords() forgets what was recorded so far
 *
 * The test's body comes last among equals: after advance(3) all that was due in those 3 s has
 * happened. Computing takes no time, so passes come at exact seconds after their start, and after
 * jumpClock() or setClock("2026-05-01T09:59:59.9") at exact fractions. What shall race runs in
 * threads of the test's own; another order among equals comes with another seed in the options.
 */
#ifndef CORVANE_TESTS_FAKES_SERVICE_FIXTURE_H
#define CORVANE_TESTS_FAKES_SERVICE_FIXTURE_H

#include "virtual_test.h"

#include "EnergyManager.h"

// The service's main() under another name, so that it can be linked beside the tests' own.
extern "C" int serviceMain(int argc, char **argv);

namespace fakes {

inline constexpr const char *kMicomCommand = "memory/refrigerator/TxMessage";
inline constexpr const char *kMicomLevel = "memory/refrigerator/SmartGridDrLevel";
inline constexpr const char *kMicomOverride = "memory/refrigerator/SmartGridOverrideState";

class ServiceTest : public VirtualTest {
protected:
    using VirtualTest::VirtualTest;

    void TearDown() override {
        if (loopIsStarted()) {
            stopLoop();
        }
        Corvane::EnergyManager::Finalize(); // pieces under test may have made one
        VirtualTest::TearDown();
    }

    // A new process: main() runs, create has returned; the gate has begun.
    void startService() {
        newProcess();
        startLoopThread([] {
            char name[] = "corvane";
            char *arguments[] = {name, nullptr};
            return serviceMain(1, arguments);
        });
    }

    // The same, with all three controllers running on return. Takes a little over five seconds.
    void startServiceAndOpenGate() {
        startService();
        for (int i = 0; i < 600 && Corvane::EnergyManager::GetEnergyReport() == nullptr; ++i) {
            advance(0.1);
        }
        ASSERT_NE(Corvane::EnergyManager::GetEnergyReport(), nullptr)
            << "the gate has not opened within a minute";
    }

    // SIGTERM: terminate has returned, main() too. Answers its exit status.
    int stopService() { return stopLoop(); }

    // What the Micom writes; the service's callbacks have run on return.
    static void echoLevel(int level) { writeAsMicom(kMicomLevel, level); }
    static void echoOverride(int value) { writeAsMicom(kMicomOverride, value); }
    static void publishEnergy(int watt1, int watt2, int watt3, int watt4) {
        const int watts[] = {watt1, watt2, watt3, watt4};
        for (int i = 0; i < 4; ++i) {
            settings::set("memory/refrigerator/SmartGridWatt" + std::to_string(i + 1), watts[i]);
        }
        virtualtime::settle();
    }
    static void writeAsMicom(const std::string &key, int value) {
        settings::set(key, value);
        virtualtime::settle();
    }

    // Every command text the service has written, in order, and the last one ("" before the first).
    [[nodiscard]] static std::vector<std::string> micomCommands() {
        return settings::history(kMicomCommand);
    }
    [[nodiscard]] static std::string lastMicomCommand() {
        const std::vector<std::string> commands = micomCommands();
        return commands.empty() ? "" : commands.back();
    }
};

} // namespace fakes

#endif
