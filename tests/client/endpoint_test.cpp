/* Addresses and keys as they are typed. */
#include "endpoint.h"

#include "errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace corvane::client {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Endpoint, DefaultsArePortAndName) {
    const Endpoint plain = parseUrl("coap://127.0.0.1");
    EXPECT_FALSE(plain.secure);
    EXPECT_EQ(plain.host, "127.0.0.1");
    EXPECT_EQ(plain.port, 5683);
    EXPECT_EQ(plain.proxyName, "KestProxyTest");
    const Endpoint secure = parseUrl("coaps://kitchen");
    EXPECT_TRUE(secure.secure);
    EXPECT_EQ(secure.port, 5684);
}

TEST(Endpoint, PortAndNameAreRead) {
    const Endpoint endpoint = parseUrl("coap://fridge.example:1234/Other-1/");
    EXPECT_EQ(endpoint.host, "fridge.example");
    EXPECT_EQ(endpoint.port, 1234);
    EXPECT_EQ(endpoint.proxyName, "Other-1");
}

TEST(Endpoint, BracketsHoldAnIpv6Address) {
    const Endpoint endpoint = parseUrl("coap://[2001:db8::7]:99/N");
    EXPECT_EQ(endpoint.host, "2001:db8::7");
    EXPECT_EQ(endpoint.port, 99);
    EXPECT_EQ(endpoint.url(), "coap://[2001:db8::7]:99/N");
    EXPECT_EQ(parseUrl("coap://[::1]").port, 5683);
}

TEST(Endpoint, UrlInFullReadsBackTheSame) {
    for (const char *url : {"coap://127.0.0.1:5683/KestProxyTest", "coaps://[::1]:5684/X"})
        EXPECT_EQ(parseUrl(url).url(), url);
}

TEST(Endpoint, MalformedUrlIsWrongUsage) {
    for (const char *url :
         {"", "127.0.0.1", "http://x", "coap://", "coap://:5683", "coap://x:", "coap://x:0",
          "coap://x:65536", "coap://x:1a", "coap://::1", "coap://[::1", "coap://[::1]x",
          "coap://[]", "coap://x/a/b", "coap://x/a b", "coap://x/a%20b"})
        EXPECT_THROW(parseUrl(url), UsageError) << url;
}

TEST(Endpoint, OnlyThisMachinesAddressesAreLoopback) {
    for (const char *url :
         {"coap://localhost", "coap://127.0.0.1", "coap://127.9.9.9", "coap://[::1]"})
        EXPECT_TRUE(parseUrl(url).isLoopback()) << url;
    for (const char *url : {"coap://192.0.2.7", "coap://[2001:db8::1]", "coap://fridge"})
        EXPECT_FALSE(parseUrl(url).isLoopback()) << url;
}

Credentials read(const std::string &text, const std::string &identity) {
    std::istringstream lines(text);
    return readCredentials(lines, "keys", identity);
}

std::string failureOf(const std::string &text, const std::string &identity) {
    try {
        read(text, identity);
        return "";
    } catch (const CommandFailed &failure) {
        return failure.what();
    }
}

TEST(Credentials, KeyOfTheIdentityIsFound) {
    const Credentials found = read("# comment\n\na:00\nkitchen:00fFa1\r\nb:01\n", "kitchen");
    EXPECT_EQ(found.identity, "kitchen");
    EXPECT_THAT(found.key, ElementsAre(0x00, 0xff, 0xa1));
}

TEST(Credentials, OnlyIdentityNeedsNoName) {
    EXPECT_EQ(read("kitchen:0102\n", "").identity, "kitchen");
}

TEST(Credentials, SeveralIdentitiesNeedAChoice) {
    EXPECT_THAT(failureOf("a:01\nb:02\n", ""), HasSubstr("choose one with --identity"));
}

TEST(Credentials, MissingIdentityIsNamed) {
    EXPECT_THAT(failureOf("a:01\n", "c"), HasSubstr("no key for --identity c"));
    EXPECT_THAT(failureOf("", ""), HasSubstr("holds no key"));
}

TEST(Credentials, MalformedLineIsNamedByNumberAndNeverQuoted) {
    for (const char *line : {"a", ":0a0b", "a:", "a:0a0", "a:0a0x"}) {
        const std::string failure = failureOf(std::string("b:01\n") + line + "\n", "");
        EXPECT_THAT(failure, HasSubstr("line 2")) << line;
        EXPECT_EQ(failure.find("0a0"), std::string::npos) << failure;
    }
}

TEST(Credentials, FileThatIsNotThereIsAFailure) {
    EXPECT_THROW(readCredentialsFile("/nonexistent/keys", ""), CommandFailed);
}

} // namespace
} // namespace corvane::client
