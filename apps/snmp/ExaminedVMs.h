// The VMs that a rebuild looks at.
#pragma once

#include "runtime/hask/api.h"

namespace SNMP {

// Two arrays of one length: element k of `configs` is the configuration of element k of `vms`.
struct ExaminedVMs {
    Tessim::Ref<Ordane::DataArray<Hask::VirtualMachine>> vms =
        Tessim::MakeRef<Ordane::DataArray<Hask::VirtualMachine>>();
    Tessim::Ref<Ordane::DataArray<Hask::Vm::ConfigInfo>> configs =
        Tessim::MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo>>();
};

// The VMs that have a configuration, in order. Asks the daemon for each; what that throws passes on.
ExaminedVMs Examine(const Ordane::DataArray<Hask::VirtualMachine>& allVms);

}  // namespace SNMP
