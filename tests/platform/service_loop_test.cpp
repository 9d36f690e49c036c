/*
 * The life of the service around its callbacks. Each test runs a service in a child process, whose
 * exit status tells how it ended.
 */
#include "service_loop.h"

#include "main_queue.h"

#include "child.h"
#include "temp_folder.h"

#include <vconf.h>
#include <wifi.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace corvane::platform;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr std::chrono::milliseconds kNoBound = 60s;

/* What the service of a test does; steps are told on standard error as "<step>\n". */
struct TestService {
    std::function<void()> create = [] { raise(SIGTERM); };
    std::function<void()> control = [] {};
    std::function<void()> quiesce = [] {};
    std::function<void()> terminate = [] {};
    bool starts = true;
    std::string proxyFailure;
    std::chrono::milliseconds stopBound = kNoBound;
};

void tell(const std::string &step) {
    (void)!write(STDERR_FILENO, (step + "\n").data(), step.size() + 1);
}

TestService &serviceOf(void *data) { return *static_cast<TestService *>(data); }

int runTestService(TestService &service) {
    service_app_lifecycle_callback_s callbacks{[](void *data) {
                                                   tell("create");
                                                   serviceOf(data).create();
                                                   return serviceOf(data).starts;
                                               },
                                               [](void *data) {
                                                   tell("terminate");
                                                   serviceOf(data).terminate();
                                               },
                                               [](app_control_h, void *data) {
                                                   tell("control");
                                                   serviceOf(data).control();
                                               }};
    const ProxyLife proxy{[&] {
                              tell("prepare");
                              return service.proxyFailure;
                          },
                          [&] {
                              tell("quiesce");
                              service.quiesce();
                          },
                          [] { tell("close"); }};
    return runService(callbacks, &service, proxy, service.stopBound);
}

class ServiceLoopTest : public testing::Test {
protected:
    Outcome run() {
        return runInChild([this] {
            useFolder(temp);
            return runTestService(service);
        });
    }

    TempFolder temp;
    TestService service;
};

constexpr const char *kWholeLife = "prepare\ncreate\nquiesce\nterminate\nclose\n";

/* A datagram socket in a file, as systemd listens on one. */
class NotifySocket {
public:
    explicit NotifySocket(const std::string &path) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    }
    ~NotifySocket() { close(fd_); }
    NotifySocket(const NotifySocket &) = delete;
    NotifySocket &operator=(const NotifySocket &) = delete;

    /* The next message, or an empty text when there is none within the wait. */
    std::string next(int waitMs) const {
        pollfd events{fd_, POLLIN, 0};
        if (poll(&events, 1, waitMs) != 1)
            return {};
        std::array<char, 256> text{};
        const ssize_t size = recv(fd_, text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(size)};
    }

private:
    int fd_;
};

} // namespace

TEST_F(ServiceLoopTest, SigtermEndsTheServiceInTheFixedOrderWithStatusZero) {
    const Outcome outcome = run();
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(kWholeLife, outcome.error);
}

TEST_F(ServiceLoopTest, SigintEndsTheServiceToo) {
    service.create = [] { raise(SIGINT); };
    const Outcome outcome = run();
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(kWholeLife, outcome.error);
}

TEST_F(ServiceLoopTest, Sigusr1IsAnApplicationControlRequest) {
    service.create = [] { raise(SIGUSR1); };
    service.control = [] { raise(SIGTERM); };
    const Outcome outcome = run();
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("prepare\ncreate\ncontrol\nquiesce\nterminate\nclose\n", outcome.error);
}

TEST_F(ServiceLoopTest, SettingsCallbacksRunOnTheMainThreadForWritesOfAnyThread) {
    static pthread_t mainThread;
    static int calls = 0;
    const auto onChange = [](keynode_t *, void *) {
        EXPECT_TRUE(pthread_equal(mainThread, pthread_self()));
        tell("change");
        if (++calls == 3)
            raise(SIGTERM);
    };
    std::thread writer;
    service.create = [&] {
        mainThread = pthread_self();
        ASSERT_EQ(0, vconf_set_int("memory/k", 0));
        ASSERT_EQ(0, vconf_notify_key_changed("memory/k", onChange, nullptr));
        ASSERT_EQ(0, vconf_set_int("memory/k", 1));
        writer = std::thread([] {
            EXPECT_EQ(0, vconf_set_int("memory/k", 1));
            EXPECT_EQ(0, vconf_set_int("memory/k", 1));
        });
    };
    service.terminate = [&] { writer.join(); };
    const Outcome outcome = run();
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("prepare\ncreate\nchange\nchange\nchange\nquiesce\nterminate\nclose\n",
              outcome.error);
}

TEST_F(ServiceLoopTest, NoCallbackRunsOnceTheStopHasBegun) {
    service.create = [] {
        ASSERT_EQ(0, vconf_notify_key_changed(
                         "memory/k", [](keynode_t *, void *) { tell("change"); }, nullptr));
        raise(SIGTERM);
    };
    service.quiesce = [] {
        EXPECT_EQ(0, vconf_set_int("memory/k", 1));
        MainQueue::instance().post([] { tell("posted"); });
    };
    service.terminate = service.quiesce;
    EXPECT_EQ(kWholeLife, run().error);
}

