/* Who may ask, and who may not. */
#include "http_guard.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <fstream>

#include <sys/stat.h>

namespace corvane::appliance {
namespace {

const HttpGuard kLocal({"127.0.0.1", 8080}, std::nullopt);

int statusOf(const HttpGuard &guard, const Asker &asker) { return guard.judge(asker).status; }

TEST(Guard, HostMustBeOurAddress) {
    for (const char *host : {"127.0.0.1:8080", "localhost:8080", "[::1]:8080"})
        EXPECT_EQ(statusOf(kLocal, {.host = host}), 200) << host;
    for (const char *host : {"", "evil.example:8080", "127.0.0.1", "127.0.0.1:80", "localhost",
                             "localhost.evil.example:8080", "192.0.2.1:8080", "a:b:8080", "[::1"})
        EXPECT_EQ(statusOf(kLocal, {.host = host}), 403) << host;
}

TEST(Guard, PortThatABrowserLeavesOutIsEighty) {
    const HttpGuard guard({"127.0.0.1", 80}, std::nullopt);
    EXPECT_EQ(statusOf(guard, {.host = "localhost"}), 200);
}

TEST(Guard, EverywhereTakesAddressesAndTheMachinesNameButNoOtherName) {
    const HttpGuard guard({"0.0.0.0", 8080}, std::nullopt);
    const auto status = [&](const char *host) { return statusOf(guard, {.host = host}); };
    EXPECT_EQ(status("192.0.2.7:8080"), 200);
    EXPECT_EQ(status("[2001:db8::1]:8080"), 200);
    EXPECT_EQ(status("evil.example:8080"), 403);
}

TEST(Guard, ChangesNeedTheHeaderAndNoForeignOrigin) {
    const auto status = [](const char *origin, const char *corvane) {
        return statusOf(
            kLocal,
            {.host = "127.0.0.1:8080", .origin = origin, .corvane = corvane, .changesState = true});
    };
    EXPECT_EQ(status("", "1"), 200);
    EXPECT_EQ(status("http://127.0.0.1:8080", "1"), 200);
    EXPECT_EQ(status("", ""), 403);
    EXPECT_EQ(status("", "yes"), 403);
    EXPECT_EQ(status("http://localhost:8080", "1"), 403); // another origin to the browser
    EXPECT_EQ(status("http://evil.example", "1"), 403);
    EXPECT_EQ(status("null", "1"), 403);
}

TEST(Guard, PasswordIsComparedWhole) {
    const HttpGuard guard({"127.0.0.1", 8080}, "open sesame");
    const auto status = [&](const char *authorization) {
        return statusOf(guard, {.host = "127.0.0.1:8080", .authorization = authorization});
    };
    EXPECT_EQ(status("Basic Y29ydmFuZTpvcGVuIHNlc2FtZQ=="), 200);
    EXPECT_EQ(status("Basic Y29ydmFuZTpvcGVuIHNlc2FtZQ="), 401);
    EXPECT_EQ(status("Basic Y29ydmFuZTpvcGVuIHNlc2FtZQ==="), 401);
    EXPECT_EQ(status("Basic eDpvcGVuIHNlc2FtZQ=="), 401);
    EXPECT_EQ(status(""), 401);
}

class PasswordGuard : public testing::Test {
protected:
    static constexpr const char *kRight = "Basic Y29ydmFuZTpvcGVuIHNlc2FtZQ==";
    static constexpr const char *kWrong = "Basic Y29ydmFuZTp3cm9uZw==";

    HttpGuard::Verdict verdict(const char *authorization, const std::string &address) const {
        return guard_.judge(
            {.host = "127.0.0.1:8080", .authorization = authorization, .address = address},
            PasswordTries::Moment(std::chrono::hours(1)) + now_);
    }
    int status(const char *authorization, const std::string &address = "192.0.2.7") const {
        return verdict(authorization, address).status;
    }
    void beWrong(int times, const std::string &address = "192.0.2.7") const {
        for (int i = 0; i < times; ++i)
            EXPECT_EQ(status(kWrong, address), 401) << i;
    }

