/*
 * Rig: the world on the other side of the platform, as the contract tests need it. One rig stands
 * around the platform in memory, the other around the Linux platform; the tests are the same, so a
 * fake that drifts from what a real platform does fails here.
 */
#ifndef CORVANE_TESTS_CONTRACT_RIG_H
#define CORVANE_TESTS_CONTRACT_RIG_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace contract {

// What came of a request of the remote side.
struct Answer {
    enum class Outcome {
        Handled,   // the handler answered 1
        Refused,   // the handler answered 0
        NotCalled, // there is no handler, or the service is stopping
    };
    Outcome outcome;
    nlohmann::json members; // of a handled request: what was answered, by the names on the wire
    int error = 0;          // of a refused one
};

class Rig {
public:
    virtual ~Rig() = default;

    // Writes of another process, as many as said.
    virtual void writeInt(const std::string &key, int value, int times = 1) = 0;
    virtual void writeText(const std::string &key, const std::string &text) = 0;

    // What the system asks of the service.
    virtual void requestStop() = 0;
    virtual void requestAppControl() = 0;

    // A request of the remote side, with the members that it has on the wire. Waits for the answer.
    // From any thread, several at a time.
    virtual Answer request(const std::string &command, const nlohmann::json &members) = 0;

    // The last notifications of a kind that a watcher could see, oldest first, by their members.
    virtual std::vector<nlohmann::json> notified(const std::string &notification) = 0;

    // What the log shows of the lines that write writes; nothing where the log is not kept in this
    // process's reach.
    virtual std::optional<std::string> logOf(const std::function<void()> &write) = 0;

    // A key that no other test of the process uses.
    [[nodiscard]] std::string key(const std::string &name) const;
};

// A fresh world for one test, in virtual time where there is one.
std::unique_ptr<Rig> makeRig();

} // namespace contract

#endif
