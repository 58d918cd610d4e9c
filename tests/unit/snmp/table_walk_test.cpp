#include "apps/snmp/columns/TableWalk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>

#include "tests/support/in_process_agent.h"
#include "tests/unit/snmp/walk_oracle.h"

namespace {

using TestSupport::Oid;

struct Row {
    std::int32_t first;
    std::int32_t second;
};

std::vector<Row> rows;
std::size_t cursor;

void Rewind() {
    cursor = 0;
}
int Next(Row** row) {
    if (cursor >= rows.size()) {
        *row = nullptr;
        return -1;
    }
    *row = &rows[cursor];
    return static_cast<int>(cursor++);
}

template <std::size_t Width>
constexpr SNMP::Table<Row, Width> MakeTable(std::array<std::int32_t Row::*, Width> index) {
    return {.handlerName = "test",
            .handler = nullptr,
            .unknownColumn = "",
            .columns = {},
            .firstMagic = 3,
            .rewind = Rewind,
            .next = Next,
            .index = index};
}
const auto arrayTable = MakeTable<0>({});
const auto oneFieldTable = MakeTable<1>({&Row::first});
const auto twoFieldsTable = MakeTable<2>({&Row::first, &Row::second});

enum class Form { Array, OneField, TwoFields };

// The row's position and the request's OID after the walk.
struct Found {
    std::ptrdiff_t row;
    Oid name;

    friend bool operator==(const Found&, const Found&) = default;
};

void PrintTo(const Found& found, std::ostream* stream) {
    *stream << "row " << found.row << ", name " << testing::PrintToString(found.name);
}

std::optional<Found> Walk(Form form, const Oid& column, const Oid& requested, bool exact) {
    variable entry{};
    entry.namelen = static_cast<u_char>(column.size());
    std::copy(column.begin(), column.end(), entry.name);
    oid name[MAX_OID_LEN] = {};
    std::copy(requested.begin(), requested.end(), name);
    std::size_t length = requested.size();
    std::size_t varLen = 777;
    WriteMethod* writeMethod = [](int, u_char*, u_char, size_t, u_char*, oid*, size_t) { return 0; };
    const SNMP::Request request{&entry, name, &length, exact ? 1 : 0, &varLen, &writeMethod};

    const Row* row = nullptr;
    switch (form) {
        case Form::Array:
            row = SNMP::FindRow(arrayTable, request);
            break;
        case Form::OneField:
            row = SNMP::FindRow(oneFieldTable, request);
            break;
        case Form::TwoFields:
            row = SNMP::FindRow(twoFieldsTable, request);
            break;
    }
    const Oid after(name, name + length);
    if (row == nullptr) {
        EXPECT_EQ(after, requested);
        EXPECT_EQ(varLen, 777U);
        EXPECT_NE(writeMethod, nullptr);
        return std::nullopt;
    }
    EXPECT_EQ(varLen, 4U);
    EXPECT_EQ(writeMethod, nullptr);
    return Found{row - rows.data(), after};
}

std::optional<Found> ExpectedWalk(Form form, const Oid& column, const Oid& requested, bool exact) {
    std::vector<Oid> instances;
    for (std::size_t position = 0; position < rows.size(); ++position) {
        Oid instance = column;
        instance.push_back(form == Form::Array ? position : static_cast<std::uint32_t>(rows[position].first));
        if (form == Form::TwoFields) {
            instance.push_back(static_cast<std::uint32_t>(rows[position].second));
        }
        instances.push_back(instance);
    }
    const std::optional<std::size_t> row = FindAnsweringRow(instances, requested, exact);
    return row ? std::optional<Found>({static_cast<std::ptrdiff_t>(*row), instances[*row]}) : std::nullopt;
}

const Oid column{1, 3, 6, 1, 4, 1, 32473, 2, 2, 1, 3};

TEST(TableWalk, FindsTheRowThatTheOracleFinds) {
    std::mt19937 random(20240229);  // always the same requests
    const auto pick = [&](int below) { return std::uniform_int_distribution<int>(0, below - 1)(random); };
    const std::int32_t fields[] = {0, 1, 2, 3, 7, -1, 2147483647, -2147483648};
    const oid tailValues[] = {0, 1, 2, 3, 4, 7, 2147483647, 2147483648, 4294967295};
    int found = 0;
    for (int round = 0; round < 20000; ++round) {
        rows.resize(static_cast<std::size_t>(pick(6)));
        for (Row& row : rows) {
            row = {fields[pick(8)], fields[pick(8)]};
        }
        // Mostly the column, truncated or not, sometimes off by one somewhere, then a tail.
        Oid request = column;
        request.resize(static_cast<std::size_t>(pick(3) == 0 ? pick(12) : 11));
        if (!request.empty() && pick(4) == 0) {
            request[static_cast<std::size_t>(pick(static_cast<int>(request.size())))] +=
                pick(2) == 0 ? 1U : ~oid{0};
        }
        if (pick(10) != 0) {
            for (int left = pick(5); left > 0; --left) {
                request.push_back(tailValues[pick(9)]);
            }
        } else {
            request.resize(MAX_OID_LEN, tailValues[pick(9)]);
        }
        const bool exact = pick(2) == 0;
        for (const Form form : {Form::Array, Form::OneField, Form::TwoFields}) {
            const std::optional<Found> expected = ExpectedWalk(form, column, request, exact);
            ASSERT_EQ(Walk(form, column, request, exact), expected) << testing::PrintToString(request);
            found += expected ? 1 : 0;
        }
    }
    EXPECT_GT(found, 10000);
}

TEST(TableWalk, FindsNoRowWhenTheInstanceOidIsTooLong) {
    rows = {{1, 1}};
    const Oid tooLong(MAX_OID_LEN - 1, 1);
    EXPECT_EQ(Walk(Form::TwoFields, tooLong, {}, false), std::nullopt);
    EXPECT_NE(Walk(Form::OneField, tooLong, {}, false), std::nullopt);
}

}  // namespace
