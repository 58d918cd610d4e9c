// Registering variables with the agent, and taking them back.
#pragma once

#include <cstddef>

#include "apps/snmp/NetSnmp.h"

namespace SNMP {

// One call of register_mib: an array of `variable2` or `variable4` entries under a base name. It refers to
// static objects of its unit and must be static itself.
class Registration {
  public:
    // `function`, `unit` and `line` are what the debug trace of a refused registration names. The line is a
    // fixed part of that text, by which operators know the registration; it is no place in the file.
    template <class Variable, std::size_t count, std::size_t length>
    Registration(const char* name, const Variable (&variables)[count], const oid (&base)[length],
                 const char* function, const char* unit, int line) noexcept
        : name(name),
          variables(reinterpret_cast<const u_char*>(variables)),
          entrySize(sizeof(Variable)),
          count(count),
          base(base),
          baseLength(length),
          function(function),
          unit(unit),
          line(line) {}
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    // Offers the variables to the agent. The agent takes them in order up to the first column that somebody
    // else holds; a refusal is nothing but a debug trace. May be repeated.
    void Register() noexcept;

    // Takes back every column of every registration so far that is served by this image of the module.
    // Columns that somebody else holds stay.
    static void UnregisterAll() noexcept;

  private:
    const variable* Entry(std::size_t position) const noexcept;
    void Unregister() const noexcept;

    const char* name;
    const u_char* variables;
    std::size_t entrySize;
    std::size_t count;
    const oid* base;
    std::size_t baseLength;
    const char* function;
    const char* unit;
    int line;
    bool listed = false;
    Registration* nextListed = nullptr;
};

}  // namespace SNMP
