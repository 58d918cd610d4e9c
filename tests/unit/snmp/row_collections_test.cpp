#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "apps/snmp/collections/VMTables.h"
#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp/rows.h"

namespace {

// The operations of one list, and its three variables.
template <class Row>
struct ListTable {
    void (*init)();
    int (*getNext)(Row**);
    void (*destroy)();
    Row** (*getPtr)();
    Row** head;
    std::int32_t* index;
    Row** traversal;
};

template <class Row>
ListTable<Row> Table();

template <>
ListTable<vmHBANode> Table() {
    return {SNMPVMHBATable_Init, SNMPVMHBATable_GetNext, SNMPVMHBATable_Destroy, SNMPVMHBATable_GetPtr,
            &vmHBAList,          &vmHBATableIndex,       &vmHBAListTravPtr};
}
template <>
ListTable<vmHBATgtNode> Table() {
    return {SNMPVMHBATgtTable_Init,
            SNMPVMHBATgtTable_GetNext,
            SNMPVMHBATgtTable_Destroy,
            SNMPVMHBATgtTable_GetPtr,
            &vmHBATgtList,
            &vmHBATgtTableIndex,
            &vmHBATgtListTravPtr};
}
template <>
ListTable<vmNetNode> Table() {
    return {SNMPVMNetTable_Init, SNMPVMNetTable_GetNext, SNMPVMNetTable_Destroy, SNMPVMNetTable_GetPtr,
            &vmNetList,          &vmNetTableIndex,       &vmNetListTravPtr};
}
template <>
ListTable<vmFloppyNode> Table() {
    return {SNMPVMFloppyTable_Init,
            SNMPVMFloppyTable_GetNext,
            SNMPVMFloppyTable_Destroy,
            SNMPVMFloppyTable_GetPtr,
            &vmFloppyList,
            &vmFloppyTableIndex,
            &vmFloppyListTravPtr};
}
template <>
ListTable<vmCDROMNode> Table() {
    return {
        SNMPVMCDROMTable_Init, SNMPVMCDROMTable_GetNext, SNMPVMCDROMTable_Destroy, SNMPVMCDROMTable_GetPtr,
        &vmCDROMList,          &vmCDROMTableIndex,       &vmCDROMListTravPtr};
}
template <>
ListTable<resCPUNode> Table() {
    return {SNMPResCPUTable_Init, SNMPResCPUTable_GetNext, SNMPResCPUTable_Destroy, SNMPResCPUTable_GetPtr,
            &resCPUList,          &resCPUTableIndex,       &resCPUListTravPtr};
}
template <>
ListTable<resMemNode> Table() {
    return {SNMPResMemTable_Init, SNMPResMemTable_GetNext, SNMPResMemTable_Destroy, SNMPResMemTable_GetPtr,
            &resMemList,          &resMemTableIndex,       &resMemListTravPtr};
}
template <>
ListTable<resDiskNode> Table() {
    return {
        SNMPResDiskTable_Init, SNMPResDiskTable_GetNext, SNMPResDiskTable_Destroy, SNMPResDiskTable_GetPtr,
        &resDiskList,          &resDiskTableIndex,       &resDiskListTravPtr};
}
template <>
ListTable<resNetNode> Table() {
    return {SNMPResNetTable_Init, SNMPResNetTable_GetNext, SNMPResNetTable_Destroy, SNMPResNetTable_GetPtr,
            &resNetList,          &resNetTableIndex,       &resNetListTravPtr};
}

template <class Row>
class RowLists : public testing::Test {
  protected:
    void SetUp() override { table.destroy(); }
    void TearDown() override { table.destroy(); }

