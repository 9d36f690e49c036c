/*
 * The HTTP interface without HTTP: requests in, answers out, and the table of what is served. It
 * is described in docs/openapi.json.
 */
#ifndef CORVANE_APPLIANCE_SERVER_HTTP_API_H
#define CORVANE_APPLIANCE_SERVER_HTTP_API_H

#include "appliance.h"
#include "history.h"
#include "page_files.h"
#include "remote_side.h"

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace corvane::appliance {

struct ApiRequest {
    std::string method{};
    std::string path{};
    std::multimap<std::string, std::string> query{};
    std::string ifNoneMatch{};
    std::string contentType{};
    std::string body{};
    std::vector<std::string> places{}; // what the path has where the template has {…}
};

struct ApiAnswer {
    int status = 200;
    std::string body{};
    std::string type = "application/json";
    std::vector<std::pair<std::string, std::string>> headers{};
};

class HttpApi {
public:
    HttpApi(Appliance &appliance, const History &history, RemoteSide &remote, const StreamHub &hub,
            const PageFiles &files);

    static constexpr const char *kStreamPath = "/api/v1/stream";

    /* From any thread. The stream's path is answered by whoever holds the connection. */
    ApiAnswer answer(ApiRequest request) const;

    /* An error as every error is answered. */
    static ApiAnswer error(int status, const std::string &reason, const std::string &field = "");

    /* Method and template of all that is served. */
    std::vector<std::pair<std::string, std::string>> routes() const;

private:
    using Handler = ApiAnswer (HttpApi::*)(const ApiRequest &) const;
    struct Route {
        const char *method;
        const char *path; // {name}: one part of the path; {name...}: the rest of it
        Handler handler;
    };
    static const std::vector<Route> kRoutes;

    ApiAnswer page(const ApiRequest &request) const;
    ApiAnswer openApi(const ApiRequest &request) const;
    ApiAnswer state(const ApiRequest &request) const;
    ApiAnswer stream(const ApiRequest &request) const;
    ApiAnswer historyColumns(const ApiRequest &request) const;
    ApiAnswer energy(const ApiRequest &request) const;
    ApiAnswer trace(const ApiRequest &request) const;
    ApiAnswer records(const ApiRequest &request) const;
    ApiAnswer health(const ApiRequest &request) const;
    ApiAnswer metrics(const ApiRequest &request) const;
    ApiAnswer orderEvent(const ApiRequest &request) const;
    ApiAnswer cancelEvent(const ApiRequest &request) const;
    ApiAnswer setOverride(const ApiRequest &request) const;
    ApiAnswer pressOverride(const ApiRequest &request) const;
    ApiAnswer setDefrost(const ApiRequest &request) const;
    ApiAnswer createReservation(const ApiRequest &request) const;
    ApiAnswer setReservation(const ApiRequest &request) const;
    ApiAnswer deleteReservation(const ApiRequest &request) const;
    ApiAnswer setDoor(const ApiRequest &request) const;
    ApiAnswer setFault(const ApiRequest &request) const;

    ApiAnswer file(const PageFile &file, const ApiRequest &request) const;
    ApiAnswer forService(const std::string &command, const std::string &body) const;
    Answer send(const std::string &command, const nlohmann::json &body) const;

    Appliance &appliance_;
    const History &history_;
    RemoteSide &remote_;
    const StreamHub &hub_;
    const PageFiles &files_;
};

} // namespace corvane::appliance

#endif
