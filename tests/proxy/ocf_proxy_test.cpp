// The functions of <ocf_proxy.h> and the proxy's life in the program, with DTLS driven by Debian's
// own CoAP client.
#include "proxy/lifecycle.h"

#include "live_proxy.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <ocf_proxy.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace corvane::platform;
using namespace corvane::test;
using nlohmann::json;

namespace {

// An empty variable counts as one that is not set.
void setVariable(const char *name, const std::string &value) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the proxy's threads do not read the environment
    setenv(name, value.c_str(), 1);
}

class OcfProxy : public testing::Test {
protected:
    OcfProxy() {
        setVariable("CORVANE_COAP_LISTEN", "127.0.0.1:" + std::to_string(port));
        setVariable("CORVANE_COAP_PSK_FILE", "");
    }
    ~OcfProxy() override {
        closeProxy();
        if (!folder.empty())
            std::filesystem::remove_all(folder);
    }

    // Prepares, declares all and serves under the name "House".
    void serve() {
        ASSERT_EQ(prepareProxy(), "");
        for (const Command &command : allCommands())
            ASSERT_EQ(KestAddProxyCommands(command.name, static_cast<int>(command.kind)), 0);
        ASSERT_EQ(KestInitProxy("House"), 0);
        ASSERT_EQ(KestStart(), 0);
        ASSERT_EQ(KestSendSetProxyCmds(), 0);
    }

    // Makes a key file and tells the proxy to use it.
    void useKeys() {
        std::string pattern = (std::filesystem::temp_directory_path() / "proxy-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        std::ofstream(folder + "/keys") << "controller:30313233343536373839616263646566\n";
        chmod((folder + "/keys").c_str(), 0600);
        setVariable("CORVANE_COAP_PSK_FILE", folder + "/keys");
    }

    // What Debian's client prints for a GET of GetDefrostBlock, its complaints aside.
    std::string readBlock(const std::string &scheme, const std::string &options) const {
        const std::string command = "coap-client-openssl -v 0 -B 3 " + options + " -m get " +
                                    scheme + "://127.0.0.1:" + std::to_string(port) +
                                    "/House/GetDefrostBlock 2>&1";
        std::string output;
        std::array<char, 256> piece{};
        FILE *pipe = popen(command.c_str(), "r");
        while (std::fgets(piece.data(), piece.size(), pipe) != nullptr)
            output += piece.data();
        pclose(pipe);
        return output;
    }

    const std::uint16_t port = freePort();
    std::string folder;
};

int answerBlock(int *block) {
    *block = 1;
    return 1;
}

} // namespace

TEST_F(OcfProxy, EverythingFailsWithoutPreparation) {
    KestDefrostReservation entry{};
    EXPECT_EQ(KestAddProxyCommands("ControlDRLC", 1), -1);
    EXPECT_EQ(KestInitProxy("House"), -1);
    EXPECT_EQ(KestStart(), -1);
    EXPECT_EQ(KestSendSetProxyCmds(), -1);
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc(answerBlock), -1);
    EXPECT_EQ(KestSendOverrideNotify(1), -1);
    EXPECT_EQ(KestSendDRLCNotify(1), -1);
    EXPECT_EQ(KestSendDelayDefrostNotify(true), -1);
    EXPECT_EQ(KestSendDefrostBlockNotify(1), -1);
    EXPECT_EQ(KestSendDefrostReservationsNotify(0, &entry, 1), -1);
    quiesceProxy();
    closeProxy();
}

