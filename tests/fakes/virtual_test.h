/*
 * VirtualTest: the fixture under every test that uses the fakes. Each test gets fresh fakes, an
 * empty folder for the database files, a time zone, and a run of virtual time around its body; what
 * it prints is shown only when it fails. Threads left behind fail the test.
 *
 * A test chooses another start with the constructor's options, or simply sets clock and zone in its
 * first lines. A death test needs GTEST_FLAG_SET(death_test_style, "threadsafe").
 */
#ifndef CORVANE_TESTS_FAKES_VIRTUAL_TEST_H
#define CORVANE_TESTS_FAKES_VIRTUAL_TEST_H

#include "fakes.h"
#include "storage.h"
#include "virtual_time.h"

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <service_app.h>

namespace fakes {

// Keeps what the process writes to standard output, from construction to restore().
class StandardOutput {
public:
    StandardOutput();
    ~StandardOutput();
    StandardOutput(const StandardOutput &) = delete;
    StandardOutput &operator=(const StandardOutput &) = delete;

    [[nodiscard]] std::string text() const; // so far
    void restore();

private:
    int realOutput_; // a copy of the descriptor, -1 after restore()
    int kept_;
};

class VirtualTest : public ::testing::Test {
public:
    struct Options {
        std::string startUtc = "2026-05-01T00:00:00";
        std::string zone = "UTC";
        std::uint64_t seed = 1;
        double limitSec = 40 * 86400.0;
    };

protected:
    VirtualTest() : VirtualTest(Options{}) {}
    explicit VirtualTest(Options options);

    void SetUp() override;
    void TearDown() override;

    // Time zone of the process, as the system's setting would be: "Europe/Berlin".
    static void setZone(const std::string &zone);

    // Lets time pass; everything due until then, inclusive, has happened on return.
    static void advance(double sec) { virtualtime::sleepSec(sec); }
    static void advanceTo(const std::string &utc) { virtualtime::sleepUntil(utc); }

    // The platform's loop alone, on a thread of its own, for tests of pieces that need settings or
    // Wi-Fi callbacks. stopLoop() does all that ends a service, with a terminate that does nothing.
    void startLoop();
    // The same with callbacks of the test's own; they must live until the loop has ended.
    void startLoop(service_app_lifecycle_callback_s *callbacks, void *userData = nullptr);
    int stopLoop(); // the result of service_app_main
    [[nodiscard]] bool loopIsStarted() const { return loop_.joinable(); }

    // Runs service on the loop's thread, as startLoop() does.
    void startLoopThread(std::function<int()> service);

    // Everything printed since the test began.
    [[nodiscard]] std::string standardOutput() const { return output_->text(); }

private:
    Options options_;
    std::unique_ptr<StandardOutput> output_;
    std::thread loop_;
    int loopResult_ = -1;
};

} // namespace fakes

#endif
