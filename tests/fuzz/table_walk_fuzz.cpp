#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
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
#include "runtime/tessim/assertion.h"
#include "tests/fuzz/fuzz.h"
#include "tests/unit/snmp/handler_call.h"

namespace {

constexpr std::size_t maxRows = 40;
constexpr std::size_t maxText = 2559;  // bytes of an answer

// The input, a byte at a time; zeros when it is used up.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    bool IsEmpty() const { return at == end; }
    std::uint8_t Byte() { return IsEmpty() ? std::uint8_t{0} : *at++; }
    std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : Byte() % limit; }

    // Mostly small, so that indexes meet; else a limit, or anything.
    std::uint32_t Number() {
        constexpr std::array<std::uint32_t, 6> limits{0xffffffff, 0x7fffffff, 0x80000000,
                                                      0x80000001, 0xfffffffe, 256};
        constexpr std::uint8_t firstLimit = 236;
        constexpr std::uint8_t firstAny = 248;
        const std::uint8_t kind = Byte();
        if (kind < firstLimit) {
            return kind % 6U;
        }
        if (kind < firstAny) {
            return limits.at(kind % limits.size());
        }
        std::uint32_t number = 0;
        for (int count = 0; count < 4; ++count) {
            number = number << 8U | Byte();
        }
        return number;
    }

  private:
    const std::uint8_t* at;
    const std::uint8_t* end;
};

// A table as the agent knows it; its columns count from 1 in the order of `fields`, their magics from
// `firstMagic`.
template <class Row>
struct Table {
    using Field = std::variant<std::int32_t Row::*, float Row::*, std::uint64_t Row::*, char * Row::*,
                               const char * Row::*>;

    FindVarMethod* handler;
    Oid entry;  // the columns' name, without the enterprise
    int firstMagic;
    std::size_t indexFields;  // how many of the first fields are the index
    Row** (*getPtr)();
    void (*destroy)();
    std::vector<Field> fields;
};

template <class Row>
constexpr bool isArray = std::is_same_v<Row, vmEntry>;

// The rows as they are linked, without the table's own operations.
template <class Row>
std::vector<Row*> ListRows(const Table<Row>& table) {
    std::vector<Row*> rows;
    if constexpr (isArray<Row>) {
        for (std::int32_t position = 0; position < vmInfoTableNumEnt; ++position) {
            rows.push_back(*table.getPtr() + position);
        }
    } else {
        for (Row* row = *table.getPtr(); row != nullptr; row = row->next) {
            rows.push_back(row);
        }
    }
    return rows;
}

// Links `rows` in that order.
template <class Row>
void LinkRows(const Table<Row>& table, const std::vector<Row*>& rows) {
    Row** link = table.getPtr();
    for (Row* row : rows) {
        *link = row;
        link = &row->next;
    }
    *link = nullptr;
}

std::string MakeText(std::size_t serial, std::uint8_t kind) {
    constexpr std::size_t tooLong = 3000;
    return "text " + std::to_string(serial) + std::string(kind == 1 ? tooLong : 0, 'x');
}

// Numbers the fields that one input fills, so that no two hold the same.
std::size_t serial = 0;

// Gives every field a value of its own; the index is `index`.
template <class Row>
void Fill(const Table<Row>& table, Row& row, const std::vector<std::uint32_t>& index, Input& input) {
    static std::set<std::string> lasting;
    constexpr float wide = 1e30F;
    for (std::size_t position = 0; position < table.fields.size(); ++position) {
        ++serial;
        std::visit(
            [&](auto member) {
                using Value = std::remove_reference_t<decltype(row.*member)>;
                if constexpr (std::is_same_v<Value, std::int32_t>) {
                    row.*member = static_cast<std::int32_t>(position < index.size()
                                                                ? index[position]
                                                                : static_cast<std::uint32_t>(serial * 40503));
                } else if constexpr (std::is_same_v<Value, float>) {
                    const std::array<float, 5> values{static_cast<float>(serial) + 0.75F, -2.5F, wide, -wide,
                                                      std::numeric_limits<float>::quiet_NaN()};
                    row.*member = values.at(input.Below(values.size()));
                } else if constexpr (std::is_same_v<Value, std::uint64_t>) {
                    row.*member = serial * 0x9e3779b97f4a7c15;
                } else if (const std::uint8_t kind = input.Byte(); kind != 0) {
                    const std::string text = MakeText(serial, kind);
                    if constexpr (std::is_same_v<Value, char*>) {
                        row.*member = ::strdup(text.c_str());
                    } else {
                        row.*member = lasting.insert(text).first->c_str();
                    }
                }
            },
            table.fields[position]);
    }
}

