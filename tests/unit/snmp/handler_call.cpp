#include "tests/unit/snmp/handler_call.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "apps/snmp/SNMPKelv.h"
#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPSystem.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/columns/Registration.h"

namespace {

template <class Value>
Value Read(const std::string& bytes) {
    Value value{};
    if (bytes.size() != sizeof(value)) {
        throw std::length_error("an answer of another size");
    }
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

}  // namespace

Oid Enterprise(const Oid& rest) {
    return Join({1, 3, 6, 1, 4, 1, 32473}, rest);
}

Oid Join(Oid first, const Oid& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string Answer::Text(u_char type) const {
    if (type == ASN_INTEGER) {
        return std::to_string(Read<int>(bytes));
    }
    if (type == ASN_COUNTER64) {
        const auto value = Read<counter64>(bytes);
        if ((value.high | value.low) >> 32U != 0) {
            throw std::range_error("each half of a Counter64 has 32 bits");
        }
        return std::to_string(value.high << 32U | value.low);
    }
    if (type != ASN_OBJECT_ID) {
        return bytes;
    }
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(oid)) {
        text += (at == 0 ? "" : ".") + std::to_string(Read<oid>(bytes.substr(at, sizeof(oid))));
    }
    return text;
}

Answer RegisteredVariable::Call(const Oid& request, bool exact) const {
    variable entry{};
    entry.magic = magic;
    entry.findVar = handler;
    entry.namelen = static_cast<u_char>(name.size());
    std::copy(name.begin(), name.end(), entry.name);

    std::array<oid, MAX_OID_LEN> buffer{};
    std::copy(request.begin(), request.end(), buffer.begin());
    std::size_t length = request.size();
    WriteMethod* writeMethod = [](int, u_char*, u_char, size_t, u_char*, oid*, size_t) { return 0; };

    Answer answer;
    answer.address = handler(&entry, buffer.data(), &length, exact ? 1 : 0, &answer.length, &writeMethod);
    answer.answered = answer.address != nullptr;
    answer.name.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length));
    answer.writeMethodNull = writeMethod == nullptr;
    if (answer.answered) {
        answer.bytes.assign(reinterpret_cast<const char*>(answer.address), answer.length);
    }
    return answer;
}

void RegisterGroups() {
    static const bool registered = [] {
        TestSupport::StartAgent();
        for (void (*const init)() :
             {init_SNMPVMInfo, init_SNMPVMNet, init_SNMPVMDisk, init_SNMPVMFloppyCD, init_SNMPResMem,
              init_SNMPResCPU, init_SNMPResDisk, init_SNMPResNet, init_SNMPKelvTbl, init_SNMPSystem}) {
            init();
        }
        return true;
    }();
    static_cast<void>(registered);
}

std::vector<RegisteredVariable> RegisteredVariables() {
    std::vector<const SNMP::Registration*> registrations;
    for (const auto* each = SNMP::Registration::First(); each != nullptr; each = each->Next()) {
        registrations.insert(registrations.begin(), each);
    }
    std::vector<RegisteredVariable> variables;
    for (const SNMP::Registration* const registration : registrations) {
        for (std::size_t i = 0; i < registration->Count(); ++i) {
            const variable* const entry = registration->Entry(i);
            const std::span<const oid> base = registration->Base();
            variables.push_back(
                {registration->NameOf(i),
                 Join({base.begin(), base.end()}, {entry->name, entry->name + entry->namelen}),
                 entry->findVar, entry->magic, static_cast<u_char>(entry->type)});
        }
    }
    return variables;
}

std::vector<RegisteredVariable> VariablesOf(FindVarMethod* handler) {
    std::vector<RegisteredVariable> variables = RegisteredVariables();
    std::erase_if(variables, [&](const RegisteredVariable& each) { return each.handler != handler; });
    return variables;
}

RegisteredVariable FindVariable(const std::string& label) {
    for (const RegisteredVariable& each : RegisteredVariables()) {
        if (each.label == label) {
            return each;
        }
    }
    throw std::out_of_range(label);
}
