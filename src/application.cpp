#include "ecu/tavi/application.h"

#include <systemd/sd-daemon.h>

#include "ecu/tavi/logging/logging.h"

namespace ecu::tavi {
namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.platform");

}  // namespace

// NOTIFY_SOCKET stays set, so both notifications reach the service manager; a failed
// notification changes nothing for the application and is therefore not reported.
void application_starting() {
    sd_notify(0, "READY=0");
    INFO << s_log << "Application starting...";
    INFO.do_flush();
}

void application_ready() {
    sd_notify(0, "READY=1");
    INFO << s_log << "Application ready!";
    INFO.do_flush();
}

}  // namespace ecu::tavi
