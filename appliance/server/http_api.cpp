/*
 * The handlers. Reads come from snapshots and the history; what changes something is checked first
 * and then handed to the engine or, through it and the trace, to the service.
 */
#include "http_api.h"

#include "json_values.h"
#include "metrics.h"
#include "request_checks.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace corvane::appliance {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::int64_t kMinuteSec = 60;
constexpr std::int64_t kHourSec = 3600;
constexpr std::int64_t kDaySec = 86'400;
constexpr std::int64_t kMonthSec = 31 * kDaySec;
/* Longer spans are told in hours. */
constexpr std::int64_t kLongestInMinutesSec = 2 * kDaySec;
constexpr std::size_t kMostEntries = 2'000;
constexpr std::size_t kMostExported = 10'000;
constexpr std::size_t kDefaultEntries = 500;
constexpr std::size_t kMostRecords = 1'000;
/* The engine shows itself each second; this old, it hangs. */
constexpr std::chrono::seconds kOldestSnapshot{5};

ApiAnswer good(const ordered_json &value) { return {.body = textOf(value)}; }

ApiAnswer refuse(const Refusal &refusal) {
    return HttpApi::error(400, refusal.reason, refusal.field);
}

/* Throws Refusal unless the query has these names only, each at most once. */
void takeOnly(const ApiRequest &request, const std::vector<std::string> &names) {
    std::string list;
    for (const std::string &name : names)
        list += (list.empty() ? "" : ", ") + name;
    for (const auto &[name, value] : request.query)
        if (request.query.count(name) > 1 ||
            std::find(names.begin(), names.end(), name) == names.end())
            throw Refusal{"query: " + platform::inQuotes(name) +
                              " is unknown or repeated, expected are " + list,
                          ""};
}

/* What the query says of a name; a fallback when it is not there. */
std::string parameter(const ApiRequest &request, const std::string &name,
                      const std::string &fallback = "") {
    const auto found = request.query.find(name);
    return found == request.query.end() ? fallback : found->second;
}

/* A whole number of the query within the bounds; throws Refusal. */
std::int64_t number(const ApiRequest &request, const std::string &name, std::int64_t fallback,
                    std::int64_t least, std::int64_t most) {
    if (!request.query.contains(name))
        return fallback;
    const std::string text = parameter(request, name);
    std::int64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || value < least ||
        value > most)
        throw Refusal{name + ": got " + platform::inQuotes(text) +
                          ", expected a whole number from " + std::to_string(least) + " to " +
                          std::to_string(most),
                      name};
    return value;
}

struct Span {
    std::int64_t fromSec = 0;
    std::int64_t toSec = 0; // exclusive
    int stepSec = 60;
};

/* The span that range=, or from= and to=, ask for; throws Refusal. */
Span spanOf(const ApiRequest &request, std::int64_t nowSec) {
    constexpr std::int64_t kLastSec = 32'503'680'000; // the year 3000
    takeOnly(request, {"range", "from", "to"});
    Span span;
    span.toSec = nowSec;
    if (request.query.contains("from") || request.query.contains("to")) {
        span.toSec = number(request, "to", nowSec, 0, kLastSec);
        span.fromSec = number(request, "from", span.toSec - kDaySec, 0, kLastSec);
        if (span.fromSec >= span.toSec || span.toSec - span.fromSec > kMonthSec)
            throw Refusal{"from: expected a moment up to 31 days before to", "from"};
    } else {
        const std::string range = parameter(request, "range", "day");
        if (range != "hour" && range != "day" && range != "month")
            throw Refusal{"range: got " + platform::inQuotes(range) +
                              ", expected hour, day or month",
                          "range"};
        span.fromSec = nowSec - (range == "hour" ? kHourSec : range == "day" ? kDaySec : kMonthSec);
    }
    span.stepSec =
        static_cast<int>(span.toSec - span.fromSec > kLongestInMinutesSec ? kHourSec : kMinuteSec);
    span.fromSec -= span.fromSec % span.stepSec;
    return span;
}

TraceFilter filterOf(const ApiRequest &request, std::size_t fallback, std::size_t most) {
    static constexpr std::array kSources{"",         "micom",   "display", "remote",
                                         "metering", "service", "page"};
    takeOnly(request, {"limit", "before", "source", "text"});
    TraceFilter filter;
    filter.limit = static_cast<std::size_t>(number(
        request, "limit", static_cast<std::int64_t>(fallback), 1, static_cast<std::int64_t>(most)));
    if (request.query.contains("before"))
        filter.beforeId = number(request, "before", 0, 0, INT64_MAX);
    filter.source = parameter(request, "source");
    if (std::find(kSources.begin(), kSources.end(), filter.source) == kSources.end())
        throw Refusal{"source: got " + platform::inQuotes(filter.source) +
                          ", expected micom, display, remote, metering, service or page",
                      "source"};
    filter.text = parameter(request, "text");
    return filter;
}

