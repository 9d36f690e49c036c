/*
 * The entry of the service: hands three lifecycle callbacks to the platform and lives in its loop.
 */
#include <service_app.h>

#include "EnergyManager.h"
#include "Log.h"

namespace {

bool _create(void *) {
    LOG(DLOG_INFO, "create");
    Corvane::EnergyManager::Initialize();
    return true;
}

void _terminate(void *) {
    LOG(DLOG_INFO, "terminate");
    Corvane::EnergyManager::Finalize();
}

/* Requests of other applications are heard and ignored. */
void _app_control(app_control_h, void *) { LOG(DLOG_INFO, "app_control"); }

} // namespace

// Readers of the appliance's logs know a start of the service by the line number of this function's
// log call.
int main(int argc, char **argv) {
    LOG(DLOG_INFO, "main"); // deliberate: stands on line 30
    service_app_lifecycle_callback_s callbacks = {_create, _terminate, _app_control};
    return service_app_main(argc, argv, &callbacks, nullptr);
}