// Puts a row in at any position, the way the refresh does or in the middle.
template <class Row>
void AddRow(const Table<Row>& table, Input& input) {
    std::vector<Row*> rows = ListRows(table);
    if (rows.size() == maxRows) {
        return;
    }
    std::vector<std::uint32_t> index;
    for (std::size_t field = 0; field < table.indexFields; ++field) {
        index.push_back(input.Number());
    }
    Row* added = nullptr;
    if constexpr (isArray<Row>) {
        auto* const block = static_cast<Row*>(std::calloc(rows.size() + 1, sizeof(Row)));
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        std::transform(rows.begin(), rows.end(), block, [](const Row* row) { return *row; });
        std::free(*table.getPtr());
        *table.getPtr() = block;
        SNMPVMInfoTable_SetNumEntries(static_cast<int>(rows.size() + 1));
        added = block + rows.size();
    } else {
        added = static_cast<Row*>(std::calloc(1, sizeof(Row)));
        if (added == nullptr) {
            throw std::bad_alloc();
        }
        rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(input.Below(rows.size() + 1)), added);
        LinkRows(table, rows);
    }
    Fill(table, *added, index, input);
}

// Turns the order of the list around by hand.
template <class Row>
void ReverseRows(const Table<Row>& table) {
    if constexpr (!isArray<Row>) {
        std::vector<Row*> rows = ListRows(table);
        std::reverse(rows.begin(), rows.end());
        LinkRows(table, rows);
    }
}

std::int32_t Truncate(float value) {
    if (value != value) {
        return 0;
    }
    return static_cast<std::int32_t>(std::clamp<double>(value, std::numeric_limits<std::int32_t>::min(),
                                                        std::numeric_limits<std::int32_t>::max()));
}

template <class Row>
bool IsAnsweredBy(const typename Table<Row>::Field& field, const Row& row, const Answer& answer) {
    return std::visit(
        [&](auto member) {
            using Value = std::remove_cvref_t<decltype(row.*member)>;
            if constexpr (std::is_same_v<Value, std::int32_t>) {
                if constexpr (std::is_same_v<Row, resNetNode>) {
                    if (member == &resNetNode::netSpare) {
                        return answer.Integer() == 0;  // whatever the row holds
                    }
                }
                return answer.Integer() == row.*member;
            } else if constexpr (std::is_same_v<Value, float>) {
                return answer.Integer() == Truncate(row.*member);
            } else if constexpr (std::is_same_v<Value, std::uint64_t>) {
                return answer.Counter64() == row.*member;
            } else {
                return answer.bytes ==
                       std::string(row.*member != nullptr ? row.*member : "").substr(0, maxText);
            }
        },
        field);
}

// The row's full name in the column.
template <class Row>
Oid NameOf(const Table<Row>& table, const Oid& column, const std::vector<Row*>& rows, std::size_t position) {
    Oid name = Enterprise(column);
    if constexpr (isArray<Row>) {
        name.push_back(position);
    } else {
        for (std::size_t field = 0; field < table.indexFields; ++field) {
            const auto member = std::get<std::int32_t Row::*>(table.fields[field]);
            name.push_back(static_cast<std::uint32_t>(rows[position]->*member));
        }
    }
    return name;
}

