/*
 * The rig around the Linux platform: folders of the test's own, a real second process that writes
 * settings, signals, and a CoAP client on a free port. Time is real.
 *
 * The program is its own second process: "--write key int|text value times" writes and ends.
 */
#include "rig.h"

#include "coap_client.h"
#include "settings_store.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace contract {
namespace {

using nlohmann::json;

// For an answer, also on a machine that is busy with much else.
constexpr double kPatienceSec = 60;

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

// Only while no other thread of the test runs.
void setVariable(const char *name, const std::string &value) {
    setenv(name, value.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
}

// A port that was free a moment ago.
int findFreePort() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    if (bind(descriptor, any, size) != 0 || getsockname(descriptor, any, &size) != 0) {
        fail("free port");
    }
    close(descriptor);
    return ntohs(address.sin_port);
}

class LinuxRig : public Rig {
public:
    LinuxRig() : port_(findFreePort()) {
        const std::string listenOn = "127.0.0.1:" + std::to_string(port_);
        setVariable("CORVANE_COAP_LISTEN", listenOn);
    }

    void writeInt(const std::string &key, int value, int times) override {
        write(key, "int", std::to_string(value), times);
    }

    void writeText(const std::string &key, const std::string &text) override {
        write(key, "text", text, 1);
    }

    void requestStop() override { kill(getpid(), SIGTERM); }

    void requestAppControl() override { kill(getpid(), SIGUSR1); }

    std::optional<std::string> logOf(const std::function<void()> &write) override {
        if (access("/run/systemd/journal/socket", F_OK) == 0) {
            write();
            return std::nullopt;
        }
        testing::internal::CaptureStderr();
        write();
        return testing::internal::GetCapturedStderr();
    }

    Answer request(const std::string &command, const json &members) override {
        const corvane::client::Reply reply = client().post(command, members);
        if (reply.code == 503) {
            return {Answer::Outcome::NotCalled, {}, 0};
        }
        json answer = reply.object();
        if (reply.code == 409) {
            return {Answer::Outcome::Refused, {}, answer.value("error", 0)};
        }
        EXPECT_EQ(reply.code, 204) << reply.payload;
        answer.erase("result");
        return {Answer::Outcome::Handled, answer, 0};
    }

    std::vector<json> notified(const std::string &notification) override {
        const corvane::client::Reply reply = client().get(notification);
        EXPECT_EQ(reply.code, 205) << reply.payload;
        std::vector<json> all = reply.object()["recent"];
        for (json &members : all) {
            members.erase("seq");
            members.erase("at");
        }
        return all;
    }

private:
    corvane::client::CoapClient client() const {
        return {corvane::client::parseUrl("coap://127.0.0.1:" + std::to_string(port_)),
                std::nullopt, kPatienceSec};
    }

    static void write(std::string key, std::string type, std::string value, int times) {
        std::string program = "/proc/self/exe";
        std::string verb = "--write";
        std::string count = std::to_string(times);
        char *arguments[] = {program.data(), verb.data(),  key.data(), type.data(),
                             value.data(),   count.data(), nullptr};
        pid_t child = 0;
        int status = -1;
        if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) != 0 ||
            waitpid(child, &status, 0) != child) {
            fail("second process");
        }
        EXPECT_EQ(status, 0);
    }

    const int port_;
};

// Folders for the whole process: the platform opens its settings once.
class Folders : public testing::Environment {
public:
    void SetUp() override {
        std::string name = "/tmp/corvane-contract-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            fail(name);
        }
        root_ = name;
        setVariable("CORVANE_STATE_DIR", root_ + "/state");
        setVariable("CORVANE_RUNTIME_DIR", root_ + "/runtime");
    }

    void TearDown() override { std::filesystem::remove_all(root_); }

private:
    std::string root_;
};

int writeSettings(const std::string &key, const std::string &type, const std::string &value,
                  int times) {
    using namespace corvane::platform;
    const SettingValue setting =
        type == "int" ? SettingValue(std::stoi(value)) : SettingValue(value);
    corvane::platform::Folders folders;
    SettingsStore store;
    Status status = findFolders(folders);
    if (status.ok()) {
        status = store.open(folders);
    }
    for (int i = 0; i < times && status.ok(); ++i) {
        status = store.write(key, setting);
    }
    if (!status.ok()) {
        std::fprintf(stderr, "--write: %s\n", status.text.c_str());
    }
    return status.ok() ? 0 : 1;
}

} // namespace

std::unique_ptr<Rig> makeRig() { return std::make_unique<LinuxRig>(); }

} // namespace contract

int main(int argc, char **argv) {
    if (argc == 6 && std::strcmp(argv[1], "--write") == 0) {
        return contract::writeSettings(argv[2], argv[3], argv[4], std::stoi(argv[5]));
    }
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new contract::Folders);
    // The loop takes these from a descriptor; no thread may die of them instead.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return RUN_ALL_TESTS();
}
