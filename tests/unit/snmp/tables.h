// The ten tables as tests see them: the operations of their collections, and rows whose every field can be
// told from the others.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/VMTables.h"
#include "tests/unit/snmp/handler_call.h"

template <class Row>
constexpr bool isArray = std::is_same_v<Row, vmEntry>;

// The variable that a list's traversal is kept in; an array has none.
template <class Row>
using Traversal = std::conditional_t<isArray<Row>, std::nullptr_t, Row**>;

// What a list's rows are ordered by; an array has none.
template <class Row>
using Order = std::conditional_t<isArray<Row>, std::nullptr_t, SNMP::RowOrder<Row>*>;

template <class Row>
struct TableFacts {
    // `const char*` texts are lasting strings, `char*` ones are owned by the row.
    using Field = std::variant<std::int32_t Row::*, float Row::*, std::uint64_t Row::*, char * Row::*,
                               const char * Row::*>;
    struct NamedField {
        const char* column;  // its name in the MIB
        Field field;
    };

    const char* handlerName;
    FindVarMethod* handler;
    const char* unknownColumn;  // the detail of a request for a magic that no column has
    void (*init)();
    int (*getNext)(Row**);
    void (*destroy)();
    Row** (*getPtr)();
    Row** head;  // the collection's variables
    std::int32_t* index;
    Traversal<Row> traversal;
    Order<Row> order;
    std::size_t indexFields;  // how many of the first fields are the index; 0: the position is
    // In the order of the columns. Values of columns without an entry are left to the fillers' tests and to
    // the expected tree.
    std::vector<NamedField> fields;
};

template <class Row>
const TableFacts<Row>& Facts();

// The facts of a table; the last arguments are its fields, with `Row` for the row's type. Written out on
// purpose, as a reference that does not depend on the column tables. A new column needs no entry.
#define TABLE_FACTS(rowType, table, unknownColumn, head, indexVariable, traversal, order, fields, ...) \
    template <>                                                                                        \
    inline const TableFacts<rowType>& Facts() {                                                        \
        using Row = rowType;                                                                           \
        static const TableFacts<Row> facts{"SNMP_" #table "Table",                                     \
                                           SNMP_##table##Table,                                        \
                                           unknownColumn,                                              \
                                           SNMP##table##Table_Init,                                    \
                                           SNMP##table##Table_GetNext,                                 \
                                           SNMP##table##Table_Destroy,                                 \
                                           SNMP##table##Table_GetPtr,                                  \
                                           head,                                                       \
                                           indexVariable,                                              \
                                           traversal,                                                  \
                                           order,                                                      \
                                           fields,                                                     \
                                           {__VA_ARGS__}};                                             \
        return facts;                                                                                  \
    }
