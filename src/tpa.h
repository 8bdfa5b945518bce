// Operations that change the platform (boot banks, system parameters, diagnostics) are
// refused on the TPA partition, with an ERROR line of the client's own.
#pragma once

#include <memory>

#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/partition.h"
#include "overrides.h"

namespace ecu::tavi::_internal {

// The partition of a client, read from the host name file in effect when it was made.
inline Partition client_partition() {
    return Partition(hostname_file());
}

// True, with `text` as an ERROR line, on the TPA partition. Partition is not thread safe:
// the caller holds the lock that guards it.
inline bool refuse_on_tpa(Partition& partition, const std::shared_ptr<logging::LogModule>& log,
                          const char* text) {
    if (partition.identify_partition() != Partition::TPA) {
        return false;
    }
    logging::ERROR << log << text;
    logging::ERROR.do_flush();
    return true;
}

// True, with an ERROR line in `log`, when a client that acts on the vehicle must not be
// created: on the TPA partition (the line is `tpa_refusal`) or without a transport. The host
// name file is read on every call: creating a client is rare.
inline bool refuse_vehicle_client(bool has_transport,
                                  const std::shared_ptr<logging::LogModule>& log,
                                  const char* tpa_refusal) {
    Partition partition = client_partition();
    if (refuse_on_tpa(partition, log, tpa_refusal)) {
        return true;
    }
    if (has_transport) {
        return false;
    }
    logging::ERROR << log << "Cannot create the client without a transport client";
    logging::ERROR.do_flush();
    return true;
}

}  // namespace ecu::tavi::_internal