void offerAsFile(ApiAnswer &answer, const std::string &name) {
    answer.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + name + "\"");
}

/* The spans in which a window was held, out of rows in order. */
ordered_json windowsOf(const std::vector<HistoryRow> &rows, int stepSec) {
    ordered_json windows = ordered_json::array();
    for (const HistoryRow &row : rows) {
        if (!row.windowActive)
            continue;
        if (!windows.empty() && windows.back()["to"] == row.atSec)
            windows.back()["to"] = row.atSec + stepSec;
        else
            windows.push_back({{"from", row.atSec}, {"to", row.atSec + stepSec}});
    }
    return windows;
}

ordered_json eventsOf(const std::vector<EventRecord> &records, const Span &span) {
    ordered_json events = ordered_json::array();
    for (const EventRecord &record : records) {
        const TimeMs fromMs = record.beganMs();
        const TimeMs toMs =
            std::min(record.endedAtMs.value_or(record.plan.endMs), record.plan.endMs);
        if (!record.clockSetBack && toMs > fromMs && toMs / 1000 > span.fromSec &&
            fromMs / 1000 < span.toSec)
            events.push_back({{"from", secondsOf(fromMs)},
                              {"to", secondsOf(toMs)},
                              {"level", record.plan.level}});
    }
    return events;
}

std::vector<std::string> partsOf(const std::string &path) {
    std::vector<std::string> parts;
    for (std::size_t at = 1; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        parts.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

bool matches(const std::string &pattern, const std::string &path,
             std::vector<std::string> &places) {
    places.clear();
    const auto wanted = partsOf(pattern);
    const auto given = partsOf(path);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i].ends_with("...}")) {
            std::string rest;
            for (std::size_t j = i; j < given.size(); ++j)
                rest += (j > i ? "/" : "") + given[j];
            places.push_back(rest);
            return i < given.size();
        }
        if (i >= given.size())
            return false;
        if (wanted[i].starts_with('{'))
            places.push_back(given[i]);
        else if (wanted[i] != given[i])
            return false;
    }
    return wanted.size() == given.size();
}

} // namespace

// ---- the table ----------------------------------------------------------------------------------

const std::vector<HttpApi::Route> HttpApi::kRoutes{
    {"GET", "/", &HttpApi::page},
    {"GET", "/page/{asset...}", &HttpApi::page},
    {"GET", "/openapi.json", &HttpApi::openApi},
    {"GET", "/health", &HttpApi::health},
    {"GET", "/metrics", &HttpApi::metrics},
    {"GET", "/api/v1/state", &HttpApi::state},
    {"GET", kStreamPath, &HttpApi::stream},
    {"GET", "/api/v1/history", &HttpApi::historyColumns},
    {"GET", "/api/v1/energy", &HttpApi::energy},
    {"GET", "/api/v1/trace", &HttpApi::trace},
    {"GET", "/api/v1/trace.csv", &HttpApi::trace},
    {"GET", "/api/v1/trace.json", &HttpApi::trace},
    {"GET", "/api/v1/records", &HttpApi::records},
    {"GET", "/api/v1/records.csv", &HttpApi::records},
    {"GET", "/api/v1/records.json", &HttpApi::records},
    {"POST", "/api/v1/event", &HttpApi::orderEvent},
    {"DELETE", "/api/v1/event", &HttpApi::cancelEvent},
    {"PUT", "/api/v1/override", &HttpApi::setOverride},
    {"PUT", "/api/v1/display/override", &HttpApi::pressOverride},
    {"PUT", "/api/v1/defrost", &HttpApi::setDefrost},
    {"POST", "/api/v1/reservations", &HttpApi::createReservation},
    {"PUT", "/api/v1/reservations", &HttpApi::setReservation},
    {"DELETE", "/api/v1/reservations/{id}", &HttpApi::deleteReservation},
    {"PUT", "/api/v1/door", &HttpApi::setDoor},
    {"PUT", "/api/v1/faults/{name}", &HttpApi::setFault},
};

HttpApi::HttpApi(Appliance &appliance, const History &history, RemoteSide &remote,
                 const StreamHub &hub, const PageFiles &files)
    : appliance_(appliance), history_(history), remote_(remote), hub_(hub), files_(files) {}

