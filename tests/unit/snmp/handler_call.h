// Calls the handlers of the registered variables the way the agent does.
#pragma once

#include <string>
#include <vector>

#include "tests/support/in_process_agent.h"

using TestSupport::Oid;

// 1.3.6.1.4.1.32473, then `rest`.
Oid Enterprise(const Oid& rest);

// `first`, then `second`.
Oid Join(Oid first, const Oid& second);

// A handler's answer, copied at once.
struct Answer {
    static constexpr std::size_t unset = 99999;

    Oid name;                         // the request's OID afterwards
    std::size_t length = unset;       // unset until the handler stores one
    const u_char* address = nullptr;  // the handler's buffer
    std::string bytes;                // `length` of them from there
    bool answered = false;
    bool writeMethodNull = false;

    // The value as the agent reads it, as text: decimal numbers, dotted OIDs. Throws std::length_error or
    // std::range_error for bytes that are no value of that ASN.1 type.
    std::string Text(u_char type) const;
};

// A column or scalar as it is registered.
struct RegisteredVariable {
    const char* label;  // its name in the MIB
    Oid name;           // without instance
    FindVarMethod* handler;
    u_char magic;
    u_char type;

    // A GET (exact) or GETNEXT from any OID.
    Answer Call(const Oid& request, bool exact) const;

    // A GET of the instance, and a GETNEXT from it.
    Answer Get(const Oid& instance) const { return Call(Join(name, instance), true); }
    Answer GetNext(const Oid& instance) const { return Call(Join(name, instance), false); }
};

// Registers every group with the agent, once per process, without starting the client.
void RegisterGroups();

// What the module has registered since the process started, registration by registration, first to last; the
// second: the part that `handler` serves.
std::vector<RegisteredVariable> RegisteredVariables();
std::vector<RegisteredVariable> VariablesOf(FindVarMethod* handler);

// The registered variable with that name in the MIB. Throws std::out_of_range when there is none.
RegisteredVariable FindVariable(const std::string& label);
