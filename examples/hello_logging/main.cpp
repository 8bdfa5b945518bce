// A tiny application: read a configuration file, configure logging from it and log
// through named modules.
#include <fstream>
#include <iostream>

#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"

using namespace ecu::tavi;

// Modules are created once at start-up, before the configuration switches them on or off.
static const auto s_app = logging::module("app.main");
static const auto s_sensor = logging::module("app.sensor");

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: " << argv[0] << " <configuration file>\n";
        return 2;
    }
    std::ifstream file(argv[1]);
    if (!file) {
        std::cerr << "cannot open " << argv[1] << "\n";
        return 1;
    }
    auto configuration = config::Configuration::create_from_input(file);
    if (!configuration->verify()) {
        return 1;
    }
    logging::configure_logging("");
    logging::set_from_config(configuration);

    logging::NOTICE << s_app << "client " << configuration->get("client_name") << " starting";
    logging::NOTICE.do_flush();
    logging::INFO << s_sensor << "temperature " << 21.5 << " C";
    logging::INFO.do_flush();
    logging::DEBUG << s_sensor << "raw value " << 0x1234;
    logging::DEBUG.do_flush();
    logging::warning(s_app, "printf-style line from %s\n", "app.main");
    return 0;
}