TEST_F(ServiceLoopTest, WifiActivationAnswersOnTheMainLoopOnce) {
    service.create = [] {
        EXPECT_EQ(0, vconf_set_int("memory/wifi/activated", 0));
        EXPECT_EQ(0, wifi_activate(
                         [](wifi_error_e result, void *) {
                             tell("activated " + std::to_string(result));
                             raise(SIGTERM);
                         },
                         nullptr));
    };
    EXPECT_EQ("prepare\ncreate\nactivated 0\nquiesce\nterminate\nclose\n", run().error);
}

TEST_F(ServiceLoopTest, FolderThatCannotBeUsedIsOneLineAndStatusOne) {
    writeFile(temp / "state", "");
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("corvane: folder \"" + (temp / "state") +
                  "\" cannot be used: Not a directory; set CORVANE_STATE_DIR to a folder that this "
                  "user may write\n",
              outcome.error);
}

TEST_F(ServiceLoopTest, ProxyThatCannotBePreparedIsOneLineAndStatusOne) {
    service.proxyFailure = "port 5683 is taken; set CORVANE_COAP_LISTEN";
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("prepare\ncorvane: port 5683 is taken; set CORVANE_COAP_LISTEN\n", outcome.error);
}

TEST_F(ServiceLoopTest, ServiceThatRefusesToStartIsNotTerminated) {
    service.starts = false;
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.error, HasSubstr("close\ncorvane: the service refused to start"));
    EXPECT_THAT(outcome.error, Not(HasSubstr("terminate")));
}

TEST_F(ServiceLoopTest, TerminateThatHangsEndsTheProcessWithALineAndStatusOne) {
    service.stopBound = 20ms;
    service.terminate = [] { pause(); };
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.error, HasSubstr("log 6 stop: not done after 20 ms, ending the process\n"));
    EXPECT_THAT(outcome.error, Not(HasSubstr("close")));
}

TEST_F(ServiceLoopTest, HandlerThatHangsIsBoundedToo) {
    service.stopBound = 20ms;
    service.quiesce = [] { pause(); };
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.error, HasSubstr("stop: not done"));
    EXPECT_THAT(outcome.error, Not(HasSubstr("terminate")));
}

TEST_F(ServiceLoopTest, ExceptionOfACallbackEndsTheProcess) {
    service.create = [] { raise(SIGUSR1); };
    service.control = [] { throw std::runtime_error("thrown"); };
    const Outcome outcome = run();
    EXPECT_EQ(128 + SIGABRT, outcome.status);
    EXPECT_THAT(outcome.error, Not(HasSubstr("quiesce")));
}

TEST_F(ServiceLoopTest, RemovedSettingsFolderEndsTheServiceWithStatusOne) {
    service.create = [this] { std::filesystem::remove_all(temp / "runtime/settings"); };
    const Outcome outcome = run();
    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.error, HasSubstr("log 6 settings: a settings folder was removed"));
    EXPECT_THAT(outcome.error, HasSubstr("quiesce\nterminate\nclose\n"));
}

TEST_F(ServiceLoopTest, SystemdHearsOfStartWatchdogAndStop) {
    const NotifySocket systemd(temp / "notify");
    const pid_t child = startChild([this] {
        setVariable("NOTIFY_SOCKET", temp / "notify");
        setVariable("WATCHDOG_USEC", "10000");
        unsetVariable("WATCHDOG_PID");
        useFolder(temp);
        service.create = [] {};
        return runTestService(service);
    });
    constexpr int kLongWaitMs = 60'000; // only a failing test waits so long
    std::vector<std::string> messages;
    int pings = 0;
    while (pings < 3) {
        const std::string message = systemd.next(kLongWaitMs);
        ASSERT_NE("", message);
        if (message == "WATCHDOG=1")
            ++pings;
        else
            messages.push_back(message);
    }
    kill(child, SIGTERM);
    EXPECT_EQ(0, waitForChild(child));
    for (std::string message; !(message = systemd.next(0)).empty();) {
        if (message != "WATCHDOG=1")
            messages.push_back(message);
    }
    EXPECT_THAT(messages, testing::ElementsAre("READY=1", "STOPPING=1"));
}

TEST(StopBoundTest, BoundThatIsReachedCallsOnce) {
    std::atomic<int> calls{0};
    {
        const StopBound bound(1ms, [&] {
            ++calls;
            calls.notify_one();
        });
        calls.wait(0);
    }
    EXPECT_EQ(1, calls);
}

TEST(StopBoundTest, BoundThatIsNotReachedCallsNothing) {
    std::atomic<bool> called{false};
    {
        const StopBound bound(60s, [&] { called = true; });
    }
    EXPECT_FALSE(called);
}
