// Where the daemon is reached, and the ids of its singleton objects. Constants; threads may share them.
#pragma once

#include <cstdint>
#include <string>

namespace Hask::HostAgent {

inline constexpr std::uint16_t port = 902;  // TCP, on the loopback address
// The path of the API, in each HTTP request of a stream that the preamble opened.
inline const std::string apiPath = "/tesk/api/ordane/";

// Published by tovric-vessad.

inline const std::string moid_serviceinstance = "ServiceInstance";
inline const std::string moid_sessionmanager = "ha-sessionmgr";
inline const std::string moid_perfmanager = "ha-perfmgr";
inline const std::string moid_vmfolder = "ha-folder-vm";
inline const std::string moid_hostsystem = "ha-host";
inline const std::string moid_memorymanagersystem = "memoryManagerSystem";

// Reserved: known to clients, not published.

inline const std::string moid_cpuschedulersystem = "cpuSchedulerSystem";
inline const std::string moid_firewallsystem = "firewallSystem";
inline const std::string moid_servicesystem = "serviceSystem";
inline const std::string moid_networksystem = "networkSystem";
inline const std::string moid_datetimesystem = "dateTimeSystem";
inline const std::string moid_storagesystem = "storageSystem";
inline const std::string moid_filesystem = "filesystem";
inline const std::string moid_diagnosticsystem = "diagnosticsystem";
inline const std::string moid_kelvrawdiskmapsystem = "kelvrawdiskmapsystem";
inline const std::string moid_mockupsystem = "ha-hostsvc-mockupsystem";
inline const std::string moid_kelvsupportsystem = "kelvsupportsystem";
inline const std::string moid_bootdevicesystem = "bootDeviceSystem";
inline const std::string moid_kernelmodulesystem = "kernelModuleSystem";
inline const std::string moid_healthstatussystem = "healthStatusSystem";

}  // namespace Hask::HostAgent
