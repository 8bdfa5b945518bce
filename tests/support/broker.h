// The tests' broker is the one the simulator's test kit ships to application developers:
// a real mosquitto on free loopback ports that a test can stop, kill, pause and restart.
#pragma once

#include "ecu/tavi/sim/broker.h"

namespace ecu::tavi::test {
using sim::Broker;
using sim::BrokerOptions;
using sim::TlsFiles;
}  // namespace ecu::tavi::test
