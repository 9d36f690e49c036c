/*
 * Watches the service's event table from outside: the only place that tells when an event has
 * really been stored, and when it is gone. The table is opened for reading only, for a moment, when
 * its folder shows a change and once a second.
 */
#ifndef CORVANE_APPLIANCE_SERVER_TABLE_WATCH_H
#define CORVANE_APPLIANCE_SERVER_TABLE_WATCH_H

#include "event_record.h"

#include "local_state.h"

#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace corvane::appliance {

class TableWatch {
public:
    /* What the table holds, and since when, by the appliance's clock; called on the watch's thread
     * at the start and at each change. */
    using Changed = std::function<void(const std::optional<PlannedEvent> &event, TimeMs atMs)>;

    TableWatch(const platform::Folders &folders, Changed changed);
    ~TableWatch();
    TableWatch(const TableWatch &) = delete;
    TableWatch &operator=(const TableWatch &) = delete;

private:
    void run();
    bool look();
    bool wait(int milliseconds);

    const std::string folder_;
    const client::LocalState state_;
    const Changed changed_;
    int stopFd_;
    int folderFd_;
    bool isKnown_ = false;              // used by the thread alone, as the next
    std::optional<PlannedEvent> event_; // as told last
    std::thread thread_;
};

} // namespace corvane::appliance

#endif
