// Turns a VM's configuration, devices and statistics into resource rows.
//
// A filler appends through the list's cursor (see ListFiller.h) and returns the list's last row, null while
// the list is empty; a row that cannot be allocated is logged and ends that filler. An unknown statistic
// is -1. Exceptions of the management API are not caught. The fillers of CPUs, disks and cards throw
// Tessim::TimeoutException when the time budget is spent, StreamException when the agent is being terminated.
// Arguments are borrowed for the call and not null. Used on the agent's one request thread.
#pragma once

#include "apps/snmp/client/OrdaneClient.h"
#include "apps/snmp/collections/Rows.h"
#include "runtime/hask/api.h"

// A row per virtual CPU. Its key is the VM's id plus the CPU's number, so keys of VMs with close ids collide;
// managers know the rows by these keys.
resCPUNode* SetCPUResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resCPUNode** cursor);
resMemNode* SetMemResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resMemNode** cursor);
// A row per disk, numbered from 1 across all VMs; disks on a datastore that is not a DrellDatastoreInfo are
// skipped.
resDiskNode* SetDiskResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm,
                             Ordane::DataArray<Hask::Vm::Device::VirtualDisk>* disks, resDiskNode** cursor);
// A row per network card, numbered from 1 across all VMs.
resNetNode* SetNetResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm,
                           Ordane::DataArray<Hask::Vm::Device::VirtualEthernetCard>* nics,
                           resNetNode** cursor);
