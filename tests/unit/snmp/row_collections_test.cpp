// The operations of the ten row collections.
#include <gtest/gtest.h>

#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp/tables.h"

namespace {

template <class Row>
class RowCollection : public testing::Test {
  protected:
    RowCollection() { table.destroy(); }
    ~RowCollection() override { table.destroy(); }

    // Adds two rows, whose texts are set or null.
    void AddTwoRows(bool withTexts) {
        for (std::size_t position = 0; position < 2; ++position) {
            Row& row = InsertRow(table, position);
            FillRow(table, row, {}, serial, [&](std::size_t) { return withTexts ? 2U : 0U; });
        }
    }
    void ExpectEnd() {
        Row unrelated{};
        Row* row = &unrelated;
        EXPECT_EQ(table.getNext(&row), -1);
        EXPECT_EQ(row, nullptr);
    }
    // Where the traversal stands, in a list.
    void ExpectTraversal([[maybe_unused]] const Row* row) const {
        if constexpr (!isArray<Row>) {
            EXPECT_EQ(*table.traversal, row);
        }
    }

    const TableFacts<Row>& table = Facts<Row>();
    std::size_t serial = 0;
};

TYPED_TEST_SUITE(RowCollection, RowTypes<testing::Types>);

TYPED_TEST(RowCollection, ReturnsItsRowsInOrderAndNumbersThem) {
    this->AddTwoRows(false);
    const auto rows = ListRows(this->table);
    EXPECT_EQ(*this->table.getPtr(), rows[0]);
    for (int walk = 0; walk < 2; ++walk) {
        this->table.init();
        EXPECT_EQ(*this->table.index, 0);
        this->ExpectTraversal(rows[0]);
        TypeParam* row = nullptr;
        EXPECT_EQ(this->table.getNext(&row), 0);
        EXPECT_EQ(row, rows[0]);
        EXPECT_EQ(*this->table.index, 1);
        this->ExpectTraversal(rows[1]);
        EXPECT_EQ(this->table.getNext(&row), 1);
        EXPECT_EQ(row, rows[1]);
        this->ExpectEnd();
        this->ExpectEnd();
    }
}

TYPED_TEST(RowCollection, IsEmptyAfterDestroyAndKeepsItsCursorUntilTheNextInit) {
    this->AddTwoRows(true);
    const TypeParam* const second = ListRows(this->table)[1];
    TypeParam* row = nullptr;
    this->table.init();
    this->table.getNext(&row);
    for (int time = 0; time < 2; ++time) {
        this->table.destroy();
        EXPECT_EQ(*this->table.getPtr(), nullptr);
        EXPECT_EQ(*this->table.index, 1);
        this->ExpectTraversal(second);
    }
    this->table.init();
    EXPECT_EQ(*this->table.index, 0);
    this->ExpectTraversal(nullptr);
    this->ExpectEnd();
}

TYPED_TEST(RowCollection, ReleasesItsRowsAndTheStringsThatTheyOwn) {
    std::size_t owned = 0;
    for (const auto& field : this->table.fields) {
        owned += std::holds_alternative<char * TypeParam::*>(field.field) ? 1 : 0;
    }
    const std::size_t blocks = isArray<TypeParam> ? 1 : 2;
    this->AddTwoRows(true);
    EXPECT_EQ(ReleasedBlocks(this->table.destroy).size(), blocks + 2 * owned);
    this->AddTwoRows(false);
    EXPECT_EQ(ReleasedBlocks(this->table.destroy).size(), blocks);
}

using VmArray = RowCollection<vmEntry>;

TEST_F(VmArray, HasNoRowsWhenTheCountIsNegative) {
    SNMPVMInfoTable_SetNumEntries(-1);
    table.init();
    ExpectEnd();
}

TEST_F(VmArray, DropsItsCountAtDestroy) {
    AddTwoRows(false);
    table.destroy();
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    SNMPVMInfoTable_SetNumEntries(4);  // without rows
    table.destroy();
    EXPECT_EQ(vmInfoTableNumEnt, 0);
}

}  // namespace
