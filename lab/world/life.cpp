/*
 * The service is started through its own main function, which the build has renamed.
 */
#include "life.h"

#include "fakes.h"
#include "storage.h"
#include "virtual_time.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

extern "C" int serviceMain(int argc, char **argv);

namespace corvane::lab {

void preparePlatform(Disk &disk) {
    fakes::reset();
    disk.install();
    disk.forgetLocks();
    fakes::storage::mountAt("/lab");
}

void silenceOutput() {
    std::fflush(stdout);
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nothing, STDOUT_FILENO);
    close(nothing);
}

std::thread startService() {
    return std::thread([] {
        virtualtime::nameThread("main loop");
        char name[] = "corvane";
        char *arguments[] = {name, nullptr};
        serviceMain(1, arguments);
    });
}

Judge::Remains finishTime() {
    const virtualtime::Summary summary = virtualtime::finish();
    Judge::Remains remains;
    for (const std::string &thread : summary.leakedThreads)
        remains.threads += (remains.threads.empty() ? "" : "; ") + thread;
    remains.locks = summary.locksHeld;
    return remains;
}

} // namespace corvane::lab
