// The handlers of the ten tables, with rows that the tests link. While the clock stands at 0 the cache counts
// as fresh, so that no handler refreshes it.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <stdexcept>

#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/tables.h"

namespace {

using TestSupport::FakeDaemon;
using TestSupport::LogLine;
using TestSupport::TakeDetail;

constexpr std::time_t aTime = 1'700'000'000;

template <class Row>
class Table : public testing::Test {
  protected:
    Table() : columns((RegisterGroups(), VariablesOf(table.handler))) {
        clock.SetTime(0);
        DestroyAllRows();
        log.Take();
        TakeDetail();
    }
    ~Table() override {
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
        DestroyAllRows();
    }

    // Appends a row whose index consists of `index` and, in tables with two fields, `second`.
    Row& AddRow(std::uint32_t index, std::uint32_t second = 1) {
        Row& row = InsertRow(table, ListRows(table).size());
        std::vector<std::uint32_t> indexes{index, second};
        indexes.resize(table.indexFields);
        FillRow(table, row, indexes, serial, [](std::size_t choices) { return choices == 5 ? 0U : 2U; });
        return row;
    }
    Oid Index(oid index, oid second = 1) const {
        return table.indexFields == 2 ? Oid{index, second} : Oid{index};
    }
    void ExpectRow(const Answer& answer, std::size_t column, const Row& row, const Oid& instance) const {
        SCOPED_TRACE(columns[column].label);
        EXPECT_STREQ(columns[column].label, table.fields[column].column);
        ASSERT_TRUE(answer.answered);
        EXPECT_EQ(answer.Text(columns[column].type), ExpectedText(table, row, column));
        EXPECT_EQ(answer.name, Join(columns[column].name, instance));
        EXPECT_TRUE(answer.writeMethodNull);
    }

    // Walks each column by GETNEXT and expects these rows in the order of their indexes.
    void ExpectWalk(const std::map<Oid, const Row*>& rows) const {
        for (std::size_t column = 0; column < table.fields.size(); ++column) {
            Oid from = columns[column].name;
            for (const auto& [instance, row] : rows) {
                const Answer answer = columns[column].Call(from, false);
                ExpectRow(answer, column, *row, instance);
                from = answer.name;
            }
            EXPECT_FALSE(columns[column].Call(from, false).answered);
        }
    }

    TestSupport::LogCapture log;
    TestSupport::FaultInjection clock;
    const TableFacts<Row>& table = Facts<Row>();
    std::vector<RegisteredVariable> columns;
    std::size_t serial = 0;
};

TYPED_TEST_SUITE(Table, RowTypes<testing::Types>);

TYPED_TEST(Table, ReturnsEveryFieldOfEveryRow) {
    this->AddRow(2, 1);
    this->AddRow(1, 2);
    this->AddRow(1, 1);
    this->AddRow(9, 0);
    InsertRow(this->table, 4);  // numbers are 0, texts are missing
    const auto rows = ListRows(this->table);
    const std::vector<Oid> instances = Instances(this->table, {});
    ASSERT_GE(this->columns.size(), this->table.fields.size());
    std::set<Oid> seen;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        if (!seen.insert(instances[row]).second) {
            continue;  // a table with one index field has two rows of index 1
        }
        for (std::size_t column = 0; column < this->table.fields.size(); ++column) {
            this->ExpectRow(this->columns[column].Get(instances[row]), column, *rows[row], instances[row]);
        }
    }
    EXPECT_FALSE(this->columns[0].Get(this->Index(10)).answered);
    EXPECT_FALSE(this->columns[0].Get({}).answered);
    EXPECT_EQ(TakeDetail(), "");
}

TYPED_TEST(Table, IsWalkedInTheOrderOfItsIndex) {
    this->AddRow(7);
    this->AddRow(3);
    this->AddRow(3, 0);
    this->AddRow(5);
    const auto rows = ListRows(this->table);
    const std::vector<Oid> instances = Instances(this->table, {});
    std::map<Oid, const TypeParam*> ordered;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        ordered.emplace(instances[row], rows[row]);
    }
    this->ExpectWalk(ordered);
    // From the table itself.
    const Oid& name = this->columns[0].name;
    this->ExpectRow(this->columns[0].Call({name.begin(), name.end() - 2}, false), 0, *ordered.begin()->second,
                    ordered.begin()->first);
}

