/*
 * The fixture around a test in virtual time: SetUp() resets the fakes and starts the clock, and
 * TearDown() ends the service's main loop if the test has not, counts the threads left behind, and
 * prints what was kept from standard output if the test has failed.
 */
#include "virtual_test.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/mman.h>
#include <unistd.h>

namespace fakes {

StandardOutput::StandardOutput()
    : realOutput_(dup(STDOUT_FILENO)), kept_(memfd_create("standard-output", MFD_CLOEXEC)) {
    std::fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
}

StandardOutput::~StandardOutput() {
    restore();
    close(kept_);
}

std::string StandardOutput::text() const {
    std::fflush(stdout);
    std::string text(static_cast<std::size_t>(lseek(kept_, 0, SEEK_END)), '\0');
    const ssize_t size = pread(kept_, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
}

void StandardOutput::restore() {
    if (realOutput_ >= 0) {
        std::fflush(stdout);
        dup2(realOutput_, STDOUT_FILENO);
        close(realOutput_);
        realOutput_ = -1;
    }
}

VirtualTest::VirtualTest(Options options) : options_(std::move(options)) {}

void VirtualTest::SetUp() {
    reset();
    storage::mount();
    setZone(options_.zone);
    output_ = std::make_unique<StandardOutput>();
    virtualtime::start({options_.startUtc, options_.seed, options_.limitSec});
}

void VirtualTest::TearDown() {
    if (loopIsStarted()) {
        stopLoop();
    }
    proxy::quiesce();
    const virtualtime::Summary summary = virtualtime::finish();
    for (const std::string &thread : summary.leakedThreads) {
        ADD_FAILURE() << "left behind: " << thread;
    }
    EXPECT_EQ(summary.locksHeld, 0) << "mutexes left locked";
    output_->restore();
    if (HasFailure()) {
        std::fputs(output_->text().c_str(), stdout);
    }
    storage::unmount();
    setZone("UTC");
}

void VirtualTest::setZone(const std::string &zone) {
    setenv("TZ", zone.c_str(), 1); // NOLINT(concurrency-mt-unsafe): nothing reads it meanwhile
    tzset();
}

void VirtualTest::startLoop() {
    static service_app_lifecycle_callback_s nothing = {[](void *) { return true; }, [](void *) {},
                                                       [](app_control_h, void *) {}};
    startLoop(&nothing);
}

void VirtualTest::startLoop(service_app_lifecycle_callback_s *callbacks, void *userData) {
    startLoopThread([callbacks, userData] {
        char name[] = "corvane";
        char *arguments[] = {name, nullptr};
        return service_app_main(1, arguments, callbacks, userData);
    });
}

void VirtualTest::startLoopThread(std::function<int()> service) {
    loop_ = std::thread([this, service = std::move(service)] {
        virtualtime::nameThread("main loop");
        loopResult_ = service();
    });
    virtualtime::settle();
}

int VirtualTest::stopLoop() {
    loop::requestStop();
    loop_.join();
    return loopResult_;
}

} // namespace fakes