TEST_F(OcfProxy, CallsOutOfOrderAndUnfitArgumentsFail) {
    ASSERT_EQ(prepareProxy(), "");
    EXPECT_EQ(KestStart(), -1);
    EXPECT_EQ(KestSendSetProxyCmds(), -1);
    EXPECT_EQ(KestAddProxyCommands(nullptr, 1), -1);
    EXPECT_EQ(KestAddProxyCommands("Unknown", 1), -1);
    EXPECT_EQ(KestAddProxyCommands("ControlDRLC", 0), -1);
    EXPECT_EQ(KestAddProxyCommands("ControlDRLC", 2), -1);
    EXPECT_EQ(KestAddProxyCommands("ControlDRLC", 1), 0);
    EXPECT_EQ(KestAddProxyCommands("ControlDRLC", 1), 0);
    for (const char *name : {"", "a/b", "a b", "twenty-five-letters-long."})
        EXPECT_EQ(KestInitProxy(name), -1) << name;
    EXPECT_EQ(KestInitProxy(nullptr), -1);
    EXPECT_EQ(KestInitProxy("House"), 0);
    EXPECT_EQ(KestInitProxy("House"), -1);
    EXPECT_EQ(KestAddProxyCommands("ControlOverride", 1), -1);
    EXPECT_EQ(KestSendSetProxyCmds(), -1);
    EXPECT_EQ(KestStart(), 0);
    EXPECT_EQ(KestStart(), -1);
    EXPECT_EQ(KestSendSetProxyCmds(), 0);
    EXPECT_EQ(KestSendSetProxyCmds(), 0);
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc(nullptr), -1);
}

TEST_F(OcfProxy, OnlyDeclaredCommandsAndTheReservationsAreServed) {
    ASSERT_EQ(prepareProxy(), "");
    ASSERT_EQ(KestAddProxyCommands("GetDefrostBlock", 1), 0);
    ASSERT_EQ(KestInitProxy("House"), 0);
    ASSERT_EQ(KestStart(), 0);
    ASSERT_EQ(KestSendSetProxyCmds(), 0);
    CoapClient client(port);
    while (client.ask(client.request(kGet, "House/SendDefrostReservationsNotify")).code == 404)
        continue;
    EXPECT_EQ(client.ask(client.request(kGet, "House/GetDefrostBlock")).code, 503);
    EXPECT_EQ(client.ask(client.request(kGet, "House/GetDelayDefrost")).code, 404);
    EXPECT_EQ(client.ask(client.request(kGet, "House/SendDRLCNotify")).code, 404);
}

