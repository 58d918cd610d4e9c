// How a handler finds the row that answers a request, against the definition of that row.
#include <gtest/gtest.h>

#include <random>

#include "tests/support/fault_injection.h"
#include "tests/unit/snmp/tables.h"

namespace {

template <class Row>
class TableWalk : public testing::Test {
  protected:
    TableWalk() {
        RegisterGroups();
        clock.SetTime(0);  // the cache counts as fresh
        column = VariablesOf(table.handler).back();
    }
    ~TableWalk() override { table.destroy(); }

    void AddRow(const std::vector<std::uint32_t>& index) {
        FillRow(table, InsertRow(table, ListRows(table).size()), index, serial,
                [](std::size_t) { return 2U; });
    }
    // Returns whether a row answers.
    bool ExpectOraclesRow(const Oid& request, bool exact) const {
        const std::vector<Oid> instances = Instances(table, column.name);
        const std::optional<std::size_t> row = FindAnsweringRow(instances, request, exact);
        const Answer answer = column.Call(request, exact);
        EXPECT_EQ(answer.answered, row.has_value());
        EXPECT_EQ(answer.writeMethodNull, row.has_value());
        EXPECT_EQ(answer.name, row ? instances[*row] : request);
        if (row && answer.answered) {
            EXPECT_EQ(answer.Text(column.type),
                      ExpectedText(table, *ListRows(table)[*row], table.fields.size() - 1));
        } else {
            EXPECT_EQ(answer.length, Answer::unset);
        }
        return row.has_value();
    }

    TestSupport::FaultInjection clock;
    const TableFacts<Row>& table = Facts<Row>();
    RegisteredVariable column;
    std::size_t serial = 0;
};

// Indexed by position, by one field and by two.
using IndexedDifferently = testing::Types<vmEntry, resMemNode, vmHBANode>;
TYPED_TEST_SUITE(TableWalk, IndexedDifferently);

TYPED_TEST(TableWalk, FindsTheRowThatTheOracleFinds) {
    std::mt19937 random(20240229);  // always the same requests
    const auto pick = [&](std::size_t below) {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
    };
    const std::uint32_t fields[] = {0, 1, 2, 3, 7, 4294967295, 2147483647, 2147483648};
    const oid tailValues[] = {0, 1, 2, 3, 4, 7, 2147483647, 2147483648, 4294967295};
    const std::size_t width = this->column.name.size();
    int found = 0;
    for (int round = 0; round < 20000 && !this->HasFailure(); ++round) {
        this->table.destroy();
        for (std::size_t left = pick(6); left > 0; --left) {
            std::vector<std::uint32_t> index(this->table.indexFields);
            std::generate(index.begin(), index.end(), [&] { return fields[pick(8)]; });
            this->AddRow(index);
        }
        // Mostly the column, truncated or not, sometimes off by one somewhere, then a tail.
        Oid request = this->column.name;
        request.resize(pick(3) == 0 ? pick(width + 1) : width);
        if (!request.empty() && pick(4) == 0) {
            request[pick(request.size())] += pick(2) == 0 ? 1U : ~oid{0};
        }
        if (pick(10) != 0) {
            for (std::size_t left = pick(5); left > 0; --left) {
                request.push_back(tailValues[pick(9)]);
            }
        } else {
            request.resize(MAX_OID_LEN, tailValues[pick(9)]);
        }
        SCOPED_TRACE(testing::PrintToString(request));
        found += this->ExpectOraclesRow(request, pick(2) == 0) ? 1 : 0;
    }
    EXPECT_GT(found, 3000);
}

TYPED_TEST(TableWalk, FindsNoRowWhenTheInstanceOidIsTooLong) {
    this->AddRow(std::vector<std::uint32_t>(this->table.indexFields, 1));
    this->column.name = Oid(MAX_OID_LEN - std::max<std::size_t>(this->table.indexFields, 1), 1);
    EXPECT_TRUE(this->column.GetNext({}).answered);
    this->column.name.push_back(1);
    EXPECT_FALSE(this->column.GetNext({}).answered);
}

}  // namespace
