// A MIB table, declared once: one line per column gives its number, its name and the row's field. The
// variables that are registered with the agent, the type of each value and the dispatch of the handler follow
// from it.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <variant>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/RowOrder.h"

namespace SNMP {

template <class Row>
struct Column {
    // An INTEGER, a text (owned by the row, or lasting), a Counter64, or an INTEGER computed from the row.
    using Field = std::variant<std::int32_t Row::*, char * Row::*, const char * Row::*, std::uint64_t Row::*,
                               std::int32_t (*)(const Row&)>;

    u_char number;     // its sub-identifier; columns are numbered from 1 without gaps
    const char* name;  // its name in the MIB
    Field field;

    // The column's ASN.1 type.
    constexpr u_char Type() const {
        if (std::holds_alternative<char * Row::*>(field) ||
            std::holds_alternative<const char * Row::*>(field)) {
            return ASN_OCTET_STR;
        }
        return std::holds_alternative<std::uint64_t Row::*>(field) ? ASN_COUNTER64 : ASN_INTEGER;
    }
};

// A scalar variable of a group.
struct Scalar {
    u_char number;     // its sub-identifier
    u_char magic;      // what its handler selects by
    u_char type;       // ASN.1
    const char* name;  // its name in the MIB
};

// How the rows of an array are read: the position that `next` returns next, and the collection's GetNext.
template <class Row>
struct ArrayAccess {
    std::int32_t& position;
    int (*next)(Row** row);
};

// How the rows of a list are read: the collection's Init and GetNext, and the order of the rows.
template <class Row>
struct ListAccess {
    void (*rewind)();
    int (*next)(Row** row);
    RowOrder<Row>& order;
};

// A table with rows of type Row: a list, or an array where rows are indexed by their position.
template <class Row>
struct Table {
    const char* handlerName;  // in the log
    FindVarMethod* handler;
    const char* unknownColumn;  // the detail of a request for a magic that no column has
    std::span<const Column<Row>> columns;
    u_char firstMagic;  // of column 1; the others follow by number
    std::conditional_t<indexFields<Row>.empty(), ArrayAccess<Row>, ListAccess<Row>> rows;

    // The column with that magic, or null.
    constexpr const Column<Row>* FindColumn(u_char magic) const {
        return magic >= firstMagic && magic - firstMagic < static_cast<int>(columns.size())
                   ? &columns[static_cast<std::size_t>(magic - firstMagic)]
                   : nullptr;
    }
};

// An entry of a variable array, with its suffix under the group's base OID. Variable is the agent's
// `variable2` or `variable4`.
template <class Variable>
constexpr Variable MakeVariable(u_char magic, u_char type, FindVarMethod* handler,
                                std::initializer_list<oid> suffix) {
    Variable entry{magic, type, RONLY, handler, static_cast<u_char>(suffix.size()), {}};
    std::size_t position = 0;
    for (const oid subId : suffix) {
        entry.name[position++] = subId;
    }
    return entry;
}

// A group's variables as registered with the agent, with their names in the MIB.
template <class Variable, std::size_t count>
struct Variables {
    std::array<Variable, count> entries;
    std::array<const char*, count> names;
};

// The variables of a group's scalars.
template <class Variable, std::size_t count>
constexpr Variables<Variable, count> ScalarVariables(const Scalar (&scalars)[count], FindVarMethod* handler) {
    Variables<Variable, count> variables{};
    for (std::size_t i = 0; i < count; ++i) {
        variables.names[i] = scalars[i].name;
        variables.entries[i] =
            MakeVariable<Variable>(scalars[i].magic, scalars[i].type, handler, {scalars[i].number});
    }
    return variables;
}

// The variables of a table whose entry has the sub-identifiers `entry` under the group's base OID.
template <class Variable, std::size_t count, class Row, std::same_as<int>... SubIds>
constexpr Variables<Variable, count> ColumnVariables(const Table<Row>& table, SubIds... entry) {
    if (table.columns.size() != count) {
        throw std::logic_error("one variable per column");
    }
    Variables<Variable, count> variables{};
    for (std::size_t i = 0; i < count; ++i) {
        const Column<Row>& column = table.columns[i];
        if (column.number != i + 1) {
            throw std::logic_error("columns are numbered from 1 without gaps");
        }
        variables.names[i] = column.name;
        variables.entries[i] =
            MakeVariable<Variable>(static_cast<u_char>(table.firstMagic + i), column.Type(), table.handler,
                                   {static_cast<oid>(entry)..., column.number});
    }
    return variables;
}

// The variables of both, in that order.
template <class Variable, std::size_t firstCount, std::size_t secondCount>
constexpr Variables<Variable, firstCount + secondCount> Join(const Variables<Variable, firstCount>& first,
                                                             const Variables<Variable, secondCount>& second) {
    Variables<Variable, firstCount + secondCount> all{};
    std::copy(second.entries.begin(), second.entries.end(),
              std::copy(first.entries.begin(), first.entries.end(), all.entries.begin()));
    std::copy(second.names.begin(), second.names.end(),
              std::copy(first.names.begin(), first.names.end(), all.names.begin()));
    return all;
}

}  // namespace SNMP
