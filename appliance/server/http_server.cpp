/*
 * The interface on cpp-httplib. What the library leaves open is closed here:
 *
 * - a body is read before anything is decided, else its bytes would be taken for the next request
 *   on the connection; where it cannot be read whole, the connection is closed;
 * - the library matches paths by regular expressions, which recurse: long paths are refused, and
 *   everything goes to one handler;
 * - it compresses texts with a compressor that takes tens of megabytes: answers are handed to it
 *   in the form that it does not compress.
 */
#include "http_server.h"

#include "socket_options.h"
#include "status.h"

#include <cerrno>

#include <httplib.h>

namespace corvane::appliance {
namespace {

constexpr int kBacklog = 128;
constexpr std::size_t kRequestsAConnection = 1000;
/* Each idle connection keeps a thread, and the stop waits for it. */
constexpr std::time_t kIdleSec = 1;
constexpr std::chrono::milliseconds kPingEach{15'000};

const char *const kPagePolicy = "default-src 'self'; style-src 'self' 'unsafe-inline'; "
                                "img-src 'self' data:; object-src 'none'; base-uri 'none'; "
                                "form-action 'self'; frame-ancestors 'none'";

void addHeaders(httplib::Response &response) {
    response.set_header("Cache-Control", "no-cache");
    response.set_header("Content-Security-Policy", kPagePolicy);
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cross-Origin-Resource-Policy", "same-origin");
}

/* A provider of a known length is what the library sends as it is. One that gives up after its
 * last byte makes the library close the connection. */
void reply(httplib::Response &response, ApiAnswer answer, bool close = false) {
    response.status = answer.status;
    addHeaders(response);
    for (const auto &[name, value] : answer.headers)
        response.set_header(name, value);
    if (close)
        response.set_header("Connection", "close");
    const auto body = std::make_shared<const std::string>(std::move(answer.body));
    if (body->empty()) {
        response.set_header("Content-Type", answer.type);
        return;
    }
    response.set_content_provider(
        body->size(), answer.type,
        [body, close](std::size_t offset, std::size_t length, httplib::DataSink &sink) {
            return sink.write(body->data() + offset, length) && !close;
        });
}

Asker askerOf(const httplib::Request &request) {
    return {.host = request.get_header_value("Host"),
            .origin = request.get_header_value("Origin"),
            .corvane = request.get_header_value("X-Corvane"),
            .authorization = request.get_header_value("Authorization"),
            .address = request.remote_addr,
            .changesState = request.method != "GET" && request.method != "HEAD"};
}

/* The body; nothing when it is not one that is taken. */
std::optional<std::string> readBody(const httplib::Request &request,
                                    const httplib::ContentReader &read) {
    if (request.is_multipart_form_data())
        return std::nullopt; // the library would take it apart
    if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding"))
        return ""; // the library would read until the connection is closed
    std::string body;
    const bool isWhole = read([&body](const char *data, std::size_t size) {
        if (body.size() + size > HttpServer::kMaxBody)
            return false;
        body.append(data, size);
        return true;
    });
    return isWhole ? std::optional(std::move(body)) : std::nullopt;
}

} // namespace

// ---- the library's server -----------------------------------------------------------------------

class HttpServer::Library : public httplib::Server {
public:
    Library() {
        new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        set_keep_alive_max_count(kRequestsAConnection);
        set_keep_alive_timeout(kIdleSec);
        set_payload_max_length(kMaxBody);
        set_tcp_nodelay(true);
        set_socket_options(takeAddressAlone);
        set_pre_routing_handler([](const Request &request, Response &response) {
            if (request.path.size() <= kMaxPath && request.path.front() == '/')
                return HandlerResponse::Unhandled;
            reply(response,
                  HttpApi::error(414, "path: too long, expected at most " +
                                          std::to_string(kMaxPath) + " characters"),
                  true);
            return HandlerResponse::Handled;
        });
        // What the library itself refuses has no text yet.
        set_error_handler([](const Request &, Response &response) {
            if (!response.content_provider_)
                reply(response, HttpApi::error(response.status,
                                               "the request is not one that HTTP allows here"));
        });
        set_exception_handler([](const Request &, Response &response, std::exception_ptr) {
            reply(response, HttpApi::error(500, "the appliance failed over this request"));
        });
    }

