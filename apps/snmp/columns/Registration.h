// Registering variables with the agent, and unregistering them.
#pragma once

#include <cstddef>
#include <span>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/columns/Column.h"

namespace SNMP {

// One call of register_mib: an array of `variable2` or `variable4` entries under a base OID. It refers to
// static objects of its unit and must be static itself. Used on the agent's one request thread.
class Registration {
  public:
    // `function`, `unit` and `line` are what the debug trace of a refused registration names. The line is a
    // fixed part of that text, by which operators know the registration; it is not a line of the file.
    template <class Variable, std::size_t count, std::size_t length>
    Registration(const char* name, const Variables<Variable, count>& variables, const oid (&base)[length],
                 const char* function, const char* unit, int line) noexcept
        : name(name),
          entries(reinterpret_cast<const u_char*>(variables.entries.data())),
          entrySize(sizeof(Variable)),
          names(variables.names),
          base(base),
          baseLength(length),
          function(function),
          unit(unit),
          line(line) {}
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    // Registers the variables with the agent, in order, up to the first column that is registered already. A
    // refusal is a debug trace and nothing else. May be repeated.
    void Register() noexcept;

    // Unregisters every column of every registration so far that this image of the module serves. Columns of
    // other modules stay.
    static void UnregisterAll() noexcept;

    // The registrations that Register was called for, the latest first; null at the end.
    static const Registration* First() noexcept { return firstListed; }
    const Registration* Next() const noexcept { return nextListed; }

    // The variables, by position: their number, their names in the MIB and the entries that the agent gets.
    // The OID of an entry, without instance, is Base() followed by the entry's `name`.
    std::size_t Count() const noexcept { return names.size(); }
    const char* NameOf(std::size_t position) const noexcept { return names[position]; }
    const variable* Entry(std::size_t position) const noexcept;
    std::span<const oid> Base() const noexcept { return {base, baseLength}; }

  private:
    void Unregister() const noexcept;

    static Registration* firstListed;

    const char* name;
    const u_char* entries;
    std::size_t entrySize;
    std::span<const char* const> names;
    const oid* base;
    std::size_t baseLength;
    const char* function;
    const char* unit;
    int line;
    bool listed = false;
    Registration* nextListed = nullptr;
};

}  // namespace SNMP
