// The handlers of the ten tables, with rows that the tests link. While the clock stands at 0 the cache counts
// as fresh, so that no handler refreshes it.
#include <gtest/gtest.h>

#include <map>
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
    void ExpectRow(const Answer& answer, std::size_t column, const Row& row, const Oid& instance) const {
        SCOPED_TRACE(columns[column].label);
        EXPECT_STREQ(columns[column].label, table.fields[column].column);
        ASSERT_TRUE(answer.answered);
        EXPECT_EQ(answer.Text(columns[column].type), ExpectedText(table, row, column));
        EXPECT_EQ(answer.name, Join(columns[column].name, instance));
        EXPECT_TRUE(answer.writeMethodNull);
    }

    // Expects the rows in the order of their indexes, of equals the first, by GETNEXT and by GET.
    void ExpectRows() const {
        const std::vector<Row*> rows = ListRows(table);
        const std::vector<Oid> instances = Instances(table, {});
        std::map<Oid, const Row*> ordered;
        for (std::size_t row = 0; row < rows.size(); ++row) {
            ordered.emplace(instances[row], rows[row]);
        }
        for (std::size_t column = 0; column < table.fields.size(); ++column) {
            Oid from = columns[column].name;
            for (const auto& [instance, row] : ordered) {
                const Answer answer = columns[column].Call(from, false);
                ExpectRow(answer, column, *row, instance);
                ExpectRow(columns[column].Get(instance), column, *row, instance);
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

TYPED_TEST(Table, ReturnsEveryFieldOfItsRowsInTheOrderOfTheirIndexes) {
    this->AddRow(static_cast<std::uint32_t>(-1));
    this->AddRow(2, 1);
    this->AddRow(1, 2);
    this->AddRow(1, 1);
    this->AddRow(1, 1);
    this->AddRow(2147483647, 0);
    InsertRow(this->table, 6);  // numbers are 0, texts are missing
    ASSERT_GE(this->columns.size(), this->table.fields.size());
    this->ExpectRows();
    OrderRows(this->table);
    this->ExpectRows();
    EXPECT_EQ(TakeDetail(), "");
}

TYPED_TEST(Table, FindsTheRowThatAnswersByDefinition) {
    for (const std::uint32_t first : {3U, 1U, 4294967295U}) {
        this->AddRow(first, 1);
        this->AddRow(first, 4294967295);
        this->AddRow(first, 0);
    }
    const RegisteredVariable& column = this->columns.back();
    std::vector<Oid> starts{column.name};
    for (std::size_t position = 0; position < column.name.size(); ++position) {
        starts.emplace_back(column.name.begin(), column.name.begin() + static_cast<std::ptrdiff_t>(position));
        for (const int change : {-1, 1}) {
            starts.push_back(column.name);
            starts.back()[position] += static_cast<oid>(change);
        }
    }
    std::vector<Oid> tails{{}};
    for (std::size_t i = 0; tails[i].size() < 3; ++i) {
        for (const oid value : {0UL, 1UL, 2UL, 3UL, 8UL, 4294967295UL}) {
            tails.push_back(Join(tails[i], {value}));
        }
    }
    const std::vector<Oid> instances = Instances(this->table, column.name);
    OrderRows(this->table);
    for (const Oid& start : starts) {
        for (const Oid& tail : tails) {
            for (const bool exact : {true, false}) {
                const Oid request = Join(start, tail);
                const std::optional<std::size_t> row = FindAnsweringRow(instances, request, exact);
                const Answer answer = column.Call(request, exact);
                ASSERT_EQ(answer.answered, row.has_value()) << testing::PrintToString(request);
                ASSERT_EQ(answer.name, row ? instances[*row] : request) << testing::PrintToString(request);
                ASSERT_EQ(answer.length == Answer::unset, !row);
                ASSERT_EQ(answer.writeMethodNull, row.has_value());
            }
        }
    }
}

TYPED_TEST(Table, FindsNoRowWhenTheInstanceOidIsTooLong) {
    this->AddRow(1);
    RegisteredVariable& column = this->columns.back();
    column.name = Oid(MAX_OID_LEN - std::max<std::size_t>(this->table.indexFields, 1), 1);
    EXPECT_TRUE(column.GetNext({}).answered);
    column.name.push_back(1);
    EXPECT_FALSE(column.GetNext({}).answered);
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
        EXPECT_EQ(answer.length, 4U);
        EXPECT_EQ(TakeDetail(), this->table.unknownColumn) << magic;
    }
    EXPECT_TRUE(first.GetNext({}).answered);
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
    if constexpr (!isArray<TypeParam>) {
        EXPECT_TRUE(this->table.order->IsKnown());
    }
    this->clock.SetTime(0);
    this->AddRow(0, 0);
    this->ExpectRows();
}

TYPED_TEST(Table, KeepsAnExceptionOfTheRefreshFromTheAgent) {
    FakeDaemon daemon;
    daemon.WhenCalled("GetChildEntity", [] { throw std::runtime_error("stop"); });
    this->clock.SetTime(aTime);
    EXPECT_FALSE(this->columns[0].GetNext({}).answered);
    EXPECT_EQ(this->log.Take().back(), (LogLine{3, std::string(this->table.handlerName) + ": stop\n"}));
}

using VmTable = Table<vmEntry>;

TEST_F(VmTable, IsIndexedByPositionNotByAField) {
    AddRow(0).vmIdx = 40;
    AddRow(0).vmIdx = 30;
    ExpectRows();
    EXPECT_EQ(columns[0].Get({0}).Text(ASN_INTEGER), "40");
}

using CpuTable = Table<resCPUNode>;

TEST_F(CpuTable, TruncatesSecondsTowardZeroWithinTheLimitsOfAnInteger) {
    const std::pair<float, const char*> cases[] = {{181.5F, "181"},
                                                   {2.9F, "2"},
                                                   {-0.5F, "0"},
                                                   {-2.9F, "-2"},
                                                   {2147483520.0F, "2147483520"},
                                                   {2147483648.0F, "2147483647"},
                                                   {1e30F, "2147483647"},
                                                   {-2147483648.0F, "-2147483648"},
                                                   {-1e30F, "-2147483648"},
                                                   {std::numeric_limits<float>::quiet_NaN(), "0"}};
    resCPUNode& row = AddRow(1);
    for (const auto& [used, answer] : cases) {
        row.cpuUsedSec = used;
        EXPECT_EQ(columns[2].Get({1}).Text(ASN_INTEGER), answer);
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
