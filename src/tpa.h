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

}  // namespace ecu::tavi::_internal
