// Sums of a daemon's figures, whose nonsense must not be undefined behaviour.
#pragma once

#include <type_traits>

namespace SNMP {

// a + b as a field of their width holds it: a sum that does not fit wraps around.
template <class Integer>
constexpr Integer WrappingSum(Integer a, Integer b) {
    using Unsigned = std::make_unsigned_t<Integer>;
    return static_cast<Integer>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

}  // namespace SNMP
