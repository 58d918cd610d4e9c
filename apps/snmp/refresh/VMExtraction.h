// Turns the management API's view of a VM into configuration rows.
//
// `index` is the VM's position among the examined VMs, which every row of it carries. A list filler appends
// through the list's cursor (see ListFiller.h) and returns the list's last row, null while the list is empty;
// a row that cannot be allocated is logged and ends that filler. Arrays of devices must not be null, nor may
// their elements. Exceptions of the management API are not caught. Used on the agent's one request thread.
#pragma once

#include <string>

#include "apps/snmp/collections/Rows.h"
#include "runtime/hask/api.h"

template <class Device>
using DeviceArray = Ordane::DataArray<Device>;

// Returns the VM's managed-object id as a number, or -1, logged once per VM and rebuild, when it is not one.
int GetVMID(Hask::VirtualMachine* vm);
// Makes GetVMID log every VM again. Called at the start of a rebuild.
void ClearReportedVMID();

// Fills rows[index]. Returns whether the VM is not powered off.
bool SetVMInfo(int index, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config, vmEntry* rows);

// Turns the datastore path `dsPath`, "[name] relative/path", into a path on the host: `result` becomes the
// URL of the first of `pairs` with that name, followed directly by the relative path. Without a name it is
// the relative path; with an unknown one, or in any other form, `dsPath` as it was. `dsPath` is left in an
// unspecified state.
void GetPathFromDsPath(Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>* pairs, std::string& dsPath,
                       std::string& result);

// Appends the devices of `hardware` (may be null) to the six arrays, which must exist, each in device order.
// A subtype counts as its base; other devices are ignored.
void FindVirtualDevices(const Hask::Vm::VirtualHardware* hardware,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualEthernetCard>>& nics,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualSCSIController>>& scsiControllers,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualDisk>>& disks,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualIDEController>>& ideControllers,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualCdrom>>& cdroms,
                        Tessim::Ref<DeviceArray<Hask::Vm::Device::VirtualFloppy>>& floppies);

vmNetNode* SetNicInfo(int index, DeviceArray<Hask::Vm::Device::VirtualEthernetCard>* nics,
                      vmNetNode** cursor);
vmHBANode* SetStorageHBA(int index, DeviceArray<Hask::Vm::Device::VirtualSCSIController>* controllers,
                         vmHBANode** cursor);
vmHBATgtNode* SetStorageTgt(int index, DeviceArray<Hask::Vm::Device::VirtualDisk>* disks,
                            vmHBATgtNode** cursor);
vmCDROMNode* SetCDRomInfo(int index, DeviceArray<Hask::Vm::Device::VirtualIDEController>* ideControllers,
                          DeviceArray<Hask::Vm::Device::VirtualCdrom>* cdroms, vmCDROMNode** cursor);
vmFloppyNode* SetFloppyInfo(int index, DeviceArray<Hask::Vm::Device::VirtualFloppy>* floppies,
                            vmFloppyNode** cursor);

// Returns the backing's device or file name; empty for null and for a backing of another kind.
std::string GetDeviceBackingName(Hask::Vm::Device::VirtualDevice::BackingInfo* backing);

// Returns the device's label, owned by the device; null when the device carries no information.
const char* GetDeviceLabel(const Hask::Vm::Device::VirtualDevice& device);