    const HttpGuard guard_{{"127.0.0.1", 8080}, "open sesame"};
    std::chrono::milliseconds now_{0};
};

TEST_F(PasswordGuard, AddressThatIsWrongTooOftenIsNotHeardForTheRestOfAMinute) {
    beWrong(1);
    now_ = std::chrono::milliseconds(20'500);
    beWrong(4);
    EXPECT_EQ(status(kWrong), 429);
    EXPECT_EQ(status(kRight), 429) << "a guess must not be told right";
    EXPECT_EQ(verdict(kRight, "192.0.2.7").retryAfter.count(), 40);
    now_ = std::chrono::milliseconds(59'999);
    EXPECT_EQ(verdict(kRight, "192.0.2.7").retryAfter.count(), 1);
    now_ = std::chrono::seconds(60);
    EXPECT_EQ(status(kRight), 200);
    beWrong(5);
    EXPECT_EQ(status(kWrong), 429);
}

TEST_F(PasswordGuard, RequestWithoutAPasswordIsNoTryAndARightOneCountsForNothing) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(status(""), 401);
        EXPECT_EQ(status(kRight), 200);
    }
    beWrong(4);
    EXPECT_EQ(status(kRight), 200);
    beWrong(1);
    EXPECT_EQ(status(kRight), 429) << "a right one in between gives no more guesses";
}

TEST_F(PasswordGuard, OnlyTheNetworkThatWasWrongHasToWait) {
    beWrong(5);
    EXPECT_EQ(status(kRight, "192.0.2.8"), 200);
    beWrong(3, "2001:db8::1");
    beWrong(2, "2001:db8::ffff:1");
    EXPECT_EQ(status(kRight, "2001:db8::2"), 429);
    EXPECT_EQ(status(kRight, "2001:db8:0:1::2"), 200);
    EXPECT_EQ(status(kRight, "::ffff:192.0.2.7"), 200);
}

TEST_F(PasswordGuard, CrowdOfAddressesIsNotRememberedWithoutBound) {
    beWrong(5, "198.51.100.1");
    for (std::size_t i = 0; i < PasswordTries::kMostAddresses; ++i) {
        now_ += std::chrono::milliseconds(1);
        beWrong(1, "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    }
    EXPECT_EQ(status(kRight, "198.51.100.1"), 200) << "the oldest has made place";
    beWrong(4, "10.0.0.1");
    EXPECT_EQ(status(kRight, "10.0.0.1"), 429);
}

TEST(Secrets, AreTheSameOnlyWhenEqual) {
    EXPECT_TRUE(sameSecret("", ""));
    EXPECT_TRUE(sameSecret("abc", "abc"));
    EXPECT_FALSE(sameSecret("abc", "abd"));
    EXPECT_FALSE(sameSecret("abcabc", "abc"));
    EXPECT_FALSE(sameSecret("abc", ""));
    EXPECT_FALSE(sameSecret("", "abc"));
}

TEST(ListenPlaces, AreReadAndTold) {
    EXPECT_EQ(parseListenPlace("127.0.0.1:8080")->text(), "127.0.0.1:8080");
    EXPECT_EQ(parseListenPlace("[::1]:0")->text(), "[::1]:0");
    EXPECT_TRUE(parseListenPlace("[::1]:1")->isLoopback());
    EXPECT_TRUE(parseListenPlace("localhost:1")->isLoopback());
    EXPECT_FALSE(parseListenPlace("localhost.example:1")->isLoopback());
    EXPECT_FALSE(parseListenPlace("127.example:1")->isLoopback());
    EXPECT_TRUE(parseListenPlace("[::]:1")->isEverywhere());
    for (const char *text : {"", ":", ":80", "host", "host:", "host:x", "host:65536", "host:-1",
                             "::1:80", "[::1:80", "host:80x"})
        EXPECT_FALSE(parseListenPlace(text).has_value()) << text;
}

TEST(PasswordFile, MustBeClosedAndLongEnough) {
    const TempFolder folder;
    const std::string path = folder.file("secret");
    std::string password = "before";
    EXPECT_THAT(readPasswordFile(path, password), testing::HasSubstr("cannot be read"));
    std::ofstream(path) << "12345678\nrest\n";
    chmod(path.c_str(), 0644);
    EXPECT_THAT(readPasswordFile(path, password), testing::HasSubstr("chmod 600"));
    EXPECT_EQ(password, "before");
    chmod(path.c_str(), 0600);
    EXPECT_EQ(readPasswordFile(path, password), "");
    EXPECT_EQ(password, "12345678");
    std::ofstream(path) << "1234567\n";
    EXPECT_THAT(readPasswordFile(path, password), testing::HasSubstr("8 to 200"));
    EXPECT_THAT(readPasswordFile(folder.path(), password), testing::HasSubstr("not a file"));
}

} // namespace
} // namespace corvane::appliance
