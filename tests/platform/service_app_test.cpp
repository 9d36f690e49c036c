/*
 * What <service_app.h> sets up for the process before the service is created. Each test runs the
 * service in a child process; the remote proxy is this file's own.
 */
#include <service_app.h>

#include "child.h"
#include "proxy/lifecycle.h"
#include "temp_folder.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sqlite3.h>
#include <stdio_ext.h>
#include <unistd.h>

using testing::ElementsAre;

std::string corvane::platform::prepareProxy() { return {}; }
void corvane::platform::quiesceProxy() {}
void corvane::platform::closeProxy() {}

namespace {

class ServiceAppTest : public testing::Test {
protected:
    ServiceAppTest() { useFolder(temp); }

    /* Runs a service that does work in its create callback, and is then stopped. */
    static Outcome runWith(std::function<void()> work) {
        return runInChild([&work] {
            service_app_lifecycle_callback_s callbacks{
                [](void *data) {
                    (*static_cast<std::function<void()> *>(data))();
                    raise(SIGTERM);
                    return true;
                },
                [](void *) {}, nullptr};
            return service_app_main(0, nullptr, &callbacks, &work);
        });
    }

    TempFolder temp;
};

} // namespace

TEST_F(ServiceAppTest, ServiceRunsAndStopsWithStatusZero) {
    const Outcome outcome = runWith([] {});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("", outcome.error);
}

TEST_F(ServiceAppTest, MissingCallbacksAreStatusOne) {
    service_app_lifecycle_callback_s none{nullptr, nullptr, nullptr};
    EXPECT_EQ(1, service_app_main(0, nullptr, &none, nullptr));
    EXPECT_EQ(1, service_app_main(0, nullptr, nullptr, nullptr));
}

TEST_F(ServiceAppTest, ProxiesOfTheEnvironmentDoNotReachTheMeteringService) {
    constexpr std::array kNames{"http_proxy",  "HTTP_PROXY", "https_proxy",
                                "HTTPS_PROXY", "all_proxy",  "ALL_PROXY"};
    for (const char *name : kNames)
        setVariable(name, "http://127.0.0.1:9");
    const Outcome outcome = runWith([&] {
        for (const char *name : kNames) {
            // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment now
            if (const char *value = std::getenv(name); value != nullptr)
                (void)std::fprintf(stderr, "%s=%s\n", name, value);
        }
    });
    EXPECT_EQ("", outcome.error);
    for (const char *name : kNames)
        unsetVariable(name);
}

TEST_F(ServiceAppTest, PipeBehindStandardOutputSeesEachLineAsItComes) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, pipe(ends.data()));
    const Outcome outcome = runWith([&] {
        dup2(ends[1], STDOUT_FILENO);
        (void)std::printf("line\n");
        (void)std::fprintf(stderr, "%zu", __fpending(stdout));
    });
    EXPECT_EQ("0", outcome.error);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ServiceAppTest, ReaderOfStandardOutputMayGoAway) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, pipe(ends.data()));
    const Outcome outcome = runWith([&] {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        (void)std::printf("line\n");
    });
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(0, outcome.status);
}

TEST_F(ServiceAppTest, DatabasesOfTheServiceAreInTheStateFolderFromTheStart) {
    const Outcome outcome = runWith([] {
        sqlite3 *connection = nullptr;
        if (sqlite3_open("/home/owner/apps_rw/org.tizen.corvane/shared/trusted/usage.db",
                         &connection) != SQLITE_OK ||
            sqlite3_exec(connection, "CREATE TABLE t(x)", nullptr, nullptr, nullptr) != SQLITE_OK)
            (void)std::fprintf(stderr, "%s", sqlite3_errmsg(connection));
        sqlite3_close(connection);
    });
    EXPECT_EQ("", outcome.error);
    EXPECT_THAT(namesIn(temp / "state/db"), ElementsAre("usage.db"));
}