std::vector<std::pair<std::string, std::string>> HttpApi::routes() const {
    std::vector<std::pair<std::string, std::string>> routes;
    for (const Route &route : kRoutes)
        routes.emplace_back(route.method, route.path);
    return routes;
}

ApiAnswer HttpApi::error(int status, const std::string &reason, const std::string &field) {
    ordered_json body{{"error", reason}};
    if (!field.empty())
        body["field"] = field;
    return {.status = status, .body = textOf(body)};
}

ApiAnswer HttpApi::answer(ApiRequest request) const {
    std::string allowed;
    for (const Route &route : kRoutes) {
        if (!matches(route.path, request.path, request.places))
            continue;
        if (request.method != route.method) {
            allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
            continue;
        }
        const bool hasBody = request.method == "POST" || request.method == "PUT";
        if (hasBody && request.contentType != "application/json" &&
            !request.contentType.starts_with("application/json;"))
            return error(415, "Content-Type: got " + platform::inQuotes(request.contentType) +
                                  ", expected application/json");
        try {
            return (this->*route.handler)(request);
        } catch (const Refusal &refusal) {
            return refuse(refusal);
        } catch (const HistoryError &failure) {
            return error(500, failure.what());
        } catch (const std::future_error &) {
            return error(503, "the appliance is stopping");
        }
    }
    if (allowed.empty())
        return error(404, "there is no " + platform::inQuotes(request.path) +
                              " here, see /openapi.json for what there is");
    ApiAnswer answer = error(405, platform::inQuotes(request.path) + " takes " + allowed);
    answer.headers.emplace_back("Allow", allowed);
    return answer;
}

// ---- files --------------------------------------------------------------------------------------

ApiAnswer HttpApi::file(const PageFile &file, const ApiRequest &request) const {
    ApiAnswer answer{.type = file.type};
    answer.headers.emplace_back("ETag", file.etag);
    if (request.ifNoneMatch == file.etag)
        answer.status = 304;
    else
        answer.body = file.content;
    return answer;
}

ApiAnswer HttpApi::page(const ApiRequest &request) const {
    const auto found = files_.find(request.places.empty() ? "index.html" : request.places[0]);
    if (!found)
        return error(404, "the page has no file " + platform::inQuotes(request.path));
    return file(*found, request);
}

ApiAnswer HttpApi::openApi(const ApiRequest &) const {
    return {.body = {kEmbeddedOpenApi.begin, kEmbeddedOpenApi.end}};
}

// ---- reads --------------------------------------------------------------------------------------

/* Whoever has changed something sees it here at once. */
ApiAnswer HttpApi::state(const ApiRequest &) const {
    return {.body = appliance_.mailbox().call([this] { return appliance_.stateText(); })};
}

ApiAnswer HttpApi::stream(const ApiRequest &) const {
    return error(503, "there are too many open streams; close a page");
}

ApiAnswer HttpApi::historyColumns(const ApiRequest &request) const {
    const Span span = spanOf(request, appliance_.snapshot()->json["at"].get<std::int64_t>());
    const auto rows = history_.rows(span.fromSec, span.toSec, span.stepSec);
    const std::vector<std::pair<const char *, std::function<ordered_json(const HistoryRow &)>>>
        columns{
            {"powerWatt", [](const HistoryRow &row) { return rounded(row.powerWatt); }},
            {"fridgeCelsius", [](const HistoryRow &row) { return rounded(row.fridgeCelsius); }},
            {"freezerCelsius", [](const HistoryRow &row) { return rounded(row.freezerCelsius); }},
            {"ambientCelsius", [](const HistoryRow &row) { return rounded(row.ambientCelsius); }},
            {"level", [](const HistoryRow &row) { return row.level; }},
            {"override", [](const HistoryRow &row) { return row.override ? 1 : 0; }},
            {"defrostHeld", [](const HistoryRow &row) { return row.defrostHeld ? 1 : 0; }},
            {"compressor", [](const HistoryRow &row) { return rounded(row.compressor); }},
            {"heater", [](const HistoryRow &row) { return rounded(row.heater); }},
        };
    ordered_json body{{"stepSec", span.stepSec}, {"at", ordered_json::array()}};
    for (const auto &[name, read] : columns)
        body[name] = ordered_json::array();
    auto row = rows.begin();
    for (std::int64_t at = span.fromSec; at < span.toSec; at += span.stepSec) {
        const bool isKnown = row != rows.end() && row->atSec == at;
        body["at"].push_back(at);
        for (const auto &[name, read] : columns)
            body[name].push_back(isKnown ? read(*row) : ordered_json(nullptr));
        if (isKnown)
            ++row;
    }
    body["events"] = eventsOf(history_.records(kMostRecords), span);
    body["windows"] = windowsOf(rows, span.stepSec);
    return good(body);
}

