// How the counters of the performance catalogue are called.

#include "apps/snmp/OrdaneClient.h"
#include "runtime/hask/performance_counters.h"

namespace SNMP {

const std::string OrdaneClient::sDISK_STATS_GRP = Hask::Counters::diskRead.group;
const std::string OrdaneClient::sNET_STATS_GRP = Hask::Counters::netReceived.group;
const std::string OrdaneClient::sMEM_STATS_GRP = Hask::Counters::memActive.group;
const std::string OrdaneClient::sCPU_STATS_GRP = Hask::Counters::cpuUsed.group;
const std::string OrdaneClient::sDISK_COUNTER_NUMREAD = Hask::Counters::diskNumberRead.name;
const std::string OrdaneClient::sDISK_COUNTER_NUMWRITE = Hask::Counters::diskNumberWrite.name;
const std::string OrdaneClient::sDISK_COUNTER_READ = Hask::Counters::diskRead.name;
const std::string OrdaneClient::sDISK_COUNTER_WRITE = Hask::Counters::diskWrite.name;
const std::string OrdaneClient::sNET_COUNTER_PKTRX = Hask::Counters::netPacketsRx.name;
const std::string OrdaneClient::sNET_COUNTER_PKTTX = Hask::Counters::netPacketsTx.name;
const std::string OrdaneClient::sNET_COUNTER_RX = Hask::Counters::netReceived.name;
const std::string OrdaneClient::sNET_COUNTER_TX = Hask::Counters::netTransmitted.name;
const std::string OrdaneClient::sCPU_COUNTER_USED = Hask::Counters::cpuUsed.name;
const std::string OrdaneClient::sMEM_COUNTER_ACTIVE = Hask::Counters::memActive.name;

std::string StatsName(const std::string& group, const std::string& counter) {
    return Hask::Counters::FullName(group, counter);
}

void PackStatsName(CounterList& list, const std::string& group, const std::string& counter, std::int32_t id) {
    list.emplace_back(StatsName(group, counter), id);
}

}  // namespace SNMP
