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

std::string Counter64Text(const counter64& value) {
    if (value.high > 0xffffffff || value.low > 0xffffffff) {
        throw std::range_error("each half of a Counter64 has 32 bits");
    }
    return std::to_string(std::uint64_t{value.high} << 32 | value.low);
}

std::string ObjectIdText(const std::string& bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(oid)) {
        text += (at == 0 ? "" : ".") + std::to_string(Read<oid>(bytes.substr(at, sizeof(oid))));
    }
    return text;
}

}  // namespace

Oid Enterprise(const Oid& rest) {
    return Join({1, 3, 6, 1, 4, 1, 32473}, rest);
}

Oid Join(Oid first, const Oid& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string Answer::BytesNow() const {
    return {reinterpret_cast<const char*>(address), bytes.size()};
}

std::string Answer::Text(u_char type) const {
    switch (type) {
        case ASN_INTEGER:
            return std::to_string(Read<int>(bytes));
        case ASN_COUNTER64:
            return Counter64Text(Read<counter64>(bytes));
        case ASN_OBJECT_ID:
            return ObjectIdText(bytes);
        default:
            return bytes;
    }
}

Answer RegisteredVariable::Get(const Oid& instance) const {
    return Call(Join(name, instance), 1);
}
Answer RegisteredVariable::GetName(const Oid& request) const {
    return Call(request, 1);
}
Answer RegisteredVariable::GetNext(const Oid& instance) const {
    return Call(Join(name, instance), 0);
}
Answer RegisteredVariable::GetNextName(const Oid& request) const {
    return Call(request, 0);
}

std::vector<Oid> RegisteredVariable::Walk() const {
    std::vector<Oid> instances;
    for (Answer answer = GetNext({}); answer.answered; answer = GetNextName(answer.name)) {
        if (answer.name.size() < name.size() || !std::equal(name.begin(), name.end(), answer.name.begin())) {
            throw std::range_error("an answer outside its column");
        }
        instances.emplace_back(answer.name.begin() + static_cast<std::ptrdiff_t>(name.size()),
                               answer.name.end());
        if (instances.size() > 1000) {
            throw std::runtime_error("an endless walk");
        }
    }
    return instances;
}

RegisteredVariable RegisteredVariable::WithMagic(int other) const {
    RegisteredVariable variable = *this;
    variable.magic = static_cast<u_char>(other);
    return variable;
}

Answer RegisteredVariable::Call(const Oid& request, int exact) const {
    variable entry{};
    entry.magic = magic;
    entry.findVar = handler;
    entry.namelen = static_cast<u_char>(name.size());
    std::copy(name.begin(), name.end(), entry.name);

    std::array<oid, MAX_OID_LEN> buffer{};
    std::copy(request.begin(), request.end(), buffer.begin());
    std::size_t length = request.size();
    // Values that a handler must have overwritten.
    std::size_t varLen = 99999;
    WriteMethod* writeMethod = [](int, u_char*, u_char, size_t, u_char*, oid*, size_t) { return 0; };

    Answer answer;
    const u_char* const bytes = handler(&entry, buffer.data(), &length, exact, &varLen, &writeMethod);
    answer.name.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length));
    answer.writeMethodNull = writeMethod == nullptr;
    if (bytes != nullptr) {
        answer.answered = true;
        answer.address = bytes;
        answer.bytes.assign(reinterpret_cast<const char*>(bytes), varLen);
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
                 entry->findVar, entry->magic, static_cast<u_char>(entry->type), entry->acl});
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
