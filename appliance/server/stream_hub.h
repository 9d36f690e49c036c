/*
 * The open event streams. What is published is put into text once and then handed to all of them;
 * each stream has a short queue of its own, so that a slow reader neither delays the others nor
 * costs memory without bound: one that falls too far behind is closed, and comes back.
 */
#ifndef CORVANE_APPLIANCE_SERVER_STREAM_HUB_H
#define CORVANE_APPLIANCE_SERVER_STREAM_HUB_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace corvane::appliance {

using SharedText = std::shared_ptr<const std::string>;

/* One event in the form of the wire; an id of 0 is none. The data is one line. */
std::string streamEvent(const std::string &name, const std::string &data, std::int64_t id = 0);

/* Every function may be called from any thread. */
class StreamHub {
public:
    static constexpr std::size_t kMostStreams = 96;
    static constexpr std::size_t kMostQueued = 1'000;

    class Stream {
    private:
        friend class StreamHub;
        std::deque<SharedText> queue_; // guarded by the hub's mutex_, as all here
        SharedText state_;             // a newer one takes the place of one not yet sent
        bool isLost_ = false;          // it fell behind
        std::condition_variable wake_;
    };

    /* A stream that begins with the present state; null when there are too many, or the end is
     * near. */
    std::shared_ptr<Stream> open();
    void leave(const std::shared_ptr<Stream> &stream);

    void publishState(std::string text);
    void publish(std::string text);

    /* Waits for something to send. False when the stream is to be closed; an empty text when
     * nothing came in time. */
    bool wait(Stream &stream, std::chrono::milliseconds longest, std::string &text);

    /* Ends all streams, and refuses new ones. */
    void close();

    std::size_t count() const;

private:
    mutable std::mutex mutex_;
    std::set<std::shared_ptr<Stream>> streams_; // guarded by mutex_
    SharedText state_;                          // guarded by mutex_
    bool isClosed_ = false;                     // guarded by mutex_
};

} // namespace corvane::appliance

#endif