ApiAnswer HttpApi::energy(const ApiRequest &request) const {
    const auto snapshot = appliance_.snapshot();
    Span span = spanOf(request, snapshot->json["at"].get<std::int64_t>());
    span.fromSec -= span.fromSec % kHourSec;
    ordered_json hours = ordered_json::array();
    for (const HistoryRow &row : history_.rows(span.fromSec, span.toSec, kHourSec))
        hours.push_back({{"at", row.atSec}, {"energyWh", rounded(row.energyWh)}});
    return good({{"hours", hours},
                 {"service",
                  {{"thisMonthKwh", snapshot->json["consumption"]["thisMonthKwh"]},
                   {"previousMonthKwh", snapshot->json["consumption"]["previousMonthKwh"]}}},
                 {"metered", snapshot->json["metering"]}});
}

ApiAnswer HttpApi::trace(const ApiRequest &request) const {
    const bool isExport = request.path != "/api/v1/trace";
    const TraceFilter filter = filterOf(request, isExport ? kMostExported : kDefaultEntries,
                                        isExport ? kMostExported : kMostEntries);
    ApiAnswer answer;
    if (request.path.ends_with(".csv")) {
        answer.body = traceCsvHead();
        history_.trace(filter, [&](const TraceEntry &entry) { answer.body += traceCsv(entry); });
        answer.type = "text/csv; charset=utf-8";
        offerAsFile(answer, "corvane-trace.csv");
        return answer;
    }
    // As text at once: a tree of all entries would be ten times as large.
    history_.trace(filter, [&](const TraceEntry &entry) {
        answer.body += (answer.body.empty() ? "" : ",") + textOf(traceJson(entry));
    });
    answer.body = "{\"entries\":[" + answer.body + "]}";
    if (isExport)
        offerAsFile(answer, "corvane-trace.json");
    return answer;
}

ApiAnswer HttpApi::records(const ApiRequest &request) const {
    const auto records = history_.records(kMostRecords);
    ApiAnswer answer;
    if (request.path.ends_with(".csv")) {
        answer.body = recordsCsv(records);
        answer.type = "text/csv; charset=utf-8";
        offerAsFile(answer, "corvane-events.csv");
        return answer;
    }
    ordered_json list = ordered_json::array();
    for (const EventRecord &record : records)
        list.push_back(recordJson(record));
    answer = good({{"records", list}});
    if (request.path.ends_with(".json"))
        offerAsFile(answer, "corvane-events.json");
    return answer;
}

ApiAnswer HttpApi::health(const ApiRequest &) const {
    const auto snapshot = appliance_.snapshot();
    const ordered_json &state = snapshot->json;
    std::string reason;
    if (std::chrono::steady_clock::now() - snapshot->takenAt > kOldestSnapshot)
        reason = "the engine does not answer";
    else if (history_.failing())
        reason = "the history cannot be written";
    const bool isReachable = state["service"]["reachable"].get<bool>();
    const bool isWell = reason.empty() && isReachable;
    ordered_json body{
        {"status", isWell ? "ok" : "failing"},
        {"appliance",
         {{"status", reason.empty() ? "ok" : "failing"},
          {"reason", reason.empty() ? ordered_json(nullptr) : ordered_json(reason)}}},
        {"micom",
         {{"status", state["micom"]["alive"].get<bool>() ? "ok" : "failing"},
          {"reason", state["micom"]["reason"]}}},
        {"service",
         {{"status", isReachable ? "ok" : "failing"}, {"reason", state["service"]["reason"]}}}};
    ApiAnswer answer = good(body);
    answer.status = isWell ? 200 : 503;
    return answer;
}

ApiAnswer HttpApi::metrics(const ApiRequest &) const {
    return {.body = metricsText(appliance_.snapshot()->json, hub_.count(), history_.failing()),
            .type = "text/plain; version=0.0.4; charset=utf-8"};
}

// ---- orders to the service ----------------------------------------------------------------------

Answer HttpApi::send(const std::string &command, const json &body) const {
    appliance_.mailbox().call([&] { appliance_.remoteOrders(command, body); });
    const Answer answer = remote_.request(command, body);
    appliance_.mailbox().call(
        [&] { appliance_.remoteAnswered(command, answer.isGood(), answer.reason); });
    return answer;
}

