// The counters of the performance catalogue that the agent module reads.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "runtime/hask/api.h"

namespace Hask::Counters {

struct Counter {
    const char* group;
    const char* name;  // unique within its group
    PerformanceManager::RollupType rollup;
};

inline constexpr Counter diskNumberRead{"disk", "numberRead", PerformanceManager::RollupType::summation};
inline constexpr Counter diskNumberWrite{"disk", "numberWrite", PerformanceManager::RollupType::summation};
inline constexpr Counter diskRead{"disk", "read", PerformanceManager::RollupType::summation};
inline constexpr Counter diskWrite{"disk", "write", PerformanceManager::RollupType::summation};
inline constexpr Counter netReceived{"net", "received", PerformanceManager::RollupType::summation};
inline constexpr Counter netTransmitted{"net", "transmitted", PerformanceManager::RollupType::summation};
inline constexpr Counter netPacketsTx{"net", "packetsTx", PerformanceManager::RollupType::summation};
inline constexpr Counter netPacketsRx{"net", "packetsRx", PerformanceManager::RollupType::summation};
inline constexpr Counter memActive{"mem", "active", PerformanceManager::RollupType::latest};
inline constexpr Counter cpuUsed{"cpu", "used", PerformanceManager::RollupType::summation};

// All of them, in the order in which the module queries them.
inline constexpr std::array standard{diskNumberRead, diskNumberWrite, diskRead,     diskWrite, netReceived,
                                     netTransmitted, netPacketsTx,    netPacketsRx, memActive, cpuUsed};

// The name of a counter within the whole catalogue: "group.name".
inline std::string FullName(std::string_view group, std::string_view name) {
    return std::string(group).append(".").append(name);
}

}  // namespace Hask::Counters
