// The module's one client of the local management daemon.
//
// Used on the agent's one request thread. A query turns a management exception into an empty result and a log
// line; of the statistics, those that resolve counters let one pass where the catalogue cannot be read. Every
// wait is bounded by the time budget in force.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "apps/snmp/client/Connection.h"
#include "apps/snmp/client/StatsIndex.h"
#include "runtime/hask/api.h"
#include "runtime/hask/performance_counters.h"

namespace SNMP {

// Pairs of "group.counter" and counter id; -1 while unresolved.
using CounterList = std::vector<std::pair<std::string, std::int32_t>>;

// Appends the pair (`group`.`counter`, `id`).
void PackStatsName(CounterList& list, const std::string& group, const std::string& counter, std::int32_t id);
// The list of `counters`, unresolved. Throws Ordane::Fault::SystemError, after a log line, unless they are
// ten.
CounterList MakeCounterList(std::span<const Hask::Counters::Counter> counters);

class OrdaneClient : public Tessim::ObjectImpl, public virtual Tessim::Object {
  public:
    static const std::string sDISK_STATS_GRP;
    static const std::string sNET_STATS_GRP;
    static const std::string sMEM_STATS_GRP;
    static const std::string sCPU_STATS_GRP;
    static const std::string sDISK_COUNTER_NUMREAD;
    static const std::string sDISK_COUNTER_NUMWRITE;
    static const std::string sDISK_COUNTER_READ;
    static const std::string sDISK_COUNTER_WRITE;
    static const std::string sNET_COUNTER_PKTRX;
    static const std::string sNET_COUNTER_PKTTX;
    static const std::string sNET_COUNTER_RX;
    static const std::string sNET_COUNTER_TX;
    static const std::string sCPU_COUNTER_USED;
    static const std::string sMEM_COUNTER_ACTIVE;

    // The value of a statistic that the last collection does not have.
    static constexpr std::int32_t unknownStatistic = -1;

    OrdaneClient() = default;
    ~OrdaneClient() override;

    // Connects and logs in, if not done already. With a writer the connection creates a logger on it, without
    // one it uses the application's. Returns false, after a log line, on failure. A connection that a parent
    // process made is replaced by one of this process.
    bool Init(Tessim::Writer* writer);
    // Whether Init has succeeded in this process and no query found the connection broken since.
    bool IsInitialized() const;
    // Drops a connection on which no query can succeed: its end has arrived, it is broken, or the daemon has
    // accepted no login. Returns whether it did. The next query connects anew. Does not wait.
    bool DropUselessConnection();

    // Every VM of the host in the folder's order. Null on failure; VMs listed before an error stay.
    void GetAllVM(Tessim::Ref<Ordane::DataArray<Hask::VirtualMachine>>& out);
    // The daemon's product and its managers. Null on failure. Fetched until it comes from a session and names
    // the product; then kept for the life of the process.
    void GetServiceInstanceContent(Tessim::Ref<Hask::ServiceInstanceContent>& out);
    // Whether that content is kept.
    bool IsServiceInstanceContentKept() const { return static_cast<bool>(serviceContent); }
    // The information of the datastore with the id `datastore`; its type tells the kind. Null on failure.
    void GetDatastoreInfo(const std::string& datastore, Tessim::Ref<Hask::Datastore::Info>& out);
    // The host's CPU cores, truncated to a signed 16-bit count; cached for the process, whatever its client,
    // once it is not 0. 0 on failure.
    int GetNumCpuCores();
    // The service console's memory in kilobytes; 0 on failure. `reserved` is in bytes on the call that
    // fetches it and in kilobytes on the later ones, cached for the process: managers rely on these values.
    std::int64_t GetMemoryReservation(std::int64_t& reserved);

    // The performance manager, or null when the service has none.
    void GetPerfManager(Tessim::Ref<Hask::PerformanceManager>& out);
    // The ten counters with their ids, resolved on the client's first use; empty without a performance
    // manager. Throws Tessim::Exception when the daemon's catalogue cannot be read; so do the next three.
    const CounterList& GetAvailableCounterIds();
    // One metric per counter, each for every instance ("*"). Virtual for the tests of a client without
    // metrics.
    virtual void GetQueryMetricIds(Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::MetricId>>& out);
    // The counter's id, or -1.
    std::int32_t GetCounterIdFromName(const std::string& group, const std::string& counter);
    // Replaces the statistics that RetrieveStats returns by the latest of `vms`, with one query. Null only
    // drops them. A failed query is logged and leaves none, or those that arrived before the failure.
    void CollectVMStats(Ordane::DataArray<Hask::VirtualMachine>* vms);
    // The first sample of the first series of that entity, counter and instance; a null instance matches any.
    // unknownStatistic, and a log line, when there is none.
    std::int64_t RetrieveHCStats(Ordane::MoRef* entity, const std::string& group, const std::string& counter,
                                 const char* instance);
    std::int64_t RetrieveHCStats(Ordane::MoRef* entity, const std::string& group, const std::string& counter,
                                 int instance);
    // The low 32 bits of the same.
    std::int32_t RetrieveStats(Ordane::MoRef* entity, const std::string& group, const std::string& counter,
                               const char* instance);
    std::int32_t RetrieveStats(Ordane::MoRef* entity, const std::string& group, const std::string& counter,
                               int instance);

  protected:
    // Adds one result of the query to the statistics, whose array of values must not be null. Virtual for the
    // tests of collections that fail halfway.
    virtual void AddResult(Hask::PerformanceManager::EntityMetric* metric);

  private:
    // The next query makes a new connection.
    void DropConnection();
    // Runs one query; see OrdaneClient.cpp.
    template <class Query>
    void RunQuery(const char* name, const char* brokenName, Query query);

    Tessim::Ref<Connection> connection;
    Tessim::Ref<Hask::ServiceInstanceContent> serviceContent;
    Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::EntityMetric>> entityMetrics;
    StatsIndex statsIndex;  // over entityMetrics
    bool initialized = false;
    bool countersResolved = false;
};

// The process-wide client, connected and logged in; null, and a log line, when it cannot be. The next call
// tries again. The client belongs to the process and is never destroyed.
OrdaneClient* GetOrdaneClient();

}  // namespace SNMP
