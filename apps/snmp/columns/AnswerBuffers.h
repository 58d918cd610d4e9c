// The buffers of SNMP answers.
//
// The agent reads an answer after the handler has returned, so buffers are static and an answer stays valid
// until the next one is set. Every Set returns the answer's address and stores its length in bytes. Used on
// the agent's one request thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "apps/snmp/agent/NetSnmp.h"

namespace SNMP {

// An INTEGER of four bytes. The agent reads an `int` at the address, so on a big-endian host the address is
// that of the buffer's low half.
class IntegerAnswer {
  public:
    u_char* Set(std::int32_t number, std::size_t* length) noexcept;

  private:
    long value = 0;
};

// An OCTET STRING: the text without its terminator.
class StringAnswer {
  public:
    // Null counts as the empty text. A text of 2560 bytes or more is truncated before the first character
    // (UTF-8) that leaves no room for the terminator.
    u_char* Set(const char* source, std::size_t* length);

  private:
    std::array<char, 2560> text{};
};

// A Counter64.
class Counter64Answer {
  public:
    u_char* Set(std::uint64_t count, std::size_t* length) noexcept;

  private:
    counter64 value{};
};

// An OBJECT IDENTIFIER, appended to one sub-identifier at a time.
class ObjectIdAnswer {
  public:
    void Clear() noexcept { count = 0; }

    // Ignored when there are 128.
    void Append(oid subId) noexcept;

    u_char* Set(std::size_t* length) noexcept;

  private:
    std::array<oid, MAX_OID_LEN> subIds{};
    std::size_t count = 0;
};

// The buffers of one table's handler. An answer stays valid until the handler's next one of the same type.
struct AnswerBuffers {
    IntegerAnswer integer;
    StringAnswer string;
    Counter64Answer counter;
};

}  // namespace SNMP
