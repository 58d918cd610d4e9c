#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "apps/snmp/collections/VMTables.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/fake_refresh.h"
#include "tests/unit/snmp/handler_call.h"
#include "tests/unit/snmp/rows.h"

namespace {

using TestSupport::LogLine;
using TestSupport::TakeDetail;

class VmTables : public testing::Test {
  protected:
    void SetUp() override {
        FakeRefresh::Reset();
        DestroyAllRows();
        TakeDetail();
    }
    void TearDown() override {
        // No handler of these tables has anything to say in the log.
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
        DestroyAllRows();
    }

    TestSupport::LogCapture log;
};

void ExpectText(const Answer& answer, const std::string& text) {
    ASSERT_TRUE(answer.answered);
    EXPECT_EQ(answer.bytes, text);
    EXPECT_TRUE(answer.writeMethodNull);
}

// Virtual machines.

Column VmColumn(int magic) {
    return {SNMP_VMInfoTable, magic, {2, 1, 1, static_cast<oid>(magic - 2)}};
}

void MakeTwoMachines() {
    vmEntry* const rows = MakeVmRows(2);
    rows[0] = {0,
               SNMPAllocString("web-1"),
               SNMPAllocString("/volumes/4a5b/web-1/web-1.cfg"),
               SNMPAllocString("Debian GNU/Linux 12 (64-bit)"),
               512,
               SNMPAllocString("poweredOn"),
               16,
               SNMPAllocString("running")};
    rows[1] = {1,
               SNMPAllocString("db-1"),
               SNMPAllocString("Unknown config: db"),
               SNMPAllocString("Other"),
               2048,
               SNMPAllocString("poweredOff"),
               -1,
               SNMPAllocString("notRunning")};
}

TEST_F(VmTables, MachinesAnswerEveryColumn) {
    MakeTwoMachines();
    ExpectInteger(VmColumn(3).Get({0}), 0);
    ExpectText(VmColumn(4).Get({0}), "web-1");
    ExpectText(VmColumn(5).Get({0}), "/volumes/4a5b/web-1/web-1.cfg");
    ExpectText(VmColumn(6).Get({0}), "Debian GNU/Linux 12 (64-bit)");
    ExpectInteger(VmColumn(7).Get({0}), 512);
    ExpectText(VmColumn(8).Get({0}), "poweredOn");
    ExpectInteger(VmColumn(9).Get({0}), 16);
    ExpectText(VmColumn(10).Get({0}), "running");

    ExpectInteger(VmColumn(3).Get({1}), 1);
    ExpectText(VmColumn(4).Get({1}), "db-1");
    ExpectInteger(VmColumn(9).Get({1}), -1);
    EXPECT_FALSE(VmColumn(4).Get({2}).answered);
}

TEST_F(VmTables, TheFirstMachineHasInstance0) {
    MakeTwoMachines();
    const Answer answer = VmColumn(4).GetName(Enterprise({2, 1, 1, 2, 0}));
    ExpectText(answer, "web-1");
    EXPECT_EQ(answer.name, Enterprise({2, 1, 1, 2, 0}));
}

TEST_F(VmTables, AGetNextOnTheTableAnswersItsFirstColumnsFirstRow) {
    MakeTwoMachines();
    const Answer answer = VmColumn(3).GetNextName(Enterprise({2, 1}));
    ExpectInteger(answer, 0);
    EXPECT_EQ(answer.name, Enterprise({2, 1, 1, 1, 0}));
}

TEST_F(VmTables, AGetNextOnAColumnAnswersItsFirstRow) {
    MakeTwoMachines();
    const Answer answer = VmColumn(4).GetNext({});
    ExpectText(answer, "web-1");
    EXPECT_EQ(answer.name, Enterprise({2, 1, 1, 2, 0}));
    EXPECT_EQ(VmColumn(4).Walk(), (std::vector<Oid>{{0}, {1}}));
}

TEST_F(VmTables, MachinesAreIndexedByPositionNotByAField) {
    MakeTwoMachines();
    vmInfoTable[0].vmIdx = 40;
    vmInfoTable[1].vmIdx = 30;
    EXPECT_EQ(VmColumn(3).Walk(), (std::vector<Oid>{{0}, {1}}));
    ExpectInteger(VmColumn(3).Get({0}), 40);
}

TEST_F(VmTables, AnUnknownColumnOfMachinesLeavesADetail) {
    MakeTwoMachines();
    for (const int magic : {0, 1, 2, 11, 255}) {
        const Column column{SNMP_VMInfoTable, magic, {2, 1, 1, 1}};
        const Answer answer = column.GetNext({});
        EXPECT_FALSE(answer.answered);
        EXPECT_EQ(answer.name, Enterprise({2, 1, 1, 1, 0}));
        EXPECT_TRUE(answer.writeMethodNull);
        EXPECT_EQ(TakeDetail(), "SNMPVMInfo_Table: Unknown variable requested.\n");
    }
    EXPECT_TRUE(VmColumn(3).Get({0}).answered);
    EXPECT_EQ(TakeDetail(), "");
}

TEST_F(VmTables, AMissingTextAnswersEmpty) {
    MakeVmRows(1);
    ExpectText(VmColumn(4).Get({0}), "");
}

TEST_F(VmTables, AMissingSourceReadsAsAnError) {
    MakeVmRows(1)->vmGuestState = SNMPAllocString(nullptr);
    ExpectText(VmColumn(10).Get({0}), "SNMP Error");
}

// Storage adapters.

Column HbaColumn(int magic) {
    return {SNMP_VMHBATable, magic, {2, 2, 1, static_cast<oid>(magic - 2)}};
}

vmHBANode& AddAdapter(int machine, int bus) {
    vmHBANode& row = Append(SNMPVMHBATable_GetPtr());
    row.vmIdx = machine;
    row.hbaBus = bus;
    return row;
}

TEST_F(VmTables, AdaptersAnswerEveryColumn) {
    vmHBANode& row = AddAdapter(3, 1);
    row.hbaLabel = SNMPAllocString("SCSI Controller 1");
    row.hbaType = SNMPAllocString("buslogic");
    ExpectInteger(HbaColumn(3).Get({3, 1}), 3);
    ExpectInteger(HbaColumn(4).Get({3, 1}), 1);
    ExpectText(HbaColumn(5).Get({3, 1}), "SCSI Controller 1");
    ExpectText(HbaColumn(6).Get({3, 1}), "buslogic");
    for (const int magic : {2, 7}) {
        EXPECT_FALSE(HbaColumn(magic).Get({3, 1}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_VMHBATable: Unknown variable requested.\n");
    }
}

TEST_F(VmTables, AdaptersAreWalkedInTheOrderOfMachineAndBus) {
    AddAdapter(1, 1);
    AddAdapter(0, 2);
    AddAdapter(0, 1);
    EXPECT_EQ(HbaColumn(3).Walk(), (std::vector<Oid>{{0, 1}, {0, 2}, {1, 1}}));
    const Answer next = HbaColumn(4).GetNext({0, 1});
    ExpectInteger(next, 2);
    EXPECT_EQ(next.name, Enterprise({2, 2, 1, 2, 0, 2}));
}

// Virtual disks.

Column TgtColumn(int magic) {
    return {SNMP_VMHBATgtTable, magic, {2, 3, 1, static_cast<oid>(magic - 8)}};
}

void AddDisk(int machine, int unit, const char* label) {
    vmHBATgtNode& row = Append(SNMPVMHBATgtTable_GetPtr());
    row.vmIdx = machine;
    row.tgtUnit = unit;
    row.tgtLabel = SNMPAllocString(label);
}

TEST_F(VmTables, DisksAnswerEveryColumn) {
    AddDisk(2, 5, "Hard Disk 1");
    ExpectInteger(TgtColumn(9).Get({2, 5}), 2);
    ExpectInteger(TgtColumn(10).Get({2, 5}), 5);
    ExpectText(TgtColumn(11).Get({2, 5}), "Hard Disk 1");
}

TEST_F(VmTables, DisksKnowNoOtherColumns) {
    AddDisk(2, 5, "Hard Disk 1");
    for (const int magic : {3, 4, 5, 8, 12}) {
        const Column column{SNMP_VMHBATgtTable, magic, {2, 3, 1, 1}};
        EXPECT_FALSE(column.Get({2, 5}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_VMHBATgtTable: Unknown variable requested.\n");
    }
}

TEST_F(VmTables, OfDisksWithOneUnitNumberOnlyTheFirstIsReached) {
    AddDisk(0, 0, "Hard Disk 1");
    AddDisk(0, 0, "Hard Disk 2");
    AddDisk(0, 1, "Hard Disk 3");
    ExpectText(TgtColumn(11).Get({0, 0}), "Hard Disk 1");
    ExpectText(TgtColumn(11).GetNext({}), "Hard Disk 1");
    ExpectText(TgtColumn(11).GetNext({0, 0}), "Hard Disk 3");
    EXPECT_EQ(TgtColumn(11).Walk(), (std::vector<Oid>{{0, 0}, {0, 1}}));
}

TEST_F(VmTables, DisksAreWalkedInTheOrderOfMachineAndUnit) {
    AddDisk(1, 0, "c");
    AddDisk(0, 1, "b");
    AddDisk(0, 0, "a");
    EXPECT_EQ(TgtColumn(9).Walk(), (std::vector<Oid>{{0, 0}, {0, 1}, {1, 0}}));
}

// Ethernet cards.

Column NicColumn(int magic) {
    return {SNMP_VMNetTable, magic, {2, 4, 1, static_cast<oid>(magic - 2)}};
}

void AddCard(int machine, int card) {
    vmNetNode& row = Append(SNMPVMNetTable_GetPtr());
    row.vmIdx = machine;
    row.nicIdx = card;
    row.nicLabel = SNMPAllocString("Network Adapter 1");
    row.nicNetwork = SNMPAllocString("VM Network");
    row.nicDevice = SNMPAllocString("monitor_dev");
}

TEST_F(VmTables, CardsAnswerEveryColumn) {
    AddCard(0, 2);
    AddCard(1, 0);
    ExpectInteger(NicColumn(3).Get({1, 0}), 1);
    ExpectInteger(NicColumn(4).Get({0, 2}), 2);
    ExpectText(NicColumn(5).Get({0, 2}), "Network Adapter 1");
    ExpectText(NicColumn(6).Get({0, 2}), "VM Network");
    ExpectText(NicColumn(7).Get({0, 2}), "monitor_dev");
    ExpectText(NicColumn(7).Get({1, 0}), "monitor_dev");
    for (const int magic : {2, 8}) {
        EXPECT_FALSE(NicColumn(magic).Get({0, 2}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_VMNetTable: unknown variable requested.\n");
    }
}

TEST_F(VmTables, CardsAreWalkedInTheOrderOfMachineAndCard) {
    AddCard(2, 0);
    AddCard(0, 1);
    AddCard(0, 0);
    EXPECT_EQ(NicColumn(3).Walk(), (std::vector<Oid>{{0, 0}, {0, 1}, {2, 0}}));
}

// Floppy drives.

Column FloppyColumn(int magic) {
    return {SNMP_VMFloppyTable, magic, {2, 5, 1, static_cast<oid>(magic - 2)}};
}

vmFloppyNode& AddFloppy(int machine, int unit) {
    vmFloppyNode& row = Append(SNMPVMFloppyTable_GetPtr());
    row.vmIdx = machine;
    row.fdUnit = unit;
    return row;
}

TEST_F(VmTables, FloppiesAnswerEveryColumn) {
    vmFloppyNode& row = AddFloppy(4, 1);
    row.fdBacking = SNMPAllocString("[storage1] boot.flp");
    row.fdConnected = SNMPAllocString("false");
    ExpectInteger(FloppyColumn(3).Get({4, 1}), 4);
    ExpectInteger(FloppyColumn(4).Get({4, 1}), 1);
    ExpectText(FloppyColumn(5).Get({4, 1}), "[storage1] boot.flp");
    ExpectText(FloppyColumn(6).Get({4, 1}), "false");
    for (const int magic : {2, 7}) {
        EXPECT_FALSE(FloppyColumn(magic).Get({4, 1}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_VMFloppyTable: Unknown variable requested.\n");
    }
}

TEST_F(VmTables, AFloppyWithoutConnectionInformationAnswersEmpty) {
    AddFloppy(0, 0);
    ExpectText(FloppyColumn(6).Get({0, 0}), "");
}

TEST_F(VmTables, FloppiesAreWalkedInTheOrderOfMachineAndUnit) {
    AddFloppy(1, 0);
    AddFloppy(0, 1);
    AddFloppy(0, 0);
    EXPECT_EQ(FloppyColumn(3).Walk(), (std::vector<Oid>{{0, 0}, {0, 1}, {1, 0}}));
}

// CD-ROM drives.

Column CdromColumn(int magic) {
    return {SNMP_VMCDROMTable, magic, {2, 6, 1, static_cast<oid>(magic - 2)}};
}

vmCDROMNode& AddCdrom(int machine, int position) {
    vmCDROMNode& row = Append(SNMPVMCDROMTable_GetPtr());
    row.vmIdx = machine;
    row.cdIdeIndex = position;
    return row;
}

TEST_F(VmTables, CdromsAnswerEveryColumn) {
    vmCDROMNode& row = AddCdrom(4, 3);
    row.cdBacking = SNMPAllocString("remote device backing");
    row.cdConnected = SNMPAllocString("true");
    ExpectInteger(CdromColumn(3).Get({4, 3}), 4);
    ExpectInteger(CdromColumn(4).Get({4, 3}), 3);
    ExpectText(CdromColumn(5).Get({4, 3}), "remote device backing");
    ExpectText(CdromColumn(6).Get({4, 3}), "true");
    for (const int magic : {2, 7}) {
        EXPECT_FALSE(CdromColumn(magic).Get({4, 3}).answered);
        EXPECT_EQ(TakeDetail(), "SNMP_VMCDROMTable: Unknown variable requested.\n");
    }
}

TEST_F(VmTables, ACdromWithoutConnectionInformationAnswersEmpty) {
    AddCdrom(0, 0);
    ExpectText(CdromColumn(6).Get({0, 0}), "");
}

TEST_F(VmTables, CdromsAreWalkedInTheOrderOfMachineAndPosition) {
    AddCdrom(1, 0);
    AddCdrom(0, 3);
    AddCdrom(0, 2);
    EXPECT_EQ(CdromColumn(3).Walk(), (std::vector<Oid>{{0, 2}, {0, 3}, {1, 0}}));
}

// All of them.

const std::vector<Column> firstColumns{VmColumn(3),  HbaColumn(3),    TgtColumn(9),
                                       NicColumn(3), FloppyColumn(3), CdromColumn(3)};

TEST_F(VmTables, AnswerNothingWhenEmpty) {
    for (const Column& column : firstColumns) {
        EXPECT_FALSE(column.Get({0}).answered);
        EXPECT_FALSE(column.Get({0, 0}).answered);
        EXPECT_FALSE(column.GetNext({}).answered);
    }
    EXPECT_EQ(TakeDetail(), "");
}

TEST_F(VmTables, RefreshBeforeTheyLookAtTheirRows) {
    FakeRefresh::Get().onRefresh = [] {
        DestroyAllRows();
        MakeVmRows(1);
        AddAdapter(0, 0);
        AddDisk(0, 0, "");
        AddCard(0, 0);
        AddFloppy(0, 0);
        AddCdrom(0, 0);
    };
    for (std::size_t i = 0; i < firstColumns.size(); ++i) {
        DestroyAllRows();
        EXPECT_TRUE(firstColumns[i].GetNext({}).answered);
        EXPECT_EQ(FakeRefresh::Get().refreshes, static_cast<int>(i) + 1);
    }
}

TEST_F(VmTables, KeepExceptionsFromTheAgent) {
    FakeRefresh::Get().onRefresh = [] { throw std::runtime_error("stop"); };
    const char* const names[] = {"SNMP_VMInfoTable", "SNMP_VMHBATable",    "SNMP_VMHBATgtTable",
                                 "SNMP_VMNetTable",  "SNMP_VMFloppyTable", "SNMP_VMCDROMTable"};
    for (std::size_t i = 0; i < firstColumns.size(); ++i) {
        EXPECT_FALSE(firstColumns[i].GetNext({}).answered);
        EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, std::string(names[i]) + ": stop\n"}}));
    }
}

TEST_F(VmTables, KeepAnAnswerUntilTheNextOfTheSameHandler) {
    AddAdapter(0, 1).hbaLabel = SNMPAllocString("adapter");
    AddDisk(0, 2, "disk");
    AddFloppy(0, 3).fdBacking = SNMPAllocString("floppy");
    AddCdrom(0, 4).cdBacking = SNMPAllocString("cdrom");
    // A number and a text of each handler, no two alike.
    const Answer answers[] = {
        HbaColumn(4).Get({0, 1}),   HbaColumn(5).Get({0, 1}),    TgtColumn(10).Get({0, 2}),
        TgtColumn(11).Get({0, 2}),  FloppyColumn(4).Get({0, 3}), FloppyColumn(5).Get({0, 3}),
        CdromColumn(4).Get({0, 4}), CdromColumn(5).Get({0, 4}),
    };
    for (const Answer& answer : answers) {
        ASSERT_TRUE(answer.answered);
        EXPECT_EQ(answer.BytesNow(), answer.bytes);
    }
}

}  // namespace
