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
