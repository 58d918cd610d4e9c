// Reads the row collections back.
#pragma once

#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>

#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "tests/unit/snmp/tables.h"

namespace TestRows {

// The rows of a table, in its order. They belong to the table.
template <class Row>
auto List() {
    return ListRows(Facts<Row>());
}

// How many rows each table has: VMs, network cards, adapters, targets, floppy drives, CD-ROM drives, then
// CPUs, memories, disks and network cards of the resource groups.
inline std::string Counts() {
    std::string text;
    for (const std::size_t count :
         {List<vmEntry>().size(), List<vmNetNode>().size(), List<vmHBANode>().size(),
          List<vmHBATgtNode>().size(), List<vmFloppyNode>().size(), List<vmCDROMNode>().size(),
          List<resCPUNode>().size(), List<resMemNode>().size(), List<resDiskNode>().size(),
          List<resNetNode>().size()}) {
        text += (text.empty() ? "" : " ") + std::to_string(count);
    }
    return text;
}

// One line per row of a table: `name` and the values in the order of the columns, strings quoted.
template <class Row>
std::string Text(const char* name) {
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<float>::max_digits10);
    for (const Row* const row : List<Row>()) {
        text << name;
        for (const auto& each : Facts<Row>().fields) {
            std::visit(
                [&](auto member) {
                    const auto value = row->*member;
                    if constexpr (!std::is_pointer_v<std::remove_const_t<decltype(value)>>) {
                        text << ' ' << value;
                    } else if (value != nullptr) {
                        text << ' ' << std::quoted(value);
                    } else {
                        text << " null";
                    }
                },
                each.field);
        }
        text << '\n';
    }
    return text.str();
}

inline std::string VmText() {
    return Text<vmEntry>("vm");
}

inline std::string DeviceText() {
    return Text<vmNetNode>("nic") + Text<vmHBANode>("hba") + Text<vmHBATgtNode>("target") +
           Text<vmFloppyNode>("floppy") + Text<vmCDROMNode>("cdrom");
}

inline std::string ResourceText() {
    return Text<resCPUNode>("cpu") + Text<resMemNode>("memory") + Text<resDiskNode>("disk") +
           Text<resNetNode>("card");
}

}  // namespace TestRows