TEST_F(OcfProxy, EveryHandlerIsReached) {
    serve();
    EXPECT_EQ(KestRegisterGetDRLCOverrideFunc([](int *level, int *overrideState) {
                  *level = 1;
                  *overrideState = 1;
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterControlOverrideFunc([](int value) { return value; }), 0);
    EXPECT_EQ(KestRegisterControlDRLCFunc([](KestDrlcInfo *info) {
                  return std::strcmp(info->drlcLevel, "2") == 0 ? 1 : 0;
              }),
              0);
    EXPECT_EQ(KestRegisterGetDefrostReservationsFunc([](KestDefrostReservation *, int *count) {
                  *count = 0;
                  return 1;
              }),
              0);
    EXPECT_EQ(
        KestRegisterCreateDefrostReservationsFunc([](KestDefrostReservation *entry, char *, int *) {
            std::strcpy(entry->id, "3");
            return 1;
        }),
        0);
    EXPECT_EQ(KestRegisterSetDefrostReservationsFunc([](KestDefrostReservation *entry) {
                  return std::strcmp(entry->period, "04:00:00") == 0 ? 1 : 0;
              }),
              0);
    EXPECT_EQ(KestRegisterDelDefrostReservationsFunc(
                  [](void *, const char *id) { return std::strcmp(id, "2") == 0 ? 1 : 0; }),
              0);
    EXPECT_EQ(KestRegisterGetDelayDefrostFunc([](int *enabled) {
                  *enabled = 0;
                  return 1;
              }),
              0);
    EXPECT_EQ(KestRegisterSetDelayDefrostFunc([](int value) { return value; }), 0);
    EXPECT_EQ(KestRegisterGetDefrostBlockFunc(answerBlock), 0);
    EXPECT_EQ(KestRegisterGetEnergyConsumptionFunc([](char *cumulative, char *monthly) {
                  std::strcpy(cumulative, "220.45");
                  std::strcpy(monthly, "100.00");
                  return 1;
              }),
              0);

    CoapClient client(port);
    const auto answerTo = [&](const std::string &command, const std::string &body) {
        Packet answer;
        do {
            answer = client.ask(client.request(kPost, "House/" + command, body));
        } while (answer.code == 404);
        return std::to_string(answer.code) + ' ' + answer.payload;
    };
    const std::string season =
        R"({"startTime":"0000-06-01T22:00:00","endTime":"0000-09-30T00:00:00","period":"04:00:00"})";
    EXPECT_EQ(answerTo("GetDRLCOverride", ""), R"(204 {"result":1,"level":1,"override":1})");
    EXPECT_EQ(answerTo("ControlOverride", R"({"override":1})"), R"(204 {"result":1})");
    EXPECT_EQ(answerTo("ControlOverride", R"({"override":0})"), R"(409 {"result":0})");
    EXPECT_EQ(answerTo("ControlDRLC", R"({"level":2})"), R"(204 {"result":1})");
    EXPECT_EQ(answerTo("GetDefrostReservations", ""), R"(204 {"result":1,"reservations":[]})");
    EXPECT_EQ(answerTo("CreateDefrostReservations", season), R"(204 {"result":1,"id":"3"})");
    EXPECT_EQ(answerTo("SetDefrostReservations", season), R"(204 {"result":1})");
    EXPECT_EQ(answerTo("DelDefrostReservations", R"({"id":"2"})"), R"(204 {"result":1})");
    EXPECT_EQ(answerTo("GetDelayDefrost", ""), R"(204 {"result":1,"enabled":0})");
    EXPECT_EQ(answerTo("SetDelayDefrost", R"({"enabled":1})"), R"(204 {"result":1})");
    EXPECT_EQ(answerTo("GetDefrostBlock", ""), R"(204 {"result":1,"block":1})");
    EXPECT_EQ(answerTo("GetEnergyConsumption", ""),
              R"(204 {"result":1,"cumulative":"220.45","monthly":"100.00"})");

    EXPECT_EQ(KestRegisterControlDRLCFunc([](KestDrlcInfo *) { return 0; }), 0);
    EXPECT_EQ(answerTo("ControlDRLC", R"({"level":2})"), R"(409 {"result":0})");
}

TEST_F(OcfProxy, NotificationsCarryWhatTheyWereGiven) {
    serve();
    std::array<KestDefrostReservation, 5> entries{};
    std::strcpy(entries[0].id, "2");
    EXPECT_EQ(KestSendOverrideNotify(1), 0);
    EXPECT_EQ(KestSendDRLCNotify(4), 0);
    EXPECT_EQ(KestSendDelayDefrostNotify(false), 0);
    EXPECT_EQ(KestSendDefrostBlockNotify(0), 0);
    EXPECT_EQ(KestSendDefrostReservationsNotify(2, entries.data(), 1), 0);

    CoapClient client(port);
    const auto value = [&](const std::string &command) {
        Packet answer;
        do {
            answer = client.ask(client.request(kGet, "House/" + command));
        } while (answer.code == 404);
        return json::parse(answer.payload);
    };
    EXPECT_EQ(value("SendOverrideNotify")["override"], 1);
    EXPECT_EQ(value("SendDRLCNotify")["level"], 4);
    EXPECT_EQ(value("SendDelayDefrostNotify")["enabled"], false);
    EXPECT_EQ(value("SendDefrostBlockNotify")["block"], 0);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["action"], 2);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["entries"].size(), 1u);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["entries"][0]["id"], "2");

    EXPECT_EQ(KestSendDefrostReservationsNotify(0, entries.data(), 5), 0);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["entries"].size(), 4u);
    EXPECT_EQ(KestSendDefrostReservationsNotify(0, nullptr, 3), 0);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["entries"].size(), 0u);
    EXPECT_EQ(KestSendDefrostReservationsNotify(0, entries.data(), -1), 0);
    EXPECT_EQ(value("SendDefrostReservationsNotify")["seq"], 4);
}

TEST_F(OcfProxy, CanBePreparedAgainOnceItIsClosed) {
    serve();
    EXPECT_NE(prepareProxy(), "");
    closeProxy();
    EXPECT_EQ(KestSendDRLCNotify(1), -1);
    serve();
    EXPECT_EQ(KestSendDRLCNotify(1), 0);
}

