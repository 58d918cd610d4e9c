#include <array>
#include <functional>

#include "runtime/tessim/assertion.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/tables.h"

namespace {

// The input, a byte at a time; zeros when it is used up.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    bool IsEmpty() const { return at == end; }
    std::uint8_t Byte() { return IsEmpty() ? std::uint8_t{0} : *at++; }
    std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : Byte() % limit; }

    // Mostly small, so that indexes meet; else a limit, or anything.
    std::uint32_t Number() {
        constexpr std::array<std::uint32_t, 6> limits{0xffffffff, 0x7fffffff, 0x80000000,
                                                      0x80000001, 0xfffffffe, 256};
        constexpr std::uint8_t firstLimit = 236;
        constexpr std::uint8_t firstAny = 248;
        const std::uint8_t kind = Byte();
        if (kind < firstLimit) {
            return kind % 6U;
        }
        if (kind < firstAny) {
            return limits.at(kind % limits.size());
        }
        std::uint32_t number = 0;
        for (int count = 0; count < 4; ++count) {
            number = number << 8U | Byte();
        }
        return number;
    }

  private:
    const std::uint8_t* at;
    const std::uint8_t* end;
};

// Inserts a row at any position of a list, or at the end of the array.
template <class Row>
void AddRow(const TableFacts<Row>& table, std::size_t& serial, Input& input) {
    constexpr std::size_t maxRows = 40;
    const std::size_t count = ListRows(table).size();
    if (count == maxRows) {
        return;
    }
    std::vector<std::uint32_t> index;
    for (std::size_t field = 0; field < table.indexFields; ++field) {
        index.push_back(input.Number());
    }
    const std::size_t position = isArray<Row> ? count : input.Below(count + 1);
    FillRow(table, InsertRow(table, position), index, serial,
            [&](std::size_t choices) { return input.Below(choices); });
}

// Reverses the order of a list.
template <class Row>
void ReverseRows(const TableFacts<Row>& table) {
    if constexpr (!isArray<Row>) {
        std::vector<Row*> rows = ListRows(table);
        std::reverse(rows.begin(), rows.end());
        LinkRows(table, rows);
    }
}

// OIDs around the column's: in it, before it, behind it, far away.
Oid MakeRequest(const Oid& column, Input& input) {
    Oid name = column;
    switch (input.Byte() % 8) {
        case 0:
            name.resize(input.Below(name.size()) + 1);
            break;
        case 1:
            name.back() = input.Number();
            break;
        case 2:
            name.at(input.Below(name.size())) = input.Number();
            break;
        default:
            break;
    }
    for (std::size_t more = input.Below(5); more > 0; --more) {
        name.push_back(input.Number());
    }
    if (input.Byte() == 255) {
        name.resize(MAX_OID_LEN, input.Number());
    }
    return name;
}

template <class Row>
void RequestOnce(const TableFacts<Row>& table, Input& input) {
    const std::size_t position = input.Below(table.fields.size());
    const RegisteredVariable column = VariablesOf(table.handler).at(position);
    const Oid requested = MakeRequest(column.name, input);
    const bool exact = input.Byte() % 2 != 0;

    const std::vector<Row*> rows = ListRows(table);
    const std::vector<Oid> instances = Instances(table, column.name);
    const std::optional<std::size_t> row = FindAnsweringRow(instances, requested, exact);

    // As the rows were linked, then in their order, then by the request that went before.
    for (int time = 0; time < 3; ++time) {
        const Answer answer = column.Call(requested, exact);
        Tessim::Assert(answer.answered == row.has_value(), "a request is answered when a row answers it");
        Tessim::Assert(answer.name == (row ? instances[*row] : requested), "the OID is the answering row's");
        if (row) {
            Tessim::Assert(answer.writeMethodNull, "nothing can be written");
            Tessim::Assert(answer.Text(column.type) == ExpectedText(table, *rows[*row], position),
                           "the answer is the row's field");
        }
        if (time == 0) {
            OrderRows(table);
        }
    }

    RegisteredVariable unknown = column;
    unknown.magic = input.Byte() % 3;
    Tessim::Assert(!unknown.Call(requested, exact).answered, "an unknown magic has no answer");
}

template <class Row>
void Run(const TableFacts<Row>& table, Input input) {
    std::size_t serial = 0;
    while (!input.IsEmpty()) {
        switch (input.Byte() % 8) {
            case 0:
            case 1:
            case 2:
                AddRow(table, serial, input);
                break;
            case 3:
                ReverseRows(table);
                break;
            case 4:
                if (input.Byte() % 8 == 0) {
                    table.destroy();
                }
                break;
            default:
                RequestOnce(table, input);
                break;
        }
    }
    table.destroy();
    Tessim::Assert(*table.getPtr() == nullptr, "a destroyed table is empty");
}

}  // namespace

// An input names a table and then what happens to it: rows are added, reversed and destroyed, and requests
// are compared with the definition of the answering row. At time 0 no handler refreshes the cache.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const TestSupport::LogCapture log;
    TestSupport::FaultInjection clock;
    clock.SetTime(0);
    RegisterGroups();
    Input input(data, size);
    const auto run = [&](const auto& table) { Run(table, input); };
    // The corpus selects by these numbers.
    const std::array<std::function<void()>, 10> runs{
        [&] { run(Facts<vmEntry>()); },      [&] { run(Facts<vmHBANode>()); },
        [&] { run(Facts<vmHBATgtNode>()); }, [&] { run(Facts<vmNetNode>()); },
        [&] { run(Facts<vmFloppyNode>()); }, [&] { run(Facts<vmCDROMNode>()); },
        [&] { run(Facts<resCPUNode>()); },   [&] { run(Facts<resMemNode>()); },
        [&] { run(Facts<resDiskNode>()); },  [&] { run(Facts<resNetNode>()); },
    };
    runs.at(input.Below(runs.size()))();
    return 0;
}
