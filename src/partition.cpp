#include "ecu/tavi/partition.h"

#include <fstream>

namespace ecu::tavi {

Partition::Partition(std::string hostname_file) : m_hostname_file(std::move(hostname_file)) {}

Partition::Type Partition::identify_partition() {
    if (m_partition != UNKNOWN) {
        return m_partition;
    }
    std::ifstream file(m_hostname_file);
    std::string line;
    if (file && std::getline(file, line)) {
        if (line.find("tele") != std::string::npos) {
            m_partition = TELE;
        } else if (line.find("tpa") != std::string::npos) {
            m_partition = TPA;
        }
    }
    return m_partition;
}

}  // namespace ecu::tavi
