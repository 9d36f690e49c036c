/*
 * The rig around the platform in memory, in virtual time.
 */
#include "rig.h"

#include "fakes.h"
#include "virtual_time.h"

#include <cstring>

#include <gtest/gtest.h>

namespace contract {
namespace {

using nlohmann::json;

json toJson(const KestDefrostReservation &entry) {
    return {{"id", FAKES_TEXT(entry.id)},
            {"description", FAKES_TEXT(entry.description)},
            {"startTime", FAKES_TEXT(entry.startTime)},
            {"endTime", FAKES_TEXT(entry.endTime)},
            {"period", FAKES_TEXT(entry.period)}};
}

json toJson(const std::vector<KestDefrostReservation> &entries) {
    json all = json::array();
    for (const KestDefrostReservation &entry : entries) {
        all.push_back(toJson(entry));
    }
    return all;
}

KestDefrostReservation toReservation(const json &members) {
    return fakes::proxy::reservation(members["startTime"], members["endTime"], members["period"],
                                     members.value("description", ""));
}

Answer toAnswer(int answer, const json &members = json::object(), int error = 0) {
    if (answer == fakes::proxy::kRefused) {
        return {Answer::Outcome::NotCalled, {}, 0};
    }
    return answer == 0 ? Answer{Answer::Outcome::Refused, {}, error}
                       : Answer{Answer::Outcome::Handled, members, 0};
}

// "SendDRLCNotify(2)" as a watcher sees it: {"level": 2}.
json toMembers(const std::string &notification) {
    const std::size_t open = notification.find('(');
    const std::string name = notification.substr(0, open);
    const std::string value = notification.substr(open + 1, notification.size() - open - 2);
    const char *member = name == "SendDRLCNotify"           ? "level"
                         : name == "SendOverrideNotify"     ? "override"
                         : name == "SendDefrostBlockNotify" ? "block"
                                                            : "enabled";
    return {{member, json::parse(value)}};
}

class FakesRig : public Rig {
public:
    FakesRig() {
        fakes::reset();
        virtualtime::start();
    }

    ~FakesRig() override {
        fakes::proxy::quiesce();
        for (const std::string &thread : virtualtime::finish().leakedThreads) {
            ADD_FAILURE() << "left behind: " << thread;
        }
    }

    void writeInt(const std::string &key, int value, int times) override {
        for (int i = 0; i < times; ++i) {
            fakes::settings::set(key, value);
        }
    }

    void writeText(const std::string &key, const std::string &text) override {
        fakes::settings::set(key, text);
    }

    void requestStop() override { fakes::loop::requestStop(); }

    void requestAppControl() override { fakes::loop::sendAppControl(); }

    std::optional<std::string> logOf(const std::function<void()> &write) override {
        const std::size_t before = fakes::log::lines().size();
        write();
        std::string all;
        const std::vector<fakes::log::Line> lines = fakes::log::lines();
        for (std::size_t i = before; i < lines.size(); ++i) {
            all += lines[i].tag + ": " + lines[i].text + "\n";
        }
        return all;
    }

    Answer request(const std::string &command, const json &members) override {
        using namespace fakes::proxy;
        if (command == "ControlDRLC") {
            return toAnswer(controlDrlc(std::to_string(members["level"].get<int>()),
                                        members.value("duration", ""), members.value("start", "")));
        }
        if (command == "ControlOverride") {
            return toAnswer(controlOverride(members["override"]));
        }
        if (command == "SetDelayDefrost") {
            return toAnswer(setDelayDefrost(members["enabled"]));
        }
        if (command == "SetDefrostReservations") {
            return toAnswer(setDefrostReservation(toReservation(members)));
        }
        if (command == "DelDefrostReservations") {
            return toAnswer(delDefrostReservation(members["id"].get<std::string>().c_str()));
        }
        if (command == "CreateDefrostReservations") {
            const Created created = createDefrostReservation(toReservation(members));
            return toAnswer(created.answer, {{"id", FAKES_TEXT(created.entry.id)}}, created.error);
        }
        if (command == "GetDRLCOverride") {
            const DrlcOverride got = getDrlcOverride();
            return toAnswer(got.answer, {{"level", got.level}, {"override", got.override_state}});
        }
        if (command == "GetDefrostBlock") {
            const Value got = getDefrostBlock();
            return toAnswer(got.answer, {{"block", got.value}});
        }
        if (command == "GetDelayDefrost") {
            const Value got = getDelayDefrost();
            return toAnswer(got.answer, {{"enabled", got.value}});
        }
        if (command == "GetDefrostReservations") {
            const Reservations got = getDefrostReservations();
            return toAnswer(got.answer, {{"reservations", toJson(got.entries)}});
        }
        const Consumption got = getEnergyConsumption();
        return toAnswer(got.answer, {{"cumulative", got.cumulative}, {"monthly", got.monthly}});
    }

    std::vector<json> notified(const std::string &notification) override {
        std::vector<json> all;
        if (notification == "SendDefrostReservationsNotify") {
            for (const auto &sent : fakes::proxy::reservationNotifications()) {
                all.push_back({{"action", sent.action}, {"entries", toJson(sent.entries)}});
            }
            return all;
        }
        for (const std::string &sent : fakes::proxy::notifications()) {
            if (sent.starts_with(notification + "(")) {
                all.push_back(toMembers(sent));
            }
        }
        return all;
    }
};

} // namespace

std::unique_ptr<Rig> makeRig() { return std::make_unique<FakesRig>(); }

} // namespace contract
