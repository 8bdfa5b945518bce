// Links the installed library and prints its version.
#include <iostream>
#include <sstream>

#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"

int main() {
    std::istringstream text("client_name = consumer\n");
    auto configuration = ecu::tavi::config::Configuration::create_from_input(text);
    if (!configuration->verify()) {
        return 1;
    }
    ecu::tavi::logging::set_log_mode(ecu::tavi::logging::STDOUT);
    ecu::tavi::logging::notice("consumer linked against murntavi, client %s\n",
                               configuration->get("client_name").c_str());
    return 0;
}