namespace {

ApiAnswer answerOf(const Answer &answer) {
    if (answer.isGood())
        return good(answer.body);
    if (answer.isBusy)
        return HttpApi::error(503, answer.reason);
    ordered_json body{{"error", answer.reason},
                      {"service", {{"code", answer.code}, {"reason", answer.reason}}}};
    if (answer.body.contains("error"))
        body["service"]["error"] = answer.body["error"];
    const bool isPassedOn = answer.code == 400 || answer.code == 409 || answer.code == 503;
    if (answer.code == 0)
        body["service"]["code"] = nullptr;
    return {.status = isPassedOn ? answer.code : 502, .body = textOf(body)};
}

} // namespace

ApiAnswer HttpApi::forService(const std::string &command, const std::string &body) const {
    const auto checked = checkForService(command, body);
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return refuse(*refusal);
    return answerOf(send(command, std::get<json>(checked)));
}

ApiAnswer HttpApi::orderEvent(const ApiRequest &request) const {
    const auto checked = checkEvent(request.body);
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return refuse(*refusal);
    return answerOf(send("ControlDRLC", std::get<json>(checked)));
}

ApiAnswer HttpApi::cancelEvent(const ApiRequest &) const {
    return answerOf(send("ControlDRLC", {{"level", 0}}));
}

ApiAnswer HttpApi::setOverride(const ApiRequest &request) const {
    return forService("ControlOverride", request.body);
}

/* The service answers "done" also when it leaves the delay off, so it is asked what it has done. */
ApiAnswer HttpApi::setDefrost(const ApiRequest &request) const {
    const ApiAnswer answer = forService("SetDelayDefrost", request.body);
    if (answer.status != 200 || json::parse(request.body).at("enabled") == 0)
        return answer;
    const Answer now = remote_.request("GetDelayDefrost", nullptr);
    if (now.isGood() && now.body.value("enabled", 1) == 0)
        return answerOf({.code = 409,
                         .body = json::object(),
                         .reason = "defrost delay stays off while an event is stored"});
    return answer;
}

ApiAnswer HttpApi::createReservation(const ApiRequest &request) const {
    return forService("CreateDefrostReservations", request.body);
}

ApiAnswer HttpApi::setReservation(const ApiRequest &request) const {
    return forService("SetDefrostReservations", request.body);
}

/* The service answers "done" also for a reservation that is not there. */
ApiAnswer HttpApi::deleteReservation(const ApiRequest &request) const {
    const std::string &id = request.places[0];
    if (id != "2" && id != "3")
        return error(400,
                     "id: got " + platform::inQuotes(id) +
                         ", expected 2 or 3; 0 and 1 are the service's own",
                     "id");
    const Answer list = remote_.request("GetDefrostReservations", nullptr);
    if (!list.isGood())
        return answerOf(list);
    const auto all = list.body.value("reservations", json::array());
    if (std::none_of(all.begin(), all.end(),
                     [&](const json &each) { return each.value("id", "") == id; }))
        return error(404, "there is no reservation " + id, "id");
    return answerOf(send("DelDefrostReservations", {{"id", id}}));
}

// ---- orders to the appliance --------------------------------------------------------------------

ApiAnswer HttpApi::pressOverride(const ApiRequest &request) const {
    const auto checked = checkForService("ControlOverride", request.body);
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return refuse(*refusal);
    const bool on = std::get<json>(checked).at("override") == 1;
    appliance_.mailbox().call([&] { appliance_.pressOverride(on); });
    return good({{"result", 1}});
}

ApiAnswer HttpApi::setDoor(const ApiRequest &request) const {
    const auto checked = checkDoor(request.body);
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return refuse(*refusal);
    const DoorWish wish = std::get<DoorWish>(checked);
    appliance_.mailbox().call([&] {
        appliance_.setDoor(wish.isFridge ? Compartment::Fridge : Compartment::Freezer, wish.isOpen);
    });
    return good({{"result", 1}});
}

ApiAnswer HttpApi::setFault(const ApiRequest &request) const {
    const auto checked = checkSwitch(request.body);
    if (const Refusal *refusal = std::get_if<Refusal>(&checked))
        return refuse(*refusal);
    const std::string &name = request.places[0];
    const bool on = std::get<bool>(checked);
    if (!appliance_.mailbox().call([&] { return appliance_.setFault(name, on); }))
        return error(
            404, "there is no fault " + platform::inQuotes(name) + ", see faults in /api/v1/state",
            "name");
    return good({{"result", 1}});
}

} // namespace corvane::appliance
