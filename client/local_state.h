/*
 * What the files of a service on this machine tell beyond its answers: its settings and the stored
 * event. Only read, never made: a client that looks must not leave folders behind.
 */
#ifndef CORVANE_CLIENT_LOCAL_STATE_H
#define CORVANE_CLIENT_LOCAL_STATE_H

#include "report.h"

#include "folders.h"
#include "settings_store.h"

#include <memory>
#include <optional>
#include <string>

namespace corvane::client {

/* The folders of this process's environment; throws CommandFailed. */
platform::Folders environmentFolders();

/* Whether a service or an appliance has ever kept its files in these folders. */
bool hasState(const platform::Folders &folders);

class LocalState {
public:
    explicit LocalState(const platform::Folders &folders);

    /* The value of an integer key. */
    Piece<int> integer(const std::string &key) const;

    /* The event of the service's table, or that there is none. */
    Piece<EventReport> event() const;

private:
    const platform::Folders folders_;
    std::unique_ptr<platform::SettingsStore> store_; // null: missing_ says why
    std::string missing_;
};

/* A row of the event table as an event; nothing when a field cannot be read. */
std::optional<StoredEvent> readEvent(const std::string &level, const std::string &duration,
                                     const std::string &startUtc);

} // namespace corvane::client

#endif