TYPED_TEST(Table, LeavesADetailForAMagicThatNoColumnHas) {
    this->AddRow(0);
    const RegisteredVariable& first = this->columns[0];
    RegisteredVariable unknown = first;
    for (int magic = 0; magic < 256; ++magic) {
        if (magic >= first.magic && magic < first.magic + static_cast<int>(this->columns.size())) {
            continue;
        }
        unknown.magic = static_cast<u_char>(magic);
        const Answer answer = unknown.GetNext({});
        EXPECT_FALSE(answer.answered) << magic;
        EXPECT_EQ(answer.name, Instances(this->table, first.name)[0]);
        EXPECT_EQ(answer.length, 4U);
        EXPECT_TRUE(answer.writeMethodNull);
        EXPECT_EQ(TakeDetail(), this->table.unknownColumn) << magic;
    }
    EXPECT_TRUE(first.GetNext({}).answered);
    EXPECT_EQ(TakeDetail(), "");
}

TYPED_TEST(Table, ReturnsNothingWithoutRows) {
    for (const RegisteredVariable& column : this->columns) {
        EXPECT_FALSE(column.Get({0}).answered);
        EXPECT_FALSE(column.Get({0, 0}).answered);
        EXPECT_FALSE(column.GetNext({}).answered);
    }
    EXPECT_EQ(TakeDetail(), "");
}

TYPED_TEST(Table, RefreshesTheCacheBeforeItIsWalked) {
    FakeDaemon daemon;
    ApiObjects::Describe(daemon.host, R"(
vms:
  - id: "16"
    runtime: {powerState: poweredOn}
    config: {name: web-1, guestFullName: Guest, hardware: {numCPU: 1, memoryMB: 512, device: [
      {type: VirtualLsiLogicController, key: 1000, busNumber: 0},
      {type: VirtualDisk, key: 2000, backing: {type: DeviceBackingInfo, deviceName: raw-1}},
      {type: VirtualEthernetCard, key: 4000},
      {type: VirtualIDEController, key: 200, busNumber: 0},
      {type: VirtualCdrom, key: 3000, controllerKey: 200, unitNumber: 0},
      {type: VirtualFloppy, key: 8000, unitNumber: 0}]}}
)");
    this->clock.SetTime(aTime);
    EXPECT_TRUE(this->columns[0].GetNext({}).answered);
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 1);
    this->log.Take();
}

TYPED_TEST(Table, KeepsAnExceptionOfTheRefreshFromTheAgent) {
    FakeDaemon daemon;
    daemon.WhenCalled("GetChildEntity", [] { throw std::runtime_error("stop"); });
    this->clock.SetTime(aTime);
    EXPECT_FALSE(this->columns[0].GetNext({}).answered);
    EXPECT_EQ(this->log.Take(),
              (std::vector<LogLine>{{3, std::string(this->table.handlerName) + ": stop\n"}}));
}

template <class Row>
class ListTable : public Table<Row> {};
TYPED_TEST_SUITE(ListTable, ListRowTypes<testing::Types>);

TYPED_TEST(ListTable, ReturnsTheFirstOfRowsWithOneIndex) {
    const TypeParam& other = this->AddRow(18);
    const TypeParam& first = this->AddRow(17);
    this->AddRow(17);
    this->ExpectWalk({{this->Index(17), &first}, {this->Index(18), &other}});
    for (std::size_t column = 0; column < this->columns.size(); ++column) {
        this->ExpectRow(this->columns[column].Get(this->Index(17)), column, first, this->Index(17));
    }
}

TYPED_TEST(ListTable, TakesANegativeIndexAsItsUnsigned32Bits) {
    const TypeParam& last = this->AddRow(static_cast<std::uint32_t>(-1));
    const TypeParam& first = this->AddRow(2147483647);
    const Oid index = this->Index(4294967295);
    this->ExpectWalk({{this->Index(2147483647), &first}, {index, &last}});
    for (std::size_t column = 0; column < this->columns.size(); ++column) {
        this->ExpectRow(this->columns[column].Get(index), column, last, index);
    }
    EXPECT_EQ(this->columns[0].Get(index).Text(ASN_INTEGER), "-1");
}