    void serve(const HttpApi &api, const HttpGuard &guard, StreamHub &hub) {
        const auto plain = [&](const Request &request, Response &response) {
            handle(api, guard, hub, request, "", response);
        };
        const auto withBody = [&](const Request &request, Response &response,
                                  const httplib::ContentReader &read) {
            const auto body = readBody(request, read);
            if (body)
                handle(api, guard, hub, request, *body, response);
            else if (request.is_multipart_form_data())
                reply(response, HttpApi::error(415, "Content-Type: expected application/json"),
                      true);
            else
                reply(response,
                      HttpApi::error(413, "body: expected at most " + std::to_string(kMaxBody) +
                                              " bytes"),
                      true);
        };
        Get(".*", plain);
        Options(".*", plain);
        Delete(".*", plain);
        Delete(".*", withBody);
        Post(".*", withBody);
        Put(".*", withBody);
        Patch(".*", withBody);
    }

    /* The library asks for a queue of five connections; a burst of pages needs more. */
    void deepenQueue() { (void)::listen(svr_sock_, kBacklog); }

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    static void handle(const HttpApi &api, const HttpGuard &guard, StreamHub &hub,
                       const Request &request, const std::string &body, Response &response) {
        const HttpGuard::Verdict verdict = guard.judge(askerOf(request));
        if (verdict.status != 200) {
            ApiAnswer refusal = HttpApi::error(verdict.status, verdict.reason);
            if (verdict.status == 401)
                refusal.headers.emplace_back("WWW-Authenticate", "Basic realm=\"corvane\"");
            if (verdict.status == 429)
                refusal.headers.emplace_back("Retry-After",
                                             std::to_string(verdict.retryAfter.count()));
            return reply(response, std::move(refusal));
        }
        // Of a HEAD the library sends the head alone, and lets go of the stream at once.
        const bool isRead = request.method == "GET" || request.method == "HEAD";
        if (request.path == HttpApi::kStreamPath && isRead)
            if (const auto stream = hub.open())
                return serveStream(hub, stream, response);
        ApiRequest asked{.method = request.method == "HEAD" ? "GET" : request.method,
                         .path = request.path,
                         .query = {request.params.begin(), request.params.end()},
                         .ifNoneMatch = request.get_header_value("If-None-Match"),
                         .contentType = request.get_header_value("Content-Type"),
                         .body = body,
                         .places = {}};
        reply(response, api.answer(std::move(asked)));
    }

    static void serveStream(StreamHub &hub, const std::shared_ptr<StreamHub::Stream> &stream,
                            Response &response) {
        addHeaders(response);
        response.set_chunked_content_provider(
            "text/event-stream",
            [&hub, stream](std::size_t, httplib::DataSink &sink) {
                std::string text;
                if (!hub.wait(*stream, kPingEach, text))
                    return false;
                if (text.empty())
                    text = ": ping\n\n";
                return sink.write(text.data(), text.size());
            },
            [&hub, stream](bool) { hub.leave(stream); });
    }
};

// ---- the server ---------------------------------------------------------------------------------

HttpServer::HttpServer(ListenPlace place)
    : place_(std::move(place)), library_(std::make_unique<Library>()) {
    bool isBound = false;
    errno = 0;
    if (place_.port == 0) {
        place_.port = library_->bind_to_any_port(place_.host);
        isBound = place_.port > 0;
    } else {
        isBound = library_->bind_to_port(place_.host, place_.port);
    }
    if (!isBound)
        throw ApplianceError(platform::systemFailure(errno != 0 ? errno : EADDRNOTAVAIL,
                                                     "cannot listen on " + place_.text())
                                 .text +
                             "; choose another address with --listen or CORVANE_APPLIANCE_LISTEN");
    library_->deepenQueue();
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::start(const HttpApi &api, const HttpGuard &guard, StreamHub &hub) {
    hub_ = &hub;
    library_->serve(api, guard, hub);
    thread_ = std::thread([this] { library_->listen_after_bind(); });
}

void HttpServer::stop() {
    if (hub_ != nullptr)
        hub_->close();
    if (!thread_.joinable())
        return;
    while (!library_->is_running() && thread_.joinable()) // a stop before its start is not heard
        std::this_thread::yield();
    library_->stop();
    thread_.join();
}

} // namespace corvane::appliance
