/// \file
/// A local, editable copy of the unit's system parameter table, which the variable service
/// owns: fetch it, read single entries or all, replace or merge entries locally, then write
/// the whole table back and check that the service took every changed value. On the TPA
/// partition the table is read-only: set_all() and merge() refuse.
///
/// Thread safe. The calls that wait for the table (fetch, retrieve_all, write, and get,
/// get_all and merge when they have to fetch first) refuse at once with an ERROR line when
/// made on the transport's network thread, i.e. inside an observer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/partition.h"
#include "ecu/tavi/pb/sysparams.pb.h"

namespace ecu::tavi::var {

/// Reads and writes the unit's system parameter table.
///
/// Made by create_sysparams_client(); holds the transport and subscribes the published table
/// ("system/sysparams") for its life; destroy it on any thread but the network thread.
///
/// Surprising: every table the service publishes replaces the local copy as it arrives,
/// also one another application caused, and local changes not yet written are then lost.
/// Change and write in quick succession.
class TAVI_EXPORT SysParamsClient {
public:
    /// Entries by parameter id.
    using Table = std::map<unsigned int, pb::SystemParameterEntry>;

    /// The outcome of write().
    enum WriteStatus : int {
        WRITTEN = 0,           ///< every entry read back equal
        NOTHING_CHANGED = 1,   ///< no set_all()/merge() since the table was last lost
        EMPTY = 2,             ///< no table was ever received
        NOT_ALL_WRITTEN = 3,   ///< the entries in `unverified` read back differently
        NOT_RECEIVED = 4,      ///< no table came back, or refused on the network thread
        SERIALIZE_FAILED = 5,  ///< the table could not be framed
    };
    /// What write() achieved.
    struct WriteResult {
        bool success = false;  ///< true exactly for WRITTEN
        Table unverified;      ///< entries written that read back differently or not at all
        int status = EMPTY;    ///< a WriteStatus
    };

    /// Subscribes to the published table; does not fetch. The transport must not be empty.
    explicit SysParamsClient(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes the table.
    virtual ~SysParamsClient();
    SysParamsClient(const SysParamsClient&) = delete;
    SysParamsClient& operator=(const SysParamsClient&) = delete;

    /// Empties the local table and asks the service for it; blocks until it arrives or the
    /// receive time-out passes (see retrieve_all()).
    virtual void fetch();
    /// The entry with this id, and whether there is one. Fetches first when forced or when
    /// nothing has been received; (false, empty entry) when that is refused on the network
    /// thread.
    virtual std::pair<bool, pb::SystemParameterEntry> get(unsigned int id, bool force);
    /// A copy of the whole local table, fetched first as get() does; empty when that fails.
    virtual Table get_all(bool force);
    /// Replaces the local table. Refused (ERROR line) on the TPA partition.
    virtual void set_all(const Table& table);
    /// Overlays entries onto the local table, fetching it first when it is empty. Refused
    /// (ERROR line) on the TPA partition.
    virtual void merge(const Table& table);
    /// Publishes the whole local table, fetches it again and compares; blocks for up to the
    /// receive time-out. The table that comes back replaces the local one.
    virtual WriteResult write();

    /// For later fetches; 60 s unless set.
    void set_receive_timeout(int ms);
    /// One request for the table and its answer. When no table arrives in time, or the call
    /// is refused on the network thread, the local table is emptied (WARNING line) and
    /// counts as unchanged.
    void retrieve_all();

    /// Receives the tables on the transport's network thread; points back to the client.
    class PublishObserver;

private:
    void retrieve(const char* call);
    void received(const std::string& topic, const com::Message& message);
    bool refused_on_tpa(const char* text);
    bool empty();
    /// False when refused on the network thread.
    bool fetch_if_needed(bool force, const char* call);

    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<PublishObserver> m_observer;
    Table m_table;
    std::mutex m_table_mutex;
    std::condition_variable m_received;
    std::mutex m_receive_mutex;
    std::atomic<int> m_receive_timeout_ms;
    bool m_dirty = false;
    Partition m_partition;
    /// Tables (or undecodable attempts) received so far, under the receive mutex.
    std::uint64_t m_tables = 0;
};

/// Empty, with an ERROR line, without a transport. Works on the TPA partition too, where the
/// table can be read but not changed.
TAVI_EXPORT std::shared_ptr<SysParamsClient> create_sysparams_client(
    std::shared_ptr<com::ITransportClient> transport);

}  // namespace ecu::tavi::var
