/*
 * The HTTP interface on its socket: the guard, the limits of a request, the event streams.
 *
 * An open stream keeps a thread, so there are more threads than streams may be open: however many
 * pages there are, requests find one.
 */
#ifndef CORVANE_APPLIANCE_SERVER_HTTP_SERVER_H
#define CORVANE_APPLIANCE_SERVER_HTTP_SERVER_H

#include "http_api.h"
#include "http_guard.h"
#include "stream_hub.h"

#include <memory>
#include <string>
#include <thread>

namespace corvane::appliance {

class HttpServer {
public:
    static constexpr std::size_t kThreads = 128;
    static constexpr std::size_t kMaxBody = 4096; // bytes
    static constexpr std::size_t kMaxPath = 256;  // characters

    /* Binds, so that requests wait from now on; throws ApplianceError. A port of 0 becomes the one
     * that was free. */
    explicit HttpServer(ListenPlace place);
    /* stop() */
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    const ListenPlace &place() const { return place_; }

    /* Answers from now on; all must live until stop(). Once. */
    void start(const HttpApi &api, const HttpGuard &guard, StreamHub &hub);

    /* Closes the streams and waits for requests under way. */
    void stop();

private:
    class Library;
    ListenPlace place_;
    std::unique_ptr<Library> library_;
    StreamHub *hub_ = nullptr;
    std::thread thread_;
};

} // namespace corvane::appliance

#endif