// Names around the column's: in it, before it, behind it, far away.
Oid MakeRequest(const Oid& column, Input& input) {
    Oid name = Enterprise(column);
    switch (input.Byte() % 8) {
        case 0:
            name.resize(input.Below(name.size()) + 1);
            break;
        case 1:
            name.back() = input.Number();
            break;
        case 2:
            name.at(input.Below(name.size())) = input.Number();
            break;
        default:
            break;
    }
    for (std::size_t more = input.Below(5); more > 0; --more) {
        name.push_back(input.Number());
    }
    if (input.Byte() == 255) {
        name.resize(MAX_OID_LEN, input.Number());
    }
    return name;
}

template <class Row>
void AskOnce(const Table<Row>& table, Input& input) {
    const std::size_t position = input.Below(table.fields.size());
    Oid columnName = table.entry;
    columnName.push_back(position + 1);
    const Column column{table.handler, table.firstMagic + static_cast<int>(position), columnName};
    const Oid requested = MakeRequest(columnName, input);
    const bool exact = input.Byte() % 2 != 0;

    // The definition of the right answer: each row's full name in turn, the first of the smallest.
    const std::vector<Row*> rows = ListRows(table);
    const Row* best = nullptr;
    Oid bestName = requested;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const Oid name = NameOf(table, columnName, rows, row);
        if ((exact ? name == requested : name > requested) && (best == nullptr || name < bestName)) {
            best = rows[row];
            bestName = name;
        }
    }

    const Answer answer = exact ? column.GetName(requested) : column.GetNextName(requested);
    Tessim::Assert(answer.answered == (best != nullptr), "a request is answered when a row answers it");
    Tessim::Assert(answer.name == bestName, "the name is the answering row's");
    if (best != nullptr) {
        Tessim::Assert(answer.writeMethodNull, "nothing can be written");
        Tessim::Assert(IsAnsweredBy(table.fields[position], *best, answer), "the answer is the row's field");
    }

    const int unknownMagic = input.Byte() % 3;
    const Column unknown{table.handler, unknownMagic, columnName};
    Tessim::Assert(!(exact ? unknown.GetName(requested) : unknown.GetNextName(requested)).answered,
                   "an unknown variable has no answer");
}

template <class Row>
void Run(const Table<Row>& table, Input input) {
    while (!input.IsEmpty()) {
        switch (input.Byte() % 8) {
            case 0:
            case 1:
            case 2:
                AddRow(table, input);
                break;
            case 3:
                ReverseRows(table);
                break;
            case 4:
                if (input.Byte() % 8 == 0) {
                    table.destroy();
                }
                break;
            default:
                AskOnce(table, input);
                break;
        }
    }
    table.destroy();
    Tessim::Assert(*table.getPtr() == nullptr, "a destroyed table is empty");
}

const Table<vmEntry> vmTable{
    SNMP_VMInfoTable,
    {2, 1, 1},
    3,
    0,
    SNMPVMInfoTable_GetPtr,
    SNMPVMInfoTable_Destroy,
    {&vmEntry::vmIdx, &vmEntry::vmDisplayName, &vmEntry::vmConfigFile, &vmEntry::vmGuestOS,
     &vmEntry::vmMemSize, &vmEntry::vmState, &vmEntry::vmVMID, &vmEntry::vmGuestState}};
const Table<vmHBANode> hbaTable{
    SNMP_VMHBATable,
    {2, 2, 1},
    3,
    2,
    SNMPVMHBATable_GetPtr,
    SNMPVMHBATable_Destroy,
    {&vmHBANode::vmIdx, &vmHBANode::hbaBus, &vmHBANode::hbaLabel, &vmHBANode::hbaType}};
const Table<vmHBATgtNode> tgtTable{SNMP_VMHBATgtTable,
                                   {2, 3, 1},
                                   9,
                                   2,
                                   SNMPVMHBATgtTable_GetPtr,
                                   SNMPVMHBATgtTable_Destroy,
                                   {&vmHBATgtNode::vmIdx, &vmHBATgtNode::tgtUnit, &vmHBATgtNode::tgtLabel}};
