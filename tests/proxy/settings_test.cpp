// What the two environment variables of the proxy may hold: the address and the key file.
#include "proxy/listen_address.h"
#include "psk_file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace corvane::platform;

namespace {

std::string errorOf(const std::variant<PskKeys, PskError> &result) {
    const auto *error = std::get_if<PskError>(&result);
    return error == nullptr ? "" : error->text;
}

class PskFile : public testing::Test {
protected:
    PskFile() {
        std::string pattern = (std::filesystem::temp_directory_path() / "psk-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        path = folder + "/keys";
    }
    ~PskFile() override { std::filesystem::remove_all(folder); }

    void write(const std::string &text, mode_t mode = 0600) {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }

    std::string folder;
    std::string path;
};

const std::string kSixteen = "000102030405060708090a0b0c0d0E0F";

} // namespace

TEST(ListenAddress, HasAnAddressAndAPort) {
    const auto v4 = parseListenAddress("127.0.0.1:5683");
    ASSERT_TRUE(v4);
    EXPECT_EQ(v4->any.sa_family, AF_INET);
    EXPECT_EQ(ntohs(v4->v4.sin_port), 5683);
    EXPECT_EQ(ntohl(v4->v4.sin_addr.s_addr), 0x7F000001u);
    const auto v6 = parseListenAddress("[::1]:65535");
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->any.sa_family, AF_INET6);
    EXPECT_EQ(ntohs(v6->v6.sin6_port), 65535);
    for (const char *text :
         {"", ":", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:-1",
          "127.0.0.1:5683 ", "127.0.0.1:56x", "::1:5683", "[::1]", "[]:5683", "[127.0.0.1]:5683",
          "127.1:5683", "localhost:5683", "127.0.0.1:+5", "[::1:5683", "::1]:5683"})
        EXPECT_FALSE(parseListenAddress(text)) << text;
}

TEST(ListenAddress, LoopbackIsAllOf127AndOneOfVersion6) {
    for (const char *text : {"127.0.0.1:1", "127.255.0.3:1", "[::1]:1"})
        EXPECT_TRUE(parseListenAddress(text)->isLoopback()) << text;
    for (const char *text : {"0.0.0.0:1", "128.0.0.1:1", "192.168.0.1:1", "[::]:1", "[fe80::1]:1",
                             "[::ffff:127.0.0.1]:1"})
        EXPECT_FALSE(parseListenAddress(text)->isLoopback()) << text;
}

TEST(ListenAddress, AddressInUseIsToldAlsoWhenItIsShareable) {
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in bound{};
    socklen_t size = sizeof(bound);
    bound.sin_family = AF_INET;
    bound.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&bound), size), 0);
    ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr *>(&bound), &size), 0);
    const auto address = parseListenAddress("127.0.0.1:" + std::to_string(ntohs(bound.sin_port)));
    EXPECT_EQ(tryBind(*address), EADDRINUSE);
    close(holder);
    EXPECT_EQ(tryBind(*address), 0);
}

TEST(PskKeys, AreIdentityAndHexKey) {
    const auto result = parsePskKeys("# controllers\n\nliving room:" + kSixteen + "\r\n  b:" +
                                     std::string(128, 'f') + "  \n#b:00\nc:" + kSixteen);
    ASSERT_EQ(errorOf(result), "");
    const auto &keys = std::get<PskKeys>(result);
    ASSERT_EQ(keys.size(), 3u);
    const auto &key = keys.at("living room");
    ASSERT_EQ(key.size(), 16u);
    for (std::uint8_t i = 0; i < 16; ++i)
        EXPECT_EQ(key[i], i);
    EXPECT_EQ(keys.at("b").size(), 64u);
}

TEST(PskKeys, WrongLinesAreNamedByTheirNumberAndNeverShown) {
    const auto error = [](const std::string &line) { return errorOf(parsePskKeys("\n" + line)); };
    EXPECT_EQ(error("secret"), "line 2 is not identity:key");
    EXPECT_EQ(error(":" + kSixteen),
              "line 2 has an identity that is not 1 to 64 printable characters");
    EXPECT_EQ(error(std::string(65, 'i') + ":" + kSixteen),
              "line 2 has an identity that is not 1 to 64 printable characters");
    EXPECT_EQ(error("a\tb:" + kSixteen),
              "line 2 has an identity that is not 1 to 64 printable characters");
    EXPECT_EQ(error("a:" + kSixteen + "0"), "line 2 has a key that is not pairs of hex digits");
    EXPECT_EQ(error("a:0x" + kSixteen), "line 2 has a key that is not pairs of hex digits");
    EXPECT_EQ(error("a:" + kSixteen.substr(2)), "line 2 has a key of 15 bytes instead of 16 to 64");
    EXPECT_EQ(error("a:"), "line 2 has a key of 0 bytes instead of 16 to 64");
    EXPECT_EQ(error("a:" + std::string(130, '0')),
              "line 2 has a key of 65 bytes instead of 16 to 64");
    EXPECT_EQ(error("a:" + kSixteen + "\na:" + kSixteen),
              "line 3 has an identity that stands in an earlier line too");
    EXPECT_EQ(error("# nothing"), "it holds no key");
}

TEST_F(PskFile, IsReadWhenItIsTheOwnersAlone) {
    for (const mode_t mode : {0600u, 0400u}) {
        write("a:" + kSixteen + "\n", mode);
        EXPECT_EQ(errorOf(readPskFile(path)), "");
        chmod(path.c_str(), 0600);
    }
    for (const mode_t mode : {0640u, 0604u, 0660u, 0601u, 0644u}) {
        write("a:" + kSixteen + "\n", mode);
        EXPECT_EQ(errorOf(readPskFile(path)),
                  "others than its owner have access to it (chmod 600)");
    }
}

TEST_F(PskFile, MissingFolderOrEndlessFilesAreTold) {
    EXPECT_EQ(errorOf(readPskFile(path)), "No such file or directory");
    EXPECT_EQ(errorOf(readPskFile(folder)), "it is not a regular file");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(errorOf(readPskFile(path)), "it is not a regular file");
    unlink(path.c_str());
    write(std::string(65 * 1024, '#'));
    EXPECT_EQ(errorOf(readPskFile(path)), "it is longer than 64 KiB");
    write("");
    EXPECT_EQ(errorOf(readPskFile(path)), "it holds no key");
}

TEST_F(PskFile, ThatBelongsToSomeoneElseIsNotTrusted) {
    if (geteuid() != 0) {
        // Only root can give a file away; everyone else finds such files in the system.
        EXPECT_EQ(errorOf(readPskFile("/etc/passwd")), "it belongs to another user (chown it)");
        return;
    }
    write("a:" + kSixteen + "\n");
    ASSERT_EQ(chown(path.c_str(), 1, 1), 0);
    EXPECT_EQ(errorOf(readPskFile(path)), "it belongs to another user (chown it)");
}
