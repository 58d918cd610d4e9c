// Turns a VM's configuration, devices and performance figures into resource rows.
//
// A filler appends through the list's cursor (see ListFiller.h) and returns the list's last row, null while
// the list is empty; a row that cannot be allocated is logged and ends that filler. A figure that is not
// there is -1. Exceptions of the management API pass on.
#pragma once

#include "apps/snmp/OrdaneClient.h"
#include "apps/snmp/Rows.h"
#include "runtime/hask/api.h"

// A row per virtual CPU. Its key is the VM's id plus the CPU's number, so keys of VMs with close ids collide;
// managers know the rows by these keys.
resCPUNode* SetCPUResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resCPUNode** cursor);
resMemNode* SetMemResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resMemNode** cursor);
// A row per disk, numbered from 1 across all VMs; disks on a datastore of another kind than the cluster file
// system have none.
resDiskNode* SetDiskResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm,
                             Ordane::DataArray<Hask::Vm::Device::VirtualDisk>* disks, resDiskNode** cursor);
// A row per network card, numbered from 1 across all VMs.
resNetNode* SetNetResource(SNMP::OrdaneClient* client, Hask::VirtualMachine* vm,
                           Ordane::DataArray<Hask::Vm::Device::VirtualEthernetCard>* nics,
                           resNetNode** cursor);
