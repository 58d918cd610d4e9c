// The order of a list's rows: answers are the same with it and without it.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "apps/snmp/collections/RowList.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/tables.h"

namespace {

template <class Row>
class RowOrder : public testing::Test {
  protected:
    RowOrder() : column((RegisterGroups(), VariablesOf(table.handler).back())) {
        faults.SetTime(0);  // no request refreshes the cache
        table.destroy();
        // As in a new process.
        std::destroy_at(table.order);
        std::construct_at(table.order, *table.head);
    }
    ~RowOrder() override { table.destroy(); }

    // A sub-identifier of an index, small or negative, so that indexes meet.
    std::uint32_t Number() {
        return static_cast<std::uint32_t>(std::uniform_int_distribution(-2, 5)(random));
    }

    Row* NewRow() {
        auto* const row = static_cast<Row*>(std::calloc(1, sizeof(Row)));
        FillRow(table, *row, {Number(), Number()}, serial, [](std::size_t) { return 2U; });
        return row;
    }
    void LinkNewRows(std::size_t count) {
        std::vector<Row*> rows(count);
        std::generate(rows.begin(), rows.end(), [&] { return NewRow(); });
        LinkRows(table, rows);
    }
    // Random requests, which name a row or something near one, are answered by definition.
    void ExpectAnswers() {
        const std::vector<Row*> rows = ListRows(table);
        const std::vector<Oid> instances = Instances(table, column.name);
        for (int count = 0; count < 500; ++count) {
            Oid request = column.name;
            for (std::size_t left = random() % (table.indexFields + 2); left > 0; --left) {
                request.push_back(Number());
            }
            const bool exact = random() % 2 == 0;
            const std::optional<std::size_t> row = FindAnsweringRow(instances, request, exact);
            const Answer answer = column.Call(request, exact);
            ASSERT_EQ(answer.name, row ? instances[*row] : request) << testing::PrintToString(request);
            ASSERT_EQ(answer.answered, row.has_value());
            if (row) {
                ASSERT_EQ(answer.Text(column.type),
                          ExpectedText(table, *rows[*row], table.fields.size() - 1));
            }
        }
    }

    TestSupport::LogCapture log;
    TestSupport::FaultInjection faults;
    const TableFacts<Row>& table = Facts<Row>();
    RegisteredVariable column;
    std::mt19937 random{20240229};
    std::size_t serial = 0;
};

TYPED_TEST_SUITE(RowOrder, ListRowTypes<testing::Types>);

TYPED_TEST(RowOrder, ChangesNoAnswer) {
    for (const std::size_t count : {0U, 1U, 2U, 5U, 60U}) {
        this->table.destroy();
        this->LinkNewRows(count);
        this->ExpectAnswers();
        this->table.order->Make();
        EXPECT_EQ(this->table.order->IsKnown(), count != 0);
        this->ExpectAnswers();
    }
}

TYPED_TEST(RowOrder, IsForgottenWhenTheRowsAreReleased) {
    this->LinkNewRows(5);
    this->table.order->Make();
    EXPECT_TRUE(this->table.order->IsKnown());
    this->table.destroy();
    EXPECT_FALSE(this->table.order->IsKnown());
    EXPECT_FALSE(this->column.GetNext({}).answered);
}

// Through an address of before the rebuild, that is the making of the order, without another call.
TYPED_TEST(RowOrder, HidesNoRowLinkedByHandAndReadsNoneReleasedByHand) {
    this->LinkNewRows(5);
    this->table.order->Make();
    TypeParam** const head = this->table.getPtr();
    EXPECT_FALSE(this->table.order->IsKnown());
    this->ExpectAnswers();
    for (std::size_t position = 0; position < 6; ++position) {
        this->table.destroy();
        this->LinkNewRows(5);
        this->table.order->Make();
        EXPECT_FALSE(this->table.order->IsKnown());
        this->ExpectAnswers();
        TypeParam** link = head;
        for (std::size_t count = 0; count < position; ++count) {
            link = &(*link)->next;
        }
        TypeParam* const row = this->NewRow();
        row->next = *link;
        *link = row;
        this->ExpectAnswers();
        *link = row->next;
        SNMP::FreeStrings(*row);
        std::free(row);
        this->ExpectAnswers();
    }
}

TYPED_TEST(RowOrder, IsUnknownWithoutMemory) {
    this->LinkNewRows(5);
    this->faults.FailNew();
    this->table.order->Make();
    EXPECT_FALSE(this->table.order->IsKnown());
    this->ExpectAnswers();
}

}  // namespace