    ListTable<Row> table = Table<Row>();
};

using AllLists = testing::Types<vmHBANode, vmHBATgtNode, vmNetNode, vmFloppyNode, vmCDROMNode, resCPUNode,
                                resMemNode, resDiskNode, resNetNode>;
TYPED_TEST_SUITE(RowLists, AllLists);

TYPED_TEST(RowLists, HandOutNothingWhenEmpty) {
    TypeParam unrelated{};
    TypeParam* row = &unrelated;
    this->table.init();
    EXPECT_EQ(this->table.getNext(&row), -1);
    EXPECT_EQ(row, nullptr);
}

TYPED_TEST(RowLists, HandOutTheChainInOrderAndNumberIt) {
    TypeParam* const first = &Append(this->table.getPtr());
    TypeParam* const second = &Append(this->table.getPtr());
    TypeParam* row = nullptr;
    this->table.init();
    EXPECT_EQ(this->table.getNext(&row), 0);
    EXPECT_EQ(row, first);
    EXPECT_EQ(this->table.getNext(&row), 1);
    EXPECT_EQ(row, second);
    EXPECT_EQ(this->table.getNext(&row), -1);
    EXPECT_EQ(row, nullptr);
    EXPECT_EQ(this->table.getNext(&row), -1);
    this->table.init();
    EXPECT_EQ(this->table.getNext(&row), 0);
    EXPECT_EQ(row, first);
}

TYPED_TEST(RowLists, KeepTheirStateInTheThreeVariables) {
    TypeParam* const first = &Append(this->table.getPtr());
    TypeParam* const second = &Append(this->table.getPtr());
    EXPECT_EQ(this->table.getPtr(), this->table.head);
    EXPECT_EQ(*this->table.head, first);
    TypeParam* row = nullptr;
    this->table.init();
    EXPECT_EQ(*this->table.traversal, first);
    EXPECT_EQ(*this->table.index, 0);
    this->table.getNext(&row);
    EXPECT_EQ(*this->table.traversal, second);
    EXPECT_EQ(*this->table.index, 1);
}

TYPED_TEST(RowLists, AreEmptyAfterDestroy) {
    Append(this->table.getPtr());
    Append(this->table.getPtr());
    this->table.destroy();
    EXPECT_EQ(*this->table.getPtr(), nullptr);
    TypeParam unrelated{};
    TypeParam* row = &unrelated;
    this->table.init();
    EXPECT_EQ(this->table.getNext(&row), -1);
    EXPECT_EQ(row, nullptr);
}

TYPED_TEST(RowLists, KeepIndexAndTraversalUntilTheNextRewind) {
    Append(this->table.getPtr());
    TypeParam* const second = &Append(this->table.getPtr());
    TypeParam* row = nullptr;
    this->table.init();
    this->table.getNext(&row);
    this->table.destroy();
    EXPECT_EQ(*this->table.index, 1);
    EXPECT_EQ(*this->table.traversal, second);
    this->table.init();
    EXPECT_EQ(*this->table.index, 0);
    EXPECT_EQ(*this->table.traversal, nullptr);
}

TYPED_TEST(RowLists, CanBeDestroyedWhenEmpty) {
    this->table.destroy();
    this->table.destroy();
    EXPECT_EQ(*this->table.getPtr(), nullptr);
}

class VmRows : public testing::Test {
  protected:
    void SetUp() override { SNMPVMInfoTable_Destroy(); }
    void TearDown() override { SNMPVMInfoTable_Destroy(); }
};

TEST_F(VmRows, HandOutNothingWhenEmpty) {
    vmEntry unrelated{};
    vmEntry* row = &unrelated;
    SNMPVMInfoTable_Init();
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
    EXPECT_EQ(row, nullptr);
}

TEST_F(VmRows, AreHandedOutByPositionAndThenNoMoreUntilARewind) {
    vmEntry* const rows = MakeVmRows(3);
    vmEntry* row = nullptr;
    SNMPVMInfoTable_Init();
    for (int position = 0; position < 3; ++position) {
        EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), position);
        EXPECT_EQ(row, rows + position);
    }
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
    EXPECT_EQ(row, nullptr);
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
    SNMPVMInfoTable_Init();
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), 0);
    EXPECT_EQ(row, rows);
}

TEST_F(VmRows, AreEmptyAfterDestroy) {
    MakeVmRows(2);
    SNMPVMInfoTable_Destroy();
    EXPECT_EQ(*SNMPVMInfoTable_GetPtr(), nullptr);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    vmEntry* row = nullptr;
    SNMPVMInfoTable_Init();
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
}

TEST_F(VmRows, KeepTheCursorUntilTheNextRewind) {
    MakeVmRows(2);
    vmEntry* row = nullptr;
    SNMPVMInfoTable_Init();
    SNMPVMInfoTable_GetNext(&row);
    SNMPVMInfoTable_Destroy();
    EXPECT_EQ(vmInfoTableIndex, 1);
    SNMPVMInfoTable_Init();
    EXPECT_EQ(vmInfoTableIndex, 0);
}

TEST_F(VmRows, CanBeDestroyedWhenEmpty) {
    SNMPVMInfoTable_Destroy();
    SNMPVMInfoTable_Destroy();
    EXPECT_EQ(vmInfoTable, nullptr);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
}

TEST_F(VmRows, ForgetACountWithoutRows) {
    SNMPVMInfoTable_SetNumEntries(4);
    SNMPVMInfoTable_Destroy();
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    vmEntry* row = nullptr;
    SNMPVMInfoTable_Init();
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
}

