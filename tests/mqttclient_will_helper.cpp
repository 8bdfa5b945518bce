// Helper process for the will test: connects a transport with a will and then dies without
// disconnecting, which is the only way to make the broker send a will.
//
// Usage: mqttclient_will_helper PORT TOPIC PAYLOAD set|clear
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/config/configuration.h"
#include "mqttclient.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        return 64;
    }
    std::istringstream text(std::string("client_name = will-helper\nhost = 127.0.0.1\nport = ") +
                            argv[1] + "\n");
    auto config = ecu::tavi::config::Configuration::create_from_input(text);
    if (!config->verify()) {
        return 65;
    }
    ecu::tavi::com::MqttClient client(config);
    ecu::tavi::com::Message will(argv[3], std::strlen(argv[3]));
    will.set_qos(1);
    if (!client.set_will(argv[2], will)) {
        return 66;
    }
    if (std::strcmp(argv[4], "clear") == 0 && !client.clear_will()) {
        return 67;
    }
    if (!client.connect()) {
        return 68;
    }
    ::_exit(0);
}