const Table<vmNetNode> nicTable{SNMP_VMNetTable,
                                {2, 4, 1},
                                3,
                                2,
                                SNMPVMNetTable_GetPtr,
                                SNMPVMNetTable_Destroy,
                                {&vmNetNode::vmIdx, &vmNetNode::nicIdx, &vmNetNode::nicLabel,
                                 &vmNetNode::nicNetwork, &vmNetNode::nicDevice}};
const Table<vmFloppyNode> floppyTable{
    SNMP_VMFloppyTable,
    {2, 5, 1},
    3,
    2,
    SNMPVMFloppyTable_GetPtr,
    SNMPVMFloppyTable_Destroy,
    {&vmFloppyNode::vmIdx, &vmFloppyNode::fdUnit, &vmFloppyNode::fdBacking, &vmFloppyNode::fdConnected}};
const Table<vmCDROMNode> cdromTable{
    SNMP_VMCDROMTable,
    {2, 6, 1},
    3,
    2,
    SNMPVMCDROMTable_GetPtr,
    SNMPVMCDROMTable_Destroy,
    {&vmCDROMNode::vmIdx, &vmCDROMNode::cdIdeIndex, &vmCDROMNode::cdBacking, &vmCDROMNode::cdConnected}};
const Table<resCPUNode> cpuTable{SNMP_ResCPUTable,
                                 {3, 1, 2, 1},
                                 5,
                                 1,
                                 SNMPResCPUTable_GetPtr,
                                 SNMPResCPUTable_Destroy,
                                 {&resCPUNode::cpuVMID, &resCPUNode::cpuShares, &resCPUNode::cpuUsedSec}};
const Table<resMemNode> memTable{
    SNMP_ResMemTable,
    {3, 2, 4, 1},
    7,
    1,
    SNMPResMemTable_GetPtr,
    SNMPResMemTable_Destroy,
    {&resMemNode::memVMID, &resMemNode::memShares, &resMemNode::memConfiguredKB, &resMemNode::memActive}};
const Table<resDiskNode> diskTable{
    SNMP_ResDiskTable,
    {3, 3, 1},
    3,
    1,
    SNMPResDiskTable_GetPtr,
    SNMPResDiskTable_Destroy,
    {&resDiskNode::diskIdx, &resDiskNode::diskName, &resDiskNode::diskVMID, &resDiskNode::diskShares,
     &resDiskNode::diskNumRead, &resDiskNode::diskRead, &resDiskNode::diskNumWrite, &resDiskNode::diskWrite}};
const Table<resNetNode> netTable{
    SNMP_ResNetTable,
    {3, 4, 1},
    3,
    1,
    SNMPResNetTable_GetPtr,
    SNMPResNetTable_Destroy,
    {&resNetNode::netIdx, &resNetNode::netName, &resNetNode::netVMID, &resNetNode::netMac,
     &resNetNode::netSpare, &resNetNode::netPktTx, &resNetNode::netTx, &resNetNode::netPktRx,
     &resNetNode::netRx, &resNetNode::netHCPktTx, &resNetNode::netHCTx, &resNetNode::netHCPktRx,
     &resNetNode::netHCRx}};

}  // namespace

// An input names a table and then what happens to it: rows come, change their order and go, and requests are
// compared with a walk over all full names.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    serial = 0;
    Input input(data, size);
    const std::array<std::function<void()>, 10> runs{
        [&] { Run(vmTable, input); },  [&] { Run(hbaTable, input); },    [&] { Run(tgtTable, input); },
        [&] { Run(nicTable, input); }, [&] { Run(floppyTable, input); }, [&] { Run(cdromTable, input); },
        [&] { Run(cpuTable, input); }, [&] { Run(memTable, input); },    [&] { Run(diskTable, input); },
        [&] { Run(netTable, input); },
    };
    runs.at(input.Below(runs.size()))();
    return 0;
}