TEST_F(VmRows, AreNothingWhenTheCountIsNegative) {
    SNMPVMInfoTable_SetNumEntries(-1);
    vmEntry* row = nullptr;
    SNMPVMInfoTable_Init();
    EXPECT_EQ(SNMPVMInfoTable_GetNext(&row), -1);
}

// Strings. A string released twice or not at all is found by the sanitizers; here each one is replaced by a
// text whose release is counted.

// The number of blocks that `destroy` releases.
std::size_t CountReleases(void (*destroy)()) {
    return ReleasedBlocks(destroy).size();
}

TEST(OwnedStrings, OfVirtualMachinesAreReleasedWithTheBlock) {
    vmEntry* const rows = MakeVmRows(2);
    for (vmEntry* row = rows; row != rows + 2; ++row) {
        row->vmDisplayName = SNMPAllocString("name");
        row->vmConfigFile = SNMPAllocString("file");
        row->vmGuestOS = SNMPAllocString("guest");
        row->vmState = SNMPAllocString("state");
        row->vmGuestState = SNMPAllocString("guest state");
    }
    EXPECT_EQ(CountReleases(SNMPVMInfoTable_Destroy), 11U);
}

TEST(OwnedStrings, MayBeNull) {
    MakeVmRows(2);
    EXPECT_EQ(CountReleases(SNMPVMInfoTable_Destroy), 1U);
    Append(SNMPVMCDROMTable_GetPtr());
    EXPECT_EQ(CountReleases(SNMPVMCDROMTable_Destroy), 1U);
}

TEST(OwnedStrings, OfDevicesAreReleasedWithTheirRows) {
    for (int i = 0; i < 2; ++i) {
        vmHBANode& adapter = Append(SNMPVMHBATable_GetPtr());
        adapter.hbaLabel = SNMPAllocString("label");
        adapter.hbaType = SNMPAllocString("type");
        Append(SNMPVMHBATgtTable_GetPtr()).tgtLabel = SNMPAllocString("label");
        vmNetNode& card = Append(SNMPVMNetTable_GetPtr());
        card.nicLabel = SNMPAllocString("label");
        card.nicNetwork = SNMPAllocString("network");
        card.nicDevice = SNMPAllocString("device");
        vmFloppyNode& floppy = Append(SNMPVMFloppyTable_GetPtr());
        floppy.fdBacking = SNMPAllocString("backing");
        floppy.fdConnected = SNMPAllocString("true");
        vmCDROMNode& cdrom = Append(SNMPVMCDROMTable_GetPtr());
        cdrom.cdBacking = SNMPAllocString("backing");
        cdrom.cdConnected = SNMPAllocString("false");
    }
    EXPECT_EQ(CountReleases(SNMPVMHBATable_Destroy), 6U);
    EXPECT_EQ(CountReleases(SNMPVMHBATgtTable_Destroy), 4U);
    EXPECT_EQ(CountReleases(SNMPVMNetTable_Destroy), 8U);
    EXPECT_EQ(CountReleases(SNMPVMFloppyTable_Destroy), 6U);
    EXPECT_EQ(CountReleases(SNMPVMCDROMTable_Destroy), 6U);
}

TEST(LastingStrings, OfDiskAndNetworkRowsStayAfterTheirRows) {
    resDiskNode& disk = Append(SNMPResDiskTable_GetPtr());
    const char* const diskName = SNMPLastingString("disk-0:0");
    disk.diskName = diskName;
    EXPECT_EQ(CountReleases(SNMPResDiskTable_Destroy), 1U);
    EXPECT_STREQ(diskName, "disk-0:0");

    resNetNode& card = Append(SNMPResNetTable_GetPtr());
    const char* const netName = SNMPLastingString("VM Network");
    const char* const netMac = SNMPLastingString("00:16:3e:00:00:01");
    card.netName = netName;
    card.netMac = netMac;
    EXPECT_EQ(CountReleases(SNMPResNetTable_Destroy), 1U);
    EXPECT_STREQ(netName, "VM Network");
    EXPECT_STREQ(netMac, "00:16:3e:00:00:01");
}

TEST(LastingStrings, MadeByTheOtherCopierStayToo) {
    char* const copy = SNMPAllocString("disk-0:1");
    Append(SNMPResDiskTable_GetPtr()).diskName = copy;
    EXPECT_EQ(CountReleases(SNMPResDiskTable_Destroy), 1U);
    EXPECT_STREQ(copy, "disk-0:1");
    std::free(copy);
}

}  // namespace