TEST_F(OcfProxy, CanBeClosedBeforeItWasStarted) {
    ASSERT_EQ(prepareProxy(), "");
    EXPECT_EQ(KestSendDRLCNotify(1), 0);
    quiesceProxy();
    closeProxy();
    ASSERT_EQ(prepareProxy(), "");
    ASSERT_EQ(KestInitProxy("House"), 0);
}

TEST_F(OcfProxy, PortInUseIsToldInOneLine) {
    Proxy other;
    const std::string address = "127.0.0.1:" + std::to_string(port);
    ASSERT_EQ(other.prepare(address, ""), "");
    EXPECT_EQ(prepareProxy(), "remote proxy: cannot listen on " + address +
                                  ": Address already in use; set CORVANE_COAP_LISTEN to another "
                                  "address and port");
    EXPECT_EQ(KestInitProxy("House"), -1);
}

TEST_F(OcfProxy, UnfitSettingsAreToldInOneLine) {
    setVariable("CORVANE_COAP_LISTEN", "every\nwhere");
    EXPECT_EQ(prepareProxy(),
              "remote proxy: cannot listen on \"every\\u000awhere\": not an address and port; set "
              "CORVANE_COAP_LISTEN to a form like 127.0.0.1:5683 or [::1]:5683");
    setVariable("CORVANE_COAP_LISTEN", "0.0.0.0:" + std::to_string(port));
    EXPECT_EQ(prepareProxy(), "remote proxy: cannot listen on 0.0.0.0:" + std::to_string(port) +
                                  ": it can be reached from outside and there are no keys; set "
                                  "CORVANE_COAP_PSK_FILE to a file of identity:hex key lines, or "
                                  "CORVANE_COAP_LISTEN to a loopback address");
    setVariable("CORVANE_COAP_PSK_FILE", "/no/such/file");
    EXPECT_EQ(prepareProxy(), "remote proxy: cannot use the key file \"/no/such/file\": No such "
                              "file or directory; mend it or set CORVANE_COAP_PSK_FILE to another");
}

TEST_F(OcfProxy, VersionSixLoopbackNeedsNoKeys) {
    setVariable("CORVANE_COAP_LISTEN", "[::1]:" + std::to_string(port));
    EXPECT_EQ(prepareProxy(), "");
}

TEST_F(OcfProxy, WithKeysOnlyThoseWhoHaveOneGetIn) {
    useKeys();
    serve();
    ASSERT_EQ(KestRegisterGetDefrostBlockFunc(answerBlock), 0);
    const std::string answer = R"({"result":1,"block":1})";
    EXPECT_NE(readBlock("coaps", "-u controller -k 0123456789abcdef").find(answer),
              std::string::npos);
    for (const char *options : {"-u controller -k 0123456789abcdeF", "-u other -k 0123456789abcdef",
                                "-u '' -k 0123456789abcdef"})
        EXPECT_EQ(readBlock("coaps", options).find("result"), std::string::npos) << options;
    EXPECT_EQ(readBlock("coap", "").find("result"), std::string::npos);
    EXPECT_NE(readBlock("coaps", "-u controller -k 0123456789abcdef").find(answer),
              std::string::npos);
}

TEST_F(OcfProxy, HandshakesThatAreBegunAndLeftKeepNoOneOut) {
    useKeys();
    serve();
    ASSERT_EQ(KestRegisterGetDefrostBlockFunc(answerBlock), 0);
    // The head of a record that begins a handshake, without what must follow.
    const std::string hello("\x16\xfe\xff\0\0\0\0\0\0\0\0\0\x10\x01\0\0\x04\0\0\0\0\0\0\0\x04", 25);
    std::vector<std::unique_ptr<CoapClient>> peers;
    for (int i = 0; i < 500; ++i) {
        peers.push_back(std::make_unique<CoapClient>(port));
        peers.back()->sendBytes(hello);
    }
    EXPECT_NE(readBlock("coaps", "-u controller -k 0123456789abcdef").find("\"block\":1"),
              std::string::npos);
}
