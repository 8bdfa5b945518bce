// The partition as the clients that act on the vehicle see it, and their refusal to be
// created on the TPA partition.
#pragma once

#include <memory>
#include <string>

#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/partition.h"

namespace ecu::tavi::_internal {

// The host name file the refusal reads; the project's tests point it at a file of their own.
void set_partition_hostname_file(std::string path);

// True, with an ERROR line in `log`, when a client that acts on the vehicle must not be
// created: on the TPA partition (the line is `tpa_refusal`) or without a transport. The host
// name file is read on every call: creating a client is rare.
bool refuse_vehicle_client(bool has_transport, const std::shared_ptr<logging::LogModule>& log,
                           const char* tpa_refusal);

}  // namespace ecu::tavi::_internal
