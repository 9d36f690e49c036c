/* The listener on cpp-httplib; see the header. */
#include "metering_listener.h"

#include "socket_options.h"
#include "status.h"

#include <cerrno>

#include <httplib.h>

namespace corvane::appliance {
namespace {

constexpr std::size_t kThreads = 8;
constexpr std::size_t kMaxBody = 1024;
constexpr const char *kAddress = "127.0.0.1";

} // namespace

MeteringListener::MeteringListener(Appliance &appliance, int port, int speed)
    : appliance_(appliance), speed_(speed), server_(std::make_unique<httplib::Server>()) {
    server_->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    server_->set_payload_max_length(kMaxBody);
    server_->set_socket_options(takeAddressAlone);
    const auto take = [this](const httplib::Request &request, httplib::Response &response) {
        // The service is no browser; what comes from one is another site's page.
        if (request.has_header("Origin")) {
            response.status = 403;
            return;
        }
        try {
            const MeteringAnswer answer = appliance_.mailbox().call(
                [&] { return appliance_.meter(request.method, request.target); });
            hold(answer.delayMs);
            response.status = answer.delayMs ? answer.status : 503;
            if (!answer.body.empty())
                response.set_content(answer.body, "application/octet-stream");
        } catch (const std::future_error &) {
            response.status = 503; // the appliance is stopping
        }
    };
    const auto takeWithBody = [take](const httplib::Request &request, httplib::Response &response,
                                     const httplib::ContentReader &read) {
        // The figure is in the target; a body means nothing. The service's post has neither body
        // nor length, and the library would read it until the connection is closed.
        if (request.has_header("Content-Length") && !request.is_multipart_form_data())
            (void)read([](const char *, std::size_t) { return true; });
        take(request, response);
    };
    server_->Get(".*", take).Post(".*", takeWithBody).Put(".*", takeWithBody);
    errno = 0;
    if (!server_->bind_to_port(kAddress, port))
        throw ApplianceError(platform::systemFailure(errno != 0 ? errno : EADDRNOTAVAIL,
                                                     "cannot be the metering service on " +
                                                         std::string(kAddress) + ":" +
                                                         std::to_string(port))
                                 .text +
                             "; end the other one, or leave it out with --metering-port 0");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
}

MeteringListener::~MeteringListener() {
    while (!server_->is_running()) // a stop before its start is not heard
        std::this_thread::yield();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isStopping_ = true;
    }
    release();
    server_->stop();
    thread_.join();
}

void MeteringListener::release() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++releases_;
    }
    wake_.notify_all();
}

void MeteringListener::hold(std::optional<TimeMs> delayMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto isReleased = [this, before = releases_] {
        return isStopping_ || releases_ != before;
    };
    if (delayMs)
        wake_.wait_for(lock, std::chrono::milliseconds(*delayMs / speed_), isReleased);
    else
        wake_.wait(lock, isReleased);
}

} // namespace corvane::appliance
