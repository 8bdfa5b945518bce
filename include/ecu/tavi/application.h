/// \file
/// Tells the service manager (systemd) how far the application's start-up has come, so
/// that units ordered after it start only once it is ready.
/// Thread safe; without a service manager the calls only log.
#pragma once

#include "ecu/tavi/export.h"

namespace ecu::tavi {

/// Reports "READY=0": the application is starting and not ready yet. Logs an INFO line;
/// a failed notification is not reported.
TAVI_EXPORT void application_starting();
/// Reports "READY=1": typically after the transport's wait_ready() succeeded. Logs an INFO
/// line; a failed notification is not reported.
TAVI_EXPORT void application_ready();

}  // namespace ecu::tavi
