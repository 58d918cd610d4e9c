#include "apps/snmp/ExaminedVMs.h"

namespace SNMP {

ExaminedVMs Examine(const Ordane::DataArray<Hask::VirtualMachine>& allVms) {
    ExaminedVMs examined;
    for (const Tessim::Ref<Hask::VirtualMachine>& vm : allVms) {
        Tessim::Ref<Hask::Vm::ConfigInfo> config;
        vm->GetConfig(config);
        if (config) {
            examined.vms->Append(vm);
            examined.configs->Append(config);
        }
    }
    return examined;
}

}  // namespace SNMP
