#include "apps/snmp/columns/AnswerBuffers.h"

#include <bit>
#include <string_view>

#include "runtime/tessim/string_util.h"

namespace SNMP {

u_char* IntegerAnswer::Set(std::int32_t number, std::size_t* length) noexcept {
    constexpr std::size_t valueOffset =
        std::endian::native == std::endian::big ? sizeof(value) - sizeof(number) : 0;
    value = number;
    *length = sizeof(number);
    return reinterpret_cast<u_char*>(&value) + valueOffset;
}

u_char* StringAnswer::Set(const char* source, std::size_t* length) {
    const std::string_view whole = source != nullptr ? source : "";
    const std::string_view fitting = Tessim::StringUtil::TruncateUtf8(whole, text.size() - 1);
    fitting.copy(text.data(), fitting.size());
    text[fitting.size()] = '\0';
    *length = fitting.size();
    return reinterpret_cast<u_char*>(text.data());
}

u_char* Counter64Answer::Set(std::uint64_t count, std::size_t* length) noexcept {
    // The agent's halves are wider than 32 bits on 64-bit systems, and it takes the whole structure.
    value.high = count >> 32U;
    value.low = count & 0xffffffffU;
    *length = sizeof(value);
    return reinterpret_cast<u_char*>(&value);
}

void ObjectIdAnswer::Append(oid subId) noexcept {
    if (count < subIds.size()) {
        subIds[count++] = subId;
    }
}

u_char* ObjectIdAnswer::Set(std::size_t* length) noexcept {
    *length = count * sizeof(oid);
    return reinterpret_cast<u_char*>(subIds.data());
}

}  // namespace SNMP
