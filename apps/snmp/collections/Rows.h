// The records of the ten tables, one struct per table.
//
// Rows are zeroed allocations of `calloc`, owned by their table's collection. Strings are NUL-terminated or
// null. `char*` strings are heap copies that the row owns; `const char*` strings outlive every row.
#pragma once

#include <array>
#include <cstdint>

// A VM; its position in the array is its index.
struct vmEntry {
    std::int32_t vmIdx;      // position of the VM, from 0
    char* vmDisplayName;     // configured name
    char* vmConfigFile;      // local path of the configuration file
    char* vmGuestOS;         // full name of the configured guest operating system
    std::int32_t vmMemSize;  // configured memory, megabytes
    char* vmState;           // name of the power state
    std::int32_t vmVMID;     // id; -1 when the API's id is not a number
    char* vmGuestState;      // state of the guest
};

// A SCSI controller.
struct vmHBANode {
    std::int32_t vmIdx;   // position of the owning VM
    std::int32_t hbaBus;  // bus number
    char* hbaLabel;
    char* hbaType;  // "buslogic", "lsilogic" or "unknown"
    vmHBANode* next;
};

// A virtual disk.
struct vmHBATgtNode {
    std::int32_t vmIdx;    // position of the owning VM
    std::int32_t tgtUnit;  // unit number on its controller
    char* tgtLabel;
    vmHBATgtNode* next;
};

// An Ethernet card.
struct vmNetNode {
    std::int32_t vmIdx;   // position of the owning VM
    std::int32_t nicIdx;  // position among the VM's cards, from 0
    char* nicLabel;
    char* nicNetwork;  // network it is attached to
    char* nicDevice;
    vmNetNode* next;
};

// A floppy drive.
struct vmFloppyNode {
    std::int32_t vmIdx;   // position of the owning VM
    std::int32_t fdUnit;  // unit number
    char* fdBacking;      // name of the file or device
    char* fdConnected;    // "true", "false", or null when unknown
    vmFloppyNode* next;
};

// A CD-ROM drive.
struct vmCDROMNode {
    std::int32_t vmIdx;       // position of the owning VM
    std::int32_t cdIdeIndex;  // bus of the IDE controller times 2 plus the unit number
    char* cdBacking;          // name of the file or device
    char* cdConnected;        // "true", "false", or null when unknown
    vmCDROMNode* next;
};

// A virtual CPU of a VM that is not powered off.
struct resCPUNode {
    std::int32_t cpuVMID;    // the VM's id plus the CPU's number, so two rows may share an index
    std::int32_t cpuShares;  // the VM's shares on its first CPU, 0 on the others
    float cpuUsedSec;        // seconds used
    resCPUNode* next;
};

// The memory of a VM that is not powered off.
struct resMemNode {
    std::int32_t memVMID;  // the VM's id
    std::int32_t memShares;
    std::int32_t memConfiguredKB;  // kilobytes, the low 32 bits
    std::int32_t memActive;        // kilobytes
    resMemNode* next;
};

// A virtual disk of a VM that is not powered off.
struct resDiskNode {
    std::int32_t diskIdx;   // running number across all VMs, from 1
    const char* diskName;   // the instance of its statistics, or "unknown"
    std::int32_t diskVMID;  // id of the owning VM
    std::int32_t diskShares;
    std::int32_t diskNumRead;   // requests
    std::int32_t diskRead;      // kilobytes
    std::int32_t diskNumWrite;  // requests
    std::int32_t diskWrite;     // kilobytes
    resDiskNode* next;
};

// An Ethernet card of a VM that is not powered off. The first four statistics are the low 32 bits of the last
// four.
struct resNetNode {
    std::int32_t netIdx;   // running number across all VMs, from 1
    const char* netName;   // summary of the card, or "unknown"
    std::int32_t netVMID;  // id of the owning VM
    const char* netMac;
    std::int32_t netSpare;     // always 0
    std::int32_t netPktTx;     // packets transmitted
    std::int32_t netTx;        // kilobytes transmitted
    std::int32_t netPktRx;     // packets received
    std::int32_t netRx;        // kilobytes received
    std::uint64_t netHCPktTx;  // packets transmitted
    std::uint64_t netHCTx;     // kilobytes transmitted
    std::uint64_t netHCPktRx;  // packets received
    std::uint64_t netHCRx;     // kilobytes received
    resNetNode* next;
};

// The fields whose values are a row's index, in their order; none where the index is the row's position.
template <class Row>
inline constexpr std::array<std::int32_t Row::*, 0> indexFields{};
template <>
inline constexpr std::array indexFields<vmHBANode>{&vmHBANode::vmIdx, &vmHBANode::hbaBus};
template <>
inline constexpr std::array indexFields<vmHBATgtNode>{&vmHBATgtNode::vmIdx, &vmHBATgtNode::tgtUnit};
template <>
inline constexpr std::array indexFields<vmNetNode>{&vmNetNode::vmIdx, &vmNetNode::nicIdx};
template <>
inline constexpr std::array indexFields<vmFloppyNode>{&vmFloppyNode::vmIdx, &vmFloppyNode::fdUnit};
template <>
inline constexpr std::array indexFields<vmCDROMNode>{&vmCDROMNode::vmIdx, &vmCDROMNode::cdIdeIndex};
template <>
inline constexpr std::array indexFields<resCPUNode>{&resCPUNode::cpuVMID};
template <>
inline constexpr std::array indexFields<resMemNode>{&resMemNode::memVMID};
template <>
inline constexpr std::array indexFields<resDiskNode>{&resDiskNode::diskIdx};
template <>
inline constexpr std::array indexFields<resNetNode>{&resNetNode::netIdx};

// The strings that a row of the type owns: what a collection releases with the row.
template <class Row>
inline constexpr std::array<char * Row::*, 0> ownedStrings{};
template <>
inline constexpr std::array ownedStrings<vmEntry>{&vmEntry::vmDisplayName, &vmEntry::vmConfigFile,
                                                  &vmEntry::vmGuestOS, &vmEntry::vmState,
                                                  &vmEntry::vmGuestState};
template <>
inline constexpr std::array ownedStrings<vmHBANode>{&vmHBANode::hbaLabel, &vmHBANode::hbaType};
template <>
inline constexpr std::array ownedStrings<vmHBATgtNode>{&vmHBATgtNode::tgtLabel};
template <>
inline constexpr std::array ownedStrings<vmNetNode>{&vmNetNode::nicLabel, &vmNetNode::nicNetwork,
                                                    &vmNetNode::nicDevice};
template <>
inline constexpr std::array ownedStrings<vmFloppyNode>{&vmFloppyNode::fdBacking, &vmFloppyNode::fdConnected};
template <>
inline constexpr std::array ownedStrings<vmCDROMNode>{&vmCDROMNode::cdBacking, &vmCDROMNode::cdConnected};
