// How the counters of the performance catalogue are called.

#include "apps/snmp/OrdaneClient.h"

namespace SNMP {

const std::string OrdaneClient::sDISK_STATS_GRP = "disk";
const std::string OrdaneClient::sNET_STATS_GRP = "net";
const std::string OrdaneClient::sMEM_STATS_GRP = "mem";
const std::string OrdaneClient::sCPU_STATS_GRP = "cpu";
const std::string OrdaneClient::sDISK_COUNTER_NUMREAD = "numberRead";
const std::string OrdaneClient::sDISK_COUNTER_NUMWRITE = "numberWrite";
const std::string OrdaneClient::sDISK_COUNTER_READ = "read";
const std::string OrdaneClient::sDISK_COUNTER_WRITE = "write";
const std::string OrdaneClient::sNET_COUNTER_PKTRX = "packetsRx";
const std::string OrdaneClient::sNET_COUNTER_PKTTX = "packetsTx";
const std::string OrdaneClient::sNET_COUNTER_RX = "received";
const std::string OrdaneClient::sNET_COUNTER_TX = "transmitted";
const std::string OrdaneClient::sCPU_COUNTER_USED = "used";
const std::string OrdaneClient::sMEM_COUNTER_ACTIVE = "active";

std::string StatsName(const std::string& group, const std::string& counter) {
    return group + "." + counter;
}

void PackStatsName(CounterList& list, const std::string& group, const std::string& counter, std::int32_t id) {
    list.emplace_back(StatsName(group, counter), id);
}

}  // namespace SNMP