#define LIST_FACTS(rowType, table, list, unknown, fields, ...)                                          \
    TABLE_FACTS(rowType, table, "SNMP_" #table "Table: " unknown " variable requested.\n", &list##List, \
                &list##TableIndex, &list##ListTravPtr, &list##Order, fields, __VA_ARGS__)

TABLE_FACTS(vmEntry, VMInfo, "SNMPVMInfo_Table: Unknown variable requested.\n", &vmInfoTable,
            &vmInfoTableIndex, nullptr, nullptr, 0, {"vmIdx", &Row::vmIdx},
            {"vmDisplayName", &Row::vmDisplayName}, {"vmConfigFile", &Row::vmConfigFile},
            {"vmGuestOS", &Row::vmGuestOS}, {"vmMemSize", &Row::vmMemSize}, {"vmState", &Row::vmState},
            {"vmVMID", &Row::vmVMID}, {"vmGuestState", &Row::vmGuestState})
LIST_FACTS(vmHBANode, VMHBA, vmHBA, "Unknown", 2, {"hbaVmIdx", &Row::vmIdx}, {"hbaBus", &Row::hbaBus},
           {"hbaLabel", &Row::hbaLabel}, {"hbaType", &Row::hbaType})
LIST_FACTS(vmHBATgtNode, VMHBATgt, vmHBATgt, "Unknown", 2, {"tgtVmIdx", &Row::vmIdx},
           {"tgtUnit", &Row::tgtUnit}, {"tgtLabel", &Row::tgtLabel})
LIST_FACTS(vmNetNode, VMNet, vmNet, "unknown", 2, {"nicVmIdx", &Row::vmIdx}, {"nicIdx", &Row::nicIdx},
           {"nicLabel", &Row::nicLabel}, {"nicNetwork", &Row::nicNetwork}, {"nicDevice", &Row::nicDevice})
LIST_FACTS(vmFloppyNode, VMFloppy, vmFloppy, "Unknown", 2, {"fdVmIdx", &Row::vmIdx}, {"fdUnit", &Row::fdUnit},
           {"fdBacking", &Row::fdBacking}, {"fdConnected", &Row::fdConnected})
LIST_FACTS(vmCDROMNode, VMCDROM, vmCDROM, "Unknown", 2, {"cdVmIdx", &Row::vmIdx},
           {"cdIdeIndex", &Row::cdIdeIndex}, {"cdBacking", &Row::cdBacking},
           {"cdConnected", &Row::cdConnected})
LIST_FACTS(resCPUNode, ResCPU, resCPU, "Unknown", 1, {"cpuVMID", &Row::cpuVMID},
           {"cpuShares", &Row::cpuShares}, {"cpuUsedSec", &Row::cpuUsedSec})
LIST_FACTS(resMemNode, ResMem, resMem, "Unknown", 1, {"memVMID", &Row::memVMID},
           {"memShares", &Row::memShares}, {"memConfiguredKB", &Row::memConfiguredKB},
           {"memActive", &Row::memActive})
LIST_FACTS(resDiskNode, ResDisk, resDisk, "Unknown", 1, {"diskIdx", &Row::diskIdx},
           {"diskName", &Row::diskName}, {"diskVMID", &Row::diskVMID}, {"diskShares", &Row::diskShares},
           {"diskNumRead", &Row::diskNumRead}, {"diskRead", &Row::diskRead},
           {"diskNumWrite", &Row::diskNumWrite}, {"diskWrite", &Row::diskWrite})
LIST_FACTS(resNetNode, ResNet, resNet, "Unknown", 1, {"netIdx", &Row::netIdx}, {"netName", &Row::netName},
           {"netVMID", &Row::netVMID}, {"netMac", &Row::netMac}, {"netSpare", &Row::netSpare},
           {"netPktTx", &Row::netPktTx}, {"netTx", &Row::netTx}, {"netPktRx", &Row::netPktRx},
           {"netRx", &Row::netRx}, {"netHCPktTx", &Row::netHCPktTx}, {"netHCTx", &Row::netHCTx},
           {"netHCPktRx", &Row::netHCPktRx}, {"netHCRx", &Row::netHCRx})

#undef LIST_FACTS
#undef TABLE_FACTS

// The rows of the lists and of all tables, in the order in which the module empties the tables.
template <template <class...> class Types>
using ListRowTypes = Types<vmNetNode, vmHBANode, vmHBATgtNode, vmFloppyNode, vmCDROMNode, resMemNode,
                           resCPUNode, resDiskNode, resNetNode>;
template <template <class...> class Types>
using RowTypes = Types<vmEntry, vmNetNode, vmHBANode, vmHBATgtNode, vmFloppyNode, vmCDROMNode, resMemNode,
                       resCPUNode, resDiskNode, resNetNode>;

// Calls `action` with the facts of each table, in that order.
template <class Action>
void ForEachTable(Action action) {
    std::apply([&](const auto&... row) { (action(Facts<std::decay_t<decltype(row)>>()), ...); },
               RowTypes<std::tuple>());
}

inline void DestroyAllRows() {
    ForEachTable([](const auto& table) { table.destroy(); });
}

// The rows as they are linked, without the collection's own operations.
template <class Row>
std::vector<Row*> ListRows(const TableFacts<Row>& table) {
    std::vector<Row*> rows;
    if constexpr (isArray<Row>) {
        for (std::int32_t position = 0; position < vmInfoTableNumEnt; ++position) {
            rows.push_back(*table.head + position);
        }
    } else {
        for (Row* row = *table.head; row != nullptr; row = row->next) {
            rows.push_back(row);
        }
    }
    return rows;
}

// Orders the rows, as a rebuild does at its end.
template <class Row>
void OrderRows(const TableFacts<Row>& table) {
    if constexpr (!isArray<Row>) {
        table.order->Make();
    }
}

// Links `rows` in that order, as a rebuild does.
template <class Row>
void LinkRows(const TableFacts<Row>& table, const std::vector<Row*>& rows) {
    table.order->Clear();
    Row** link = table.head;
    for (Row* const row : rows) {
        *link = row;
        link = &row->next;
    }
    *link = nullptr;
}

// Inserts a zeroed row that the collection owns before the one at `position`; into an array, at the end.
// Moves the rows of an array.
template <class Row>
Row& InsertRow(const TableFacts<Row>& table, std::size_t position) {
    std::vector<Row*> rows = ListRows(table);
    auto* const block = static_cast<Row*>(std::calloc(isArray<Row> ? rows.size() + 1 : 1, sizeof(Row)));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if constexpr (isArray<Row>) {
        std::transform(rows.begin(), rows.end(), block, [](const Row* row) { return *row; });
        std::free(*table.getPtr());
        *table.getPtr() = block;
        SNMPVMInfoTable_SetNumEntries(static_cast<int>(rows.size() + 1));
        return block[rows.size()];
    } else {
        rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(position), block);
        LinkRows(table, rows);
        return *block;
    }
}

