// The handler of a table: refreshes the cache, finds the row and returns the column's field.
#pragma once

#include <functional>
#include <type_traits>
#include <variant>

#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/columns/AnswerBuffers.h"
#include "apps/snmp/columns/Column.h"
#include "apps/snmp/columns/TableWalk.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"

namespace SNMP {

// Stores the row's field in the buffer of its type and its length in `varLen`; returns the buffer's address.
template <class Row>
u_char* SetAnswer(const Row& row, const typename Column<Row>::Field& field, AnswerBuffers& buffers,
                  std::size_t* varLen) {
    return std::visit(
        [&](auto member) {
            const auto value = std::invoke(member, row);
            using Value = std::remove_const_t<decltype(value)>;
            if constexpr (std::is_same_v<Value, std::int32_t>) {
                return buffers.integer.Set(value, varLen);
            } else if constexpr (std::is_same_v<Value, std::uint64_t>) {
                return buffers.counter.Set(value, varLen);
            } else {
                return buffers.string.Set(value, varLen);
            }
        },
        field);
}

// Returns the answer to a request into `table`; null when no row matches it, for a magic that no column has
// and, after a line in the log, after an exception.
template <class Row>
u_char* HandleTable(const Table<Row>& table, AnswerBuffers& buffers, const Request& request) noexcept {
    return Guard(table.handlerName, [&]() -> u_char* {
        SNMPRaskTable_Init();
        const Row* const row = FindRow(table, request);
        if (row == nullptr) {
            return nullptr;
        }
        const Column<Row>* const column = table.FindColumn(request.vp->magic);
        if (column == nullptr) {
            snmp_set_detail(table.unknownColumn);
            return nullptr;
        }
        return SetAnswer(*row, column->field, buffers, request.varLen);
    });
}

}  // namespace SNMP
