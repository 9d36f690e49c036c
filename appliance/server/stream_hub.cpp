/* The queues; see the header. */
#include "stream_hub.h"

#include <utility>

namespace corvane::appliance {

std::string streamEvent(const std::string &name, const std::string &data, std::int64_t id) {
    return (id > 0 ? "id: " + std::to_string(id) + "\n" : "") + "event: " + name +
           "\ndata: " + data + "\n\n";
}

std::shared_ptr<StreamHub::Stream> StreamHub::open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (isClosed_ || streams_.size() >= kMostStreams)
        return nullptr;
    auto stream = std::make_shared<Stream>();
    stream->state_ = state_;
    streams_.insert(stream);
    return stream;
}

void StreamHub::leave(const std::shared_ptr<Stream> &stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    streams_.erase(stream);
}

void StreamHub::publishState(std::string text) {
    const auto shared = std::make_shared<const std::string>(std::move(text));
    const std::lock_guard<std::mutex> lock(mutex_);
    state_ = shared;
    for (const auto &stream : streams_) {
        stream->state_ = shared;
        stream->wake_.notify_one();
    }
}

void StreamHub::publish(std::string text) {
    const auto shared = std::make_shared<const std::string>(std::move(text));
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &stream : streams_) {
        if (stream->queue_.size() < kMostQueued)
            stream->queue_.push_back(shared);
        else
            stream->isLost_ = true;
        stream->wake_.notify_one();
    }
}

bool StreamHub::wait(Stream &stream, std::chrono::milliseconds longest, std::string &text) {
    text.clear();
    std::unique_lock<std::mutex> lock(mutex_);
    stream.wake_.wait_for(lock, longest, [&] {
        return isClosed_ || stream.isLost_ || stream.state_ || !stream.queue_.empty();
    });
    if (isClosed_ || stream.isLost_)
        return false;
    for (const SharedText &each : std::exchange(stream.queue_, {}))
        text += *each;
    if (const SharedText state = std::exchange(stream.state_, nullptr))
        text += *state;
    return true;
}

void StreamHub::close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    isClosed_ = true;
    for (const auto &stream : streams_)
        stream->wake_.notify_one();
}

std::size_t StreamHub::count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return streams_.size();
}

} // namespace corvane::appliance
