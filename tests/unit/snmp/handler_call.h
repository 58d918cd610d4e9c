// Calls handlers the way the agent does.
#pragma once

#include <cstdint>
#include <string>

#include "tests/support/in_process_agent.h"

using TestSupport::Oid;

// 1.3.6.1.4.1.32473, then `rest`.
Oid Enterprise(const Oid& rest);

// What a handler answered, copied at once.
struct Answer {
    Oid name;                         // the request's name afterwards
    std::string bytes;                // as many as the answer's length says
    const u_char* address = nullptr;  // where the handler put it
    bool answered = false;
    bool writeMethodNull = false;

    // The bytes that stand at the answer's address now.
    std::string BytesNow() const;

    // The answer as the agent reads it. INTEGER is one `int`; a Counter64 is high and low half together.
    int Integer() const;
    std::uint64_t Counter64() const;
    Oid ObjectId() const;

    // The instance: the sub-identifiers after `column`.
    Oid InstanceOf(const Oid& column) const;
};

// Expects an INTEGER of that value, as a read-only instance is answered.
void ExpectInteger(const Answer& answer, int value);

// A column or scalar under the enterprise, served by `handler` under `magic`.
struct Column {
    FindVarMethod* handler;
    int magic;
    Oid name;  // without the enterprise

    // A GET of the instance, or of any full name.
    Answer Get(const Oid& instance) const;
    Answer GetName(const Oid& request) const;

    // A GETNEXT from the column's name followed by `instance`, or from any full name.
    Answer GetNext(const Oid& instance) const;
    Answer GetNextName(const Oid& request) const;

    // The instances that a walk by GETNEXT meets, in its order.
    std::vector<Oid> Walk() const;

  private:
    Answer Call(const Oid& request, int exact) const;
};
