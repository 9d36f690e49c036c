/*
 * One service at a time on one pair of folders: two would work on the same event and commands.
 *
 * The lock files stay; what counts is the kernel's lock on them, which goes with the process
 * however it ends, so that a service can be started again at once after a kill.
 */
#ifndef CORVANE_PLATFORM_LINUX_INSTANCE_LOCK_H
#define CORVANE_PLATFORM_LINUX_INSTANCE_LOCK_H

#include "folders.h"

#include <array>

namespace corvane::platform {

class InstanceLock {
public:
    InstanceLock() = default;
    ~InstanceLock();
    InstanceLock(const InstanceLock &) = delete;
    InstanceLock &operator=(const InstanceLock &) = delete;

    /* Takes both folders, which must exist, until this object goes. EWOULDBLOCK when another
     * service has one of them; the text then names the variable to set. Call once. */
    Status take(const Folders &folders);

private:
    std::array<int, 2> descriptors_{-1, -1}; // of the state and the runtime folder
};

} // namespace corvane::platform

#endif