// How a field is filled.
enum class Filling : std::uint8_t { Missing, Long, Usual };

// Gives every field a value of its own, except that the index fields get `index`. `serial` numbers the fields
// that were filled before. `choose` is called for each float (from 0 to 4: a usual one, a negative one, three
// that fit no INTEGER) and for each text (null, longer than an answer, usual).
template <class Row, class Choose>
void FillRow(const TableFacts<Row>& table, Row& row, const std::vector<std::uint32_t>& index,
             std::size_t& serial, Choose choose) {
    static std::set<std::string> lasting;
    for (std::size_t position = 0; position < table.fields.size(); ++position) {
        ++serial;
        const auto fill = [&](auto member) {
            using Value = std::remove_reference_t<decltype(row.*member)>;
            if constexpr (std::is_same_v<Value, std::int32_t>) {
                row.*member = static_cast<std::int32_t>(
                    position < index.size() ? index[position] : static_cast<std::uint32_t>(serial * 40503));
            } else if constexpr (std::is_same_v<Value, float>) {
                constexpr float wide = 1e30F;
                const std::array<float, 5> values{static_cast<float>(serial) + 0.75F, -2.5F, wide, -wide,
                                                  std::numeric_limits<float>::quiet_NaN()};
                row.*member = values.at(choose(values.size()));
            } else if constexpr (std::is_same_v<Value, std::uint64_t>) {
                row.*member = serial * 0x9e3779b97f4a7c15;
            } else if (const auto filling = Filling{static_cast<std::uint8_t>(choose(256))};
                       filling != Filling::Missing) {
                constexpr std::size_t tooLong = 3000;
                const std::string text = "text " + std::to_string(serial) +
                                         std::string(filling == Filling::Long ? tooLong : 0, 'x');
                if constexpr (std::is_same_v<Value, char*>) {
                    row.*member = ::strdup(text.c_str());
                } else {
                    row.*member = lasting.insert(text).first->c_str();
                }
            }
        };
        std::visit(fill, table.fields[position].field);
    }
}

// The text of the answer for the row's field at that position.
template <class Row>
std::string ExpectedText(const TableFacts<Row>& table, const Row& row, std::size_t position) {
    constexpr std::size_t longestText = 2559;
    const auto& [column, field] = table.fields[position];
    if (std::string(column) == "netSpare") {
        return "0";  // whatever the row holds
    }
    return std::visit(
        [&](auto member) -> std::string {
            const auto value = row.*member;
            using Value = std::remove_const_t<decltype(value)>;
            if constexpr (std::is_same_v<Value, float>) {
                // Truncated toward zero, limited to what an INTEGER holds; 0 for NaN.
                using Limits = std::numeric_limits<std::int32_t>;
                return std::to_string(std::isnan(value) ? 0
                                                        : static_cast<std::int32_t>(std::clamp<double>(
                                                              value, Limits::min(), Limits::max())));
            } else if constexpr (std::is_integral_v<Value>) {
                return std::to_string(value);
            } else {
                return std::string(value != nullptr ? value : "").substr(0, longestText);
            }
        },
        field);
}

// The instance OIDs of the rows in `column`, in the order of the rows. Negative index fields are their
// unsigned 32 bits.
template <class Row>
std::vector<Oid> Instances(const TableFacts<Row>& table, const Oid& column) {
    std::vector<Oid> instances;
    for (const Row* const row : ListRows(table)) {
        Oid instance = column;
        for (std::size_t field = 0; field < table.indexFields; ++field) {
            const auto member = std::get<std::int32_t Row::*>(table.fields[field].field);
            instance.push_back(static_cast<std::uint32_t>(row->*member));
        }
        if (table.indexFields == 0) {
            instance.push_back(instances.size());
        }
        instances.push_back(instance);
    }
    return instances;
}

// The position of the answering row among rows with these instance OIDs: the first whose OID is the request
// (exact), or the first of those with the smallest OID beyond it.
inline std::optional<std::size_t> FindAnsweringRow(const std::vector<Oid>& instances, const Oid& requested,
                                                   bool exact) {
    std::optional<std::size_t> best;
    for (std::size_t row = 0; row < instances.size(); ++row) {
        if ((exact ? instances[row] == requested : instances[row] > requested) &&
            (!best || instances[row] < instances[*best])) {
            best = row;
        }
    }
    return best;
}
