/*
 * SIGINT and SIGTERM as a readable descriptor, for commands that run until they are stopped: the
 * command ends in its own good order and the program with status 0.
 */
#ifndef CORVANE_CLIENT_STOP_SIGNAL_H
#define CORVANE_CLIENT_STOP_SIGNAL_H

namespace corvane::client {

class StopSignal {
public:
    /* From here on the two signals only make fd() readable. */
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal &) = delete;
    StopSignal &operator=(const StopSignal &) = delete;

    int fd() const { return fd_; }

    /* True as soon as one of the signals has come, false when the time is up before. */
    bool cameWithin(double seconds) const;

private:
    int fd_;
};

} // namespace corvane::client

#endif
