/*
 * The metering service's address on the device: port 7777 of the loopback interface. What a request
 * means is the model's business; here it is answered when, and if, the model says so.
 */
#ifndef CORVANE_APPLIANCE_SERVER_METERING_LISTENER_H
#define CORVANE_APPLIANCE_SERVER_METERING_LISTENER_H

#include "appliance.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace httplib {
class Server;
}

namespace corvane::appliance {

class MeteringListener {
public:
    /* Binds; throws ApplianceError. speed: virtual seconds in a real one. */
    MeteringListener(Appliance &appliance, int port, int speed);
    /* Lets go of requests that wait for an answer. */
    ~MeteringListener();
    MeteringListener(const MeteringListener &) = delete;
    MeteringListener &operator=(const MeteringListener &) = delete;

    /* A fault has changed: requests that wait under the old one are let go. From any thread. */
    void release();

private:
    void hold(std::optional<TimeMs> delayMs);

    Appliance &appliance_;
    const int speed_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::uint64_t releases_ = 0; // guarded by mutex_
    bool isStopping_ = false;    // guarded by mutex_
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};

} // namespace corvane::appliance

#endif
