#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/fake_refresh.h"
#include "tests/unit/snmp/handler_call.h"
#include "tests/unit/snmp/rows.h"

namespace {

using TestSupport::LogLine;
using TestSupport::TakeDetail;

class ResourceTables : public testing::Test {
  protected:
    void SetUp() override {
        FakeRefresh::Reset();
        DestroyAllRows();
        TakeDetail();
    }
    void TearDown() override {
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
        DestroyAllRows();
    }

    TestSupport::LogCapture log;
};

// The host's processors.

const Column numCpuCores{SNMP_ResCPU, 2, {3, 1, 1}};

TEST_F(ResourceTables, TheNumberOfProcessorsIsAnsweredAsTheDaemonTells) {
    FakeRefresh::Get().numCpu = [] { return 8; };
    ExpectInteger(numCpuCores.Get({0}), 8);
    const Answer next = numCpuCores.GetNext({});
    ExpectInteger(next, 8);
    EXPECT_EQ(next.name, Enterprise({3, 1, 1, 0}));
}

TEST_F(ResourceTables, TheNumberOfProcessorsIsAskedForOnEveryRequest) {
    int count = 4;
    FakeRefresh::Get().numCpu = [&] { return count; };
    ExpectInteger(numCpuCores.Get({0}), 4);
    count = 6;
    ExpectInteger(numCpuCores.Get({0}), 6);
    EXPECT_EQ(FakeRefresh::Get().refreshes, 0);
}

TEST_F(ResourceTables, TheNumberOfProcessorsIsASigned16BitCount) {
    const struct {
        int told;
        int answered;
    } cases[] = {{32767, 32767}, {32768, -32768}, {65535, -1}, {65536, 0}, {65537, 1}, {-1, -1}, {0, 0}};
    for (const auto& each : cases) {
        FakeRefresh::Get().numCpu = [&] { return each.told; };
        ExpectInteger(numCpuCores.Get({0}), each.answered);
    }
}

TEST_F(ResourceTables, TheNumberOfProcessorsLeavesADetailEvenWhenAnswered) {
    EXPECT_TRUE(numCpuCores.Get({0}).answered);
    EXPECT_EQ(TakeDetail(), "SNMPResCPU: Unknown variable requested\n");
    const Column unknown{SNMP_ResCPU, 3, {3, 1, 1}};
    EXPECT_FALSE(unknown.Get({0}).answered);
    EXPECT_EQ(TakeDetail(), "SNMPResCPU: Unknown variable requested\n");
}

TEST_F(ResourceTables, AnotherInstanceOfTheProcessorCountLeavesNothing) {
    int asked = 0;
    FakeRefresh::Get().numCpu = [&] { return ++asked; };
    EXPECT_FALSE(numCpuCores.Get({}).answered);
    EXPECT_FALSE(numCpuCores.Get({1}).answered);
    EXPECT_FALSE(numCpuCores.GetNext({0}).answered);
    EXPECT_EQ(TakeDetail(), "");
    EXPECT_EQ(asked, 0);
}

// Processors of virtual machines.

Column CpuColumn(int magic) {
    return {SNMP_ResCPUTable, magic, {3, 1, 2, 1, static_cast<oid>(magic - 4)}};
}

void AddCpu(int index, int shares, float used) {
    resCPUNode& row = Append(SNMPResCPUTable_GetPtr());
    row.cpuVMID = index;
    row.cpuShares = shares;
    row.cpuUsedSec = used;
}

TEST_F(ResourceTables, ProcessorsAnswerEveryColumn) {
    AddCpu(16, 2000, 181.5F);
    ExpectInteger(CpuColumn(5).Get({16}), 16);
    ExpectInteger(CpuColumn(6).Get({16}), 2000);
    ExpectInteger(CpuColumn(7).Get({16}), 181);
    for (const int magic : {2, 4, 8}) {
        const Column unknown{SNMP_ResCPUTable, magic, {3, 1, 2, 1, 1}};
        EXPECT_FALSE(unknown.Get({16}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_ResCPUTable: Unknown variable requested.\n");
    }
}

TEST_F(ResourceTables, ProcessorSecondsAreTruncatedTowardZero) {
    const struct {
        float used;
        int answered;
    } cases[] = {{2.9F, 2},
                 {-0.5F, 0},
                 {-2.9F, -2},
                 {0.0F, 0},
                 {2147483520.0F, 2147483520},
                 {2147483648.0F, 2147483647},
                 {1e30F, 2147483647},
                 {-2147483648.0F, std::numeric_limits<int>::min()},
                 {-1e30F, std::numeric_limits<int>::min()},
                 {std::numeric_limits<float>::quiet_NaN(), 0}};
    AddCpu(1, 0, 0);
    for (const auto& each : cases) {
        (*SNMPResCPUTable_GetPtr())->cpuUsedSec = each.used;
        ExpectInteger(CpuColumn(7).Get({1}), each.answered);
    }
}

TEST_F(ResourceTables, ProcessorsOfNeighbouringMachinesCollideAndTheFirstAnswers) {
    AddCpu(16, 2000, 0);
    AddCpu(17, 0, 0);
    AddCpu(17, 500, 0);
    AddCpu(18, 0, 0);
    ExpectInteger(CpuColumn(6).Get({17}), 0);
    ExpectInteger(CpuColumn(6).GetNext({16}), 0);
    EXPECT_EQ(CpuColumn(5).Walk(), (std::vector<Oid>{{16}, {17}, {18}}));
}

TEST_F(ResourceTables, AMachineWithoutANumberHasTheLargestIndex) {
    AddCpu(-1, 1, 0);
    AddCpu(3, 2, 0);
    EXPECT_EQ(CpuColumn(5).Walk(), (std::vector<Oid>{{3}, {4294967295}}));
    ExpectInteger(CpuColumn(5).Get({4294967295}), -1);
}

// The host's memory.

const Column memTotal{SNMP_ResMem, 2, {3, 2, 1}};
const Column memReserved{SNMP_ResMem, 3, {3, 2, 2}};
const Column memUnreserved{SNMP_ResMem, 4, {3, 2, 3}};

void SetMemory(long reserved, long total) {
    FakeRefresh::Get().memoryKnown = true;
    FakeRefresh::Get().reserved = reserved;
    FakeRefresh::Get().total = total;
}

TEST_F(ResourceTables, TheHostsMemoryIsAnsweredAsTheDaemonTells) {
    SetMemory(278528, 2097152);
    ExpectInteger(memTotal.Get({0}), 2097152);
    ExpectInteger(memReserved.Get({0}), 278528);
    ExpectInteger(memUnreserved.Get({0}), 1818624);
    const Answer next = memUnreserved.GetNext({});
    ExpectInteger(next, 1818624);
    EXPECT_EQ(next.name, Enterprise({3, 2, 3, 0}));
    EXPECT_EQ(TakeDetail(), "");
}

TEST_F(ResourceTables, UnreservedMemoryIsComputedAfreshEachTime) {
    SetMemory(100, 1000);
    ExpectInteger(memReserved.Get({0}), 100);
    ExpectInteger(memUnreserved.Get({0}), 900);
    ExpectInteger(memUnreserved.Get({0}), 900);
    ExpectInteger(memReserved.Get({0}), 100);
    SetMemory(400, 1000);
    ExpectInteger(memUnreserved.Get({0}), 600);
    EXPECT_EQ(FakeRefresh::Get().refreshes, 0);
}

TEST_F(ResourceTables, MemoryIs0WhileTheDaemonCannotBeAsked) {
    SetMemory(100, 1000);
    ExpectInteger(memReserved.Get({0}), 100);
    FakeRefresh::Get().memoryKnown = false;
    ExpectInteger(memTotal.Get({0}), 0);
    ExpectInteger(memReserved.Get({0}), 0);
    ExpectInteger(memUnreserved.Get({0}), 0);
}

TEST_F(ResourceTables, MemoryMayBeReservedBeyondTheTotal) {
    SetMemory(285212672, 278528);
    ExpectInteger(memUnreserved.Get({0}), 278528 - 285212672);
    SetMemory(-1, std::numeric_limits<int>::max());
    ExpectInteger(memUnreserved.Get({0}), std::numeric_limits<int>::min());
}

TEST_F(ResourceTables, AnUnknownMemoryFigureLeavesADetail) {
    for (const int magic : {1, 5, 7}) {
        const Column unknown{SNMP_ResMem, magic, {3, 2, 1}};
        EXPECT_FALSE(unknown.Get({0}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_ResMem: Unknown variable requested.\n");
    }
}

TEST_F(ResourceTables, AnotherInstanceOfAMemoryFigureIsNotAnswered) {
    EXPECT_FALSE(memTotal.Get({}).answered);
    EXPECT_FALSE(memTotal.Get({1}).answered);
    EXPECT_FALSE(memTotal.GetNext({0}).answered);
}

// Memory of virtual machines.

Column MemColumn(int magic) {
    return {SNMP_ResMemTable, magic, {3, 2, 4, 1, static_cast<oid>(magic - 6)}};
}

void AddMemory(int index) {
    resMemNode& row = Append(SNMPResMemTable_GetPtr());
    row.memVMID = index;
    row.memShares = 5120;
    row.memConfiguredKB = 524288;
    row.memActive = 131072;
}

TEST_F(ResourceTables, MemoryRowsAnswerEveryColumn) {
    AddMemory(16);
    ExpectInteger(MemColumn(7).Get({16}), 16);
    ExpectInteger(MemColumn(8).Get({16}), 5120);
    ExpectInteger(MemColumn(9).Get({16}), 524288);
    ExpectInteger(MemColumn(10).Get({16}), 131072);
    for (const int magic : {2, 6, 11}) {
        const Column unknown{SNMP_ResMemTable, magic, {3, 2, 4, 1, 1}};
        EXPECT_FALSE(unknown.Get({16}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_ResMemTable: Unknown variable requested.\n");
    }
}

TEST_F(ResourceTables, MemoryRowsAreWalkedInTheOrderOfTheirKeys) {
    AddMemory(7);
    AddMemory(3);
    AddMemory(5);
    EXPECT_EQ(MemColumn(7).Walk(), (std::vector<Oid>{{3}, {5}, {7}}));
}

// Disks.

Column DiskColumn(int magic) {
    return {SNMP_ResDiskTable, magic, {3, 3, 1, static_cast<oid>(magic - 2)}};
}

resDiskNode& AddDisk(int index) {
    resDiskNode& row = Append(SNMPResDiskTable_GetPtr());
    row.diskIdx = index;
    return row;
}

TEST_F(ResourceTables, DisksAnswerEveryColumn) {
    resDiskNode& row = AddDisk(1);
    row.diskName = SNMPLastingString("disk-0:0");
    row.diskVMID = 16;
    row.diskShares = 1000;
    row.diskNumRead = 11;
    row.diskRead = 12;
    row.diskNumWrite = 13;
    row.diskWrite = -14;
    ExpectInteger(DiskColumn(3).Get({1}), 1);
    EXPECT_EQ(DiskColumn(4).Get({1}).bytes, "disk-0:0");
    ExpectInteger(DiskColumn(5).Get({1}), 16);
    ExpectInteger(DiskColumn(6).Get({1}), 1000);
    ExpectInteger(DiskColumn(7).Get({1}), 11);
    ExpectInteger(DiskColumn(8).Get({1}), 12);
    ExpectInteger(DiskColumn(9).Get({1}), 13);
    ExpectInteger(DiskColumn(10).Get({1}), -14);
    for (const int magic : {2, 11}) {
        EXPECT_FALSE(DiskColumn(magic).Get({1}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_ResDiskTable: Unknown variable requested.\n");
    }
}

TEST_F(ResourceTables, DisksAreWalkedInTheOrderOfTheirKeys) {
    AddDisk(10);
    AddDisk(2);
    AddDisk(9);
    EXPECT_EQ(DiskColumn(3).Walk(), (std::vector<Oid>{{2}, {9}, {10}}));
}

// Ethernet cards.

Column NetColumn(int magic) {
    return {SNMP_ResNetTable, magic, {3, 4, 1, static_cast<oid>(magic - 2)}};
}

resNetNode& AddCard(int index) {
    resNetNode& row = Append(SNMPResNetTable_GetPtr());
    row.netIdx = index;
    return row;
}

TEST_F(ResourceTables, CardsAnswerEveryColumn) {
    resNetNode& row = AddCard(1);
    row.netName = SNMPLastingString("VM Network");
    row.netVMID = 16;
    row.netMac = SNMPLastingString("00:16:3e:00:00:01");
    row.netPktTx = 21;
    row.netTx = 22;
    row.netPktRx = 23;
    row.netRx = 24;
    row.netHCPktTx = 4294967301;
    row.netHCTx = 4294967296;
    row.netHCPktRx = 25;
    row.netHCRx = 18446744073709551615U;
    ExpectInteger(NetColumn(3).Get({1}), 1);
    EXPECT_EQ(NetColumn(4).Get({1}).bytes, "VM Network");
    ExpectInteger(NetColumn(5).Get({1}), 16);
    EXPECT_EQ(NetColumn(6).Get({1}).bytes, "00:16:3e:00:00:01");
    ExpectInteger(NetColumn(8).Get({1}), 21);
    ExpectInteger(NetColumn(9).Get({1}), 22);
    ExpectInteger(NetColumn(10).Get({1}), 23);
    ExpectInteger(NetColumn(11).Get({1}), 24);
    EXPECT_EQ(NetColumn(12).Get({1}).Counter64(), 4294967301U);
    EXPECT_EQ(NetColumn(13).Get({1}).Counter64(), 4294967296U);
    EXPECT_EQ(NetColumn(14).Get({1}).Counter64(), 25U);
    EXPECT_EQ(NetColumn(15).Get({1}).Counter64(), 18446744073709551615U);
    for (const int magic : {2, 16}) {
        EXPECT_FALSE(NetColumn(magic).Get({1}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_ResNetTable: Unknown variable requested.\n");
    }
}

TEST_F(ResourceTables, ACounterOf2To32HasHighWord1AndLowWord0) {
    AddCard(1).netHCTx = 4294967296;
    const std::string bytes = NetColumn(13).Get({1}).bytes;
    counter64 counter{};
    ASSERT_EQ(bytes.size(), sizeof(counter));
    bytes.copy(reinterpret_cast<char*>(&counter), sizeof(counter));
    EXPECT_EQ(counter.high, 1U);
    EXPECT_EQ(counter.low, 0U);
}

TEST_F(ResourceTables, CountersKeepEveryBit) {
    resNetNode& row = AddCard(1);
    for (const std::uint64_t value :
         {std::uint64_t{0}, (std::uint64_t{1} << 31) - 1, std::uint64_t{1} << 31,
          (std::uint64_t{1} << 32) - 1, (std::uint64_t{1} << 32) + 5, std::uint64_t{1} << 62, UINT64_MAX}) {
        row.netHCPktTx = row.netHCTx = row.netHCPktRx = row.netHCRx = value;
        for (const int magic : {12, 13, 14, 15}) {
            EXPECT_EQ(NetColumn(magic).Get({1}).Counter64(), value) << magic;
        }
    }
}

TEST_F(ResourceTables, TheFifthColumnOfCardsIs0WhateverTheRowHolds) {
    AddCard(1).netSpare = 77;
    AddCard(2);
    ExpectInteger(NetColumn(7).Get({1}), 0);
    ExpectInteger(NetColumn(7).Get({2}), 0);
}

TEST_F(ResourceTables, CardsAreWalkedInTheOrderOfTheirKeys) {
    AddCard(3);
    AddCard(1);
    AddCard(2);
    EXPECT_EQ(NetColumn(3).Walk(), (std::vector<Oid>{{1}, {2}, {3}}));
}

// All of them.

const std::vector<Column> firstColumns{CpuColumn(5), MemColumn(7), DiskColumn(3), NetColumn(3)};

TEST_F(ResourceTables, AnswerNothingWhenEmpty) {
    for (const Column& column : firstColumns) {
        EXPECT_FALSE(column.Get({0}).answered);
        EXPECT_FALSE(column.Get({1}).answered);
        EXPECT_FALSE(column.GetNext({}).answered);
    }
    EXPECT_EQ(TakeDetail(), "");
}

TEST_F(ResourceTables, RefreshBeforeTheyLookAtTheirRows) {
    FakeRefresh::Get().onRefresh = [] {
        AddCpu(1, 0, 0);
        AddMemory(1);
        AddDisk(1);
        AddCard(1);
    };
    for (std::size_t i = 0; i < firstColumns.size(); ++i) {
        DestroyAllRows();
        EXPECT_TRUE(firstColumns[i].GetNext({}).answered);
        EXPECT_EQ(FakeRefresh::Get().refreshes, static_cast<int>(i) + 1);
    }
}

TEST_F(ResourceTables, KeepAnAnswerUntilTheNextOfTheSameKind) {
    FakeRefresh::Get().numCpu = [] { return 8; };
    SetMemory(100, 1000);
    AddCpu(16, 0, 0);
    AddMemory(17);
    AddDisk(1).diskName = SNMPLastingString("disk");
    resNetNode& card = AddCard(2);
    card.netName = SNMPLastingString("card");
    card.netHCTx = 4294967296;
    // Scalars and tables keep theirs apart, and so do numbers, counters and texts; no two are alike.
    const Answer answers[] = {
        numCpuCores.Get({0}),   CpuColumn(5).Get({16}), memTotal.Get({0}),
        MemColumn(7).Get({17}), DiskColumn(3).Get({1}), DiskColumn(4).Get({1}),
        NetColumn(3).Get({2}),  NetColumn(4).Get({2}),  NetColumn(13).Get({2}),
    };
    for (const Answer& answer : answers) {
        ASSERT_TRUE(answer.answered);
        EXPECT_EQ(answer.BytesNow(), answer.bytes);
    }
}

TEST_F(ResourceTables, KeepExceptionsFromTheAgent) {
    FakeRefresh::Get().onRefresh = [] { throw std::runtime_error("stop"); };
    const char* const names[] = {"SNMP_ResCPUTable", "SNMP_ResMemTable", "SNMP_ResDiskTable",
                                 "SNMP_ResNetTable"};
    for (std::size_t i = 0; i < firstColumns.size(); ++i) {
        EXPECT_FALSE(firstColumns[i].GetNext({}).answered);
        EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, std::string(names[i]) + ": stop\n"}}));
    }
    FakeRefresh::Get().numCpu = []() -> int { throw std::runtime_error("stop"); };
    EXPECT_FALSE(numCpuCores.Get({0}).answered);
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, "SNMP_ResCPU: stop\n"}}));
}

}  // namespace
