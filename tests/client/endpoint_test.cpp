/* Addresses and keys as they are typed. */
#include "endpoint.h"

#include "errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace corvane::client {
namespace {

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

const std::string kKey = "000102030405060708090a0b0c0d0e0f";

/* A file of keys, of this user alone unless the mode says otherwise. */
class CredentialsFile : public testing::Test {
protected:
    CredentialsFile() {
        std::string pattern = (std::filesystem::temp_directory_path() / "keys-XXXXXX").string();
        close(mkstemp(pattern.data()));
        path = pattern;
    }
    ~CredentialsFile() override { std::filesystem::remove(path); }

    Credentials read(const std::string &text, const std::string &identity, mode_t mode = 0600) {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
        return readCredentials(path, identity);
    }

    std::string failureOf(const std::string &text, const std::string &identity,
                          mode_t mode = 0600) {
        try {
            read(text, identity, mode);
            return "";
        } catch (const CommandFailed &failure) {
            return failure.what();
        }
    }

    std::string path;
};

TEST_F(CredentialsFile, KeyOfTheIdentityIsFound) {
    const Credentials found =
        read("# comment\n\na:" + kKey + "\nkitchen:" + kKey + "fFa1\r\n", "kitchen");
    EXPECT_EQ(found.identity, "kitchen");
    EXPECT_EQ(found.key.size(), 18u);
    EXPECT_EQ(found.key[16], 0xff);
    EXPECT_EQ(found.key[17], 0xa1);
}

TEST_F(CredentialsFile, OnlyIdentityNeedsNoName) {
    EXPECT_EQ(read("kitchen:" + kKey + "\n", "").identity, "kitchen");
}

TEST_F(CredentialsFile, SeveralIdentitiesNeedAChoice) {
    EXPECT_THAT(failureOf("a:" + kKey + "\nb:" + kKey + "\n", ""),
                HasSubstr("choose one with --identity"));
}

TEST_F(CredentialsFile, MissingIdentityIsNamed) {
    EXPECT_THAT(failureOf("a:" + kKey + "\n", "c"), HasSubstr("no key for --identity c"));
}

TEST_F(CredentialsFile, MalformedLineIsNamedByNumberAndNeverQuoted) {
    for (const char *line : {"b", ":0a0b", "b:", "b:0a0", "b:0a0x", "b:0a0b"}) {
        const std::string failure = failureOf("a:" + kKey + "\n" + line + "\n", "");
        EXPECT_THAT(failure, HasSubstr("line 2")) << line;
        EXPECT_EQ(failure.find("0a0"), std::string::npos) << failure;
    }
}

TEST_F(CredentialsFile, FileThatOthersMayReadIsRefusedAsTheServiceRefusesIt) {
    EXPECT_THAT(failureOf("a:" + kKey + "\n", "", 0644), HasSubstr("chmod 600"));
}

TEST_F(CredentialsFile, FileThatIsNotThereIsAFailure) {
    EXPECT_THROW(readCredentials("/nonexistent/keys", ""), CommandFailed);
}

} // namespace
} // namespace corvane::client
