/// \file
/// Which partition (virtual machine or processor domain) of the telematics unit this
/// process runs in, told by the host name. Clients that act on the vehicle refuse to run on
/// the TPA partition.
///
/// Not thread safe: each user keeps its own instance (the file is tiny and read at most until
/// the partition is known).
#pragma once

#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi {

/// Tells the partition from the host name file. Not thread safe: one instance per thread,
/// or a lock around it.
class TAVI_EXPORT Partition {
public:
    /// The partitions of the unit.
    enum Type : int {
        UNKNOWN = 0,  ///< the host name names neither, or the file cannot be read
        TELE = 1,     ///< the host name contains "tele"
        TPA = 2,      ///< the host name contains "tpa": vehicle clients refuse to run
    };

    /// Applications use the default; tests and the platform simulator point it at a host
    /// name file of their own. Reads nothing yet.
    explicit Partition(std::string hostname_file = "/etc/hostname");
    virtual ~Partition() = default;

    /// The partition named by the first line of the host name file: "tele" anywhere in it
    /// means tele (checked first), otherwise "tpa" means TPA, otherwise unknown. A known
    /// result is cached; an unknown one is not, so a later call reads the file again.
    virtual Type identify_partition();

private:
    std::string m_hostname_file;
    Type m_partition = UNKNOWN;
};

}  // namespace ecu::tavi
