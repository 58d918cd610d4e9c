// Sums of a daemon's numbers, where an absurd value must not be undefined behaviour.
#pragma once

#include <type_traits>

namespace SNMP {

// Returns a + b, wrapped around to their width.
template <class Integer>
constexpr Integer WrappingSum(Integer a, Integer b) {
    using Unsigned = std::make_unsigned_t<Integer>;
    return static_cast<Integer>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

}  // namespace SNMP
