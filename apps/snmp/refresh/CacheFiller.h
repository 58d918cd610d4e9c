// Fills the ten tables from the API objects of the VMs.
#pragma once

#include "apps/snmp/client/OrdaneClient.h"
#include "runtime/hask/api.h"

namespace SNMP {

// Appends the rows of every VM, in order, to the collections, which must be empty. Element k of `configs` is
// the configuration of element k of `vms`; arrays of unequal length throw Ordane::Fault::SystemError after a
// log line. Returns whether the tables are filled: without memory for the VM rows, which is logged, they are
// empty. Throws Tessim::Exception when the daemon fails. Used on the agent's one request thread.
bool FillTables(OrdaneClient* client, Ordane::DataArray<Hask::VirtualMachine>* vms,
                Ordane::DataArray<Hask::Vm::ConfigInfo>* configs);

}  // namespace SNMP
