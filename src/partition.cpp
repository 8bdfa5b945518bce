#include "ecu/tavi/partition.h"

#include <fstream>
#include <mutex>
#include <utility>

#include "partition_internal.h"

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

namespace ecu::tavi::_internal {

namespace {
std::mutex s_hostname_mutex;
std::string s_hostname_file = "/etc/hostname";
}  // namespace

void set_partition_hostname_file(std::string path) {
    std::lock_guard<std::mutex> lock(s_hostname_mutex);
    s_hostname_file = std::move(path);
}

bool refuse_vehicle_client(bool has_transport, const std::shared_ptr<logging::LogModule>& log,
                           const char* tpa_refusal) {
    std::string file;
    {
        std::lock_guard<std::mutex> lock(s_hostname_mutex);
        file = s_hostname_file;
    }
    if (Partition(file).identify_partition() == Partition::TPA) {
        logging::ERROR << log << tpa_refusal;
    } else if (!has_transport) {
        logging::ERROR << log << "Cannot create the client without a transport client";
    } else {
        return false;
    }
    logging::ERROR.do_flush();
    return true;
}

}  // namespace ecu::tavi::_internal