// How a handler finds the row that answers a request, against the definition of that row.
template <class Row>
class TableWalk : public Table<Row> {
  protected:
    // Returns whether a row answers.
    bool ExpectOraclesRow(const Oid& request, bool exact) const {
        const RegisteredVariable& column = this->columns.back();
        const std::vector<Oid> instances = Instances(this->table, column.name);
        const std::optional<std::size_t> row = FindAnsweringRow(instances, request, exact);
        const Answer answer = column.Call(request, exact);
        EXPECT_EQ(answer.answered, row.has_value());
        if (row && answer.answered) {
            this->ExpectRow(answer, this->columns.size() - 1, *ListRows(this->table)[*row],
                            {instances[*row].begin() + static_cast<std::ptrdiff_t>(column.name.size()),
                             instances[*row].end()});
        } else {
            EXPECT_EQ(answer.name, request);
            EXPECT_EQ(answer.length, Answer::unset);
            EXPECT_FALSE(answer.writeMethodNull);
        }
        return row.has_value();
    }
};

using IndexedDifferently = testing::Types<vmEntry, resMemNode, vmHBANode>;
TYPED_TEST_SUITE(TableWalk, IndexedDifferently);

TYPED_TEST(TableWalk, FindsTheRowThatTheOracleFinds) {
    std::mt19937 random(20240229);  // always the same requests
    const auto pick = [&](std::size_t below) {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
    };
    const std::uint32_t fields[] = {0, 1, 2, 3, 7, 4294967295, 2147483647, 2147483648};
    const oid tailValues[] = {0, 1, 2, 3, 4, 7, 2147483647, 2147483648, 4294967295};
    const Oid& column = this->columns.back().name;
    const std::size_t width = column.size();
    int found = 0;
    for (int round = 0; round < 20000 && !this->HasFailure(); ++round) {
        this->table.destroy();
        for (std::size_t left = pick(6); left > 0; --left) {
            const std::uint32_t first = fields[pick(8)];
            this->AddRow(first, fields[pick(8)]);
        }
        // Mostly the column, truncated or not, sometimes off by one somewhere, then a tail.
        Oid request = column;
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
    this->AddRow(1);
    RegisteredVariable& column = this->columns.back();
    column.name = Oid(MAX_OID_LEN - std::max<std::size_t>(this->table.indexFields, 1), 1);
    EXPECT_TRUE(column.GetNext({}).answered);
    column.name.push_back(1);
    EXPECT_FALSE(column.GetNext({}).answered);
}

using VmTable = Table<vmEntry>;

TEST_F(VmTable, IsIndexedByPositionNotByAField) {
    AddRow(0).vmIdx = 40;
    AddRow(0).vmIdx = 30;
    ExpectWalk({{{0}, vmInfoTable}, {{1}, vmInfoTable + 1}});
    EXPECT_EQ(columns[0].Get({0}).Text(ASN_INTEGER), "40");
}

using CpuTable = Table<resCPUNode>;

TEST_F(CpuTable, TruncatesSecondsTowardZeroWithinTheLimitsOfAnInteger) {
    const struct {
        float used;
        const char* answer;
    } cases[] = {{181.5F, "181"},
                 {2.9F, "2"},
                 {-0.5F, "0"},
                 {-2.9F, "-2"},
                 {0.0F, "0"},
                 {2147483520.0F, "2147483520"},
                 {2147483648.0F, "2147483647"},
                 {1e30F, "2147483647"},
                 {-2147483648.0F, "-2147483648"},
                 {-1e30F, "-2147483648"},
                 {std::numeric_limits<float>::quiet_NaN(), "0"}};
    resCPUNode& row = AddRow(1);
    for (const auto& each : cases) {
        row.cpuUsedSec = each.used;
        EXPECT_EQ(FindVariable("cpuUsedSec").Get({1}).Text(ASN_INTEGER), each.answer);
    }
}

TEST(Handlers, KeepAnAnswerUntilTheirNextOfThatType) {
    TestSupport::LogCapture log;
    TestSupport::FaultInjection clock;
    FakeDaemon daemon;
    clock.SetTime(0);
    RegisterGroups();
    std::size_t serial = 0;
    ForEachTable([&](const auto& table) {
        FillRow(table, InsertRow(table, 0), {}, serial, [](std::size_t) { return 2U; });
    });
    std::map<std::pair<FindVarMethod*, u_char>, Answer> answers;
    std::set<const u_char*> addresses;
    for (const RegisteredVariable& variable : RegisteredVariables()) {
        const auto key = std::pair(variable.handler, variable.type);
        if (!answers.contains(key)) {
            answers[key] = variable.GetNext({});
            addresses.insert(answers[key].address);
        }
    }
    EXPECT_EQ(addresses.size(), answers.size());
    for (const auto& [key, answer] : answers) {
        EXPECT_TRUE(answer.answered);
        EXPECT_EQ(std::string(answer.address, answer.address + answer.length), answer.bytes);
    }
    DestroyAllRows();
}

}  // namespace
