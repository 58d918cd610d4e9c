#include "tests/unit/snmp/handler_call.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace {

Oid Joined(Oid first, const Oid& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace

Oid Enterprise(const Oid& rest) {
    return Joined({1, 3, 6, 1, 4, 1, 32473}, rest);
}

std::string Answer::BytesNow() const {
    return {reinterpret_cast<const char*>(address), bytes.size()};
}

int Answer::Integer() const {
    if (bytes.size() != 4) {
        throw std::length_error("an INTEGER has four bytes");
    }
    int value = 0;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

std::uint64_t Answer::Counter64() const {
    counter64 value{};
    if (bytes.size() != sizeof(value)) {
        throw std::length_error("a Counter64 is one counter64");
    }
    std::memcpy(&value, bytes.data(), sizeof(value));
    if (value.high > 0xffffffff || value.low > 0xffffffff) {
        throw std::range_error("each half of a Counter64 has 32 bits");
    }
    return std::uint64_t{value.high} << 32 | value.low;
}

Oid Answer::ObjectId() const {
    if (bytes.size() % sizeof(oid) != 0) {
        throw std::length_error("an OBJECT IDENTIFIER is whole sub-identifiers");
    }
    Oid value(bytes.size() / sizeof(oid));
    std::memcpy(value.data(), bytes.data(), bytes.size());
    return value;
}

Oid Answer::InstanceOf(const Oid& column) const {
    if (name.size() < column.size() || !std::equal(column.begin(), column.end(), name.begin())) {
        throw std::range_error("the answer is outside its column");
    }
    return {name.begin() + static_cast<std::ptrdiff_t>(column.size()), name.end()};
}

void ExpectInteger(const Answer& answer, int value) {
    ASSERT_TRUE(answer.answered);
    EXPECT_EQ(answer.Integer(), value);
    EXPECT_TRUE(answer.writeMethodNull);
}

Answer Column::Get(const Oid& instance) const {
    return Call(Joined(Enterprise(name), instance), 1);
}
Answer Column::GetName(const Oid& request) const {
    return Call(request, 1);
}
Answer Column::GetNext(const Oid& instance) const {
    return Call(Joined(Enterprise(name), instance), 0);
}
Answer Column::GetNextName(const Oid& request) const {
    return Call(request, 0);
}

std::vector<Oid> Column::Walk() const {
    std::vector<Oid> instances;
    for (Answer answer = GetNext({}); answer.answered; answer = GetNextName(answer.name)) {
        instances.push_back(answer.InstanceOf(Enterprise(name)));
        if (instances.size() > 1000) {
            throw std::runtime_error("an endless walk");
        }
    }
    return instances;
}

Answer Column::Call(const Oid& request, int exact) const {
    const Oid column = Enterprise(name);
    variable entry{};
    entry.magic = static_cast<u_char>(magic);
    entry.findVar = handler;
    entry.namelen = static_cast<u_char>(column.size());
    std::copy(column.begin(), column.end(), entry.name);

    std::array<oid, MAX_OID_LEN> buffer{};
    std::copy(request.begin(), request.end(), buffer.begin());
    std::size_t length = request.size();
    // As the agent does not: values that a handler must have overwritten.
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
