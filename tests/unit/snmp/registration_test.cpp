// Loading and unloading the module in an agent inside the test program.
#include "apps/snmp/columns/Registration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "apps/snmp/SNMPKelv.h"
#include "apps/snmp/SNMPSystem.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp/tables.h"

namespace {

using TestSupport::FindRegistered;
using TestSupport::LogLine;

// Variables that one handler serves: their numbers and magics ascend from these.
struct Served {
    FindVarMethod* handler;
    u_char firstMagic;
    Oid parent;  // under the base
};

// What is fixed of a registration: its name and place, and what the trace of a refusal names.
struct Expected {
    const char* name;
    Oid base;  // without the enterprise
    std::size_t entrySize;
    std::vector<Served> served;
    const char* function;
    const char* unit;
    int line;
};

// In their order.
const std::vector<Expected> registrations{
    {"SNMPVMInfo",
     {2, 1},
     sizeof(variable2),
     {{SNMP_VMInfoTable, 3, {1}}},
     "init_SNMPVMInfo",
     "SNMPVMInfo",
     79},
    {"SNMPVMNet", {2, 4}, sizeof(variable2), {{SNMP_VMNetTable, 3, {1}}}, "init_SNMPVMNet", "SNMPVMNet", 74},
    {"SNMPVMHBA",
     {2, 2},
     sizeof(variable2),
     {{SNMP_VMHBATable, 3, {1}}},
     "init_SNMPVMDisk",
     "SNMPVMDisk",
     91},
    {"SNMPVMTgt",
     {2, 3},
     sizeof(variable2),
     {{SNMP_VMHBATgtTable, 9, {1}}},
     "init_SNMPVMDisk",
     "SNMPVMDisk",
     94},
    {"floppyTable",
     {2, 5},
     sizeof(variable2),
     {{SNMP_VMFloppyTable, 3, {1}}},
     "init_SNMPVMFloppyCD",
     "SNMPVMFloppyCD",
     79},
    {"CDROMTable",
     {2, 6},
     sizeof(variable2),
     {{SNMP_VMCDROMTable, 3, {1}}},
     "init_SNMPVMFloppyCD",
     "SNMPVMFloppyCD",
     81},
    {"SNMPResMem",
     {3, 2},
     sizeof(variable4),
     {{SNMP_ResMem, 2, {}}, {SNMP_ResMemTable, 7, {4, 1}}},
     "init_SNMPResMem",
     "SNMPResMem",
     82},
    {"SNMPResCPU",
     {3, 1},
     sizeof(variable4),
     {{SNMP_ResCPU, 2, {}}, {SNMP_ResCPUTable, 5, {2, 1}}},
     "init_SNMPResCPU",
     "SNMPResCPU",
     75},
    {"SNMPResDisk",
     {3, 3},
     sizeof(variable2),
     {{SNMP_ResDiskTable, 3, {1}}},
     "init_SNMPResDisk",
     "SNMPResDisk",
     81},
    {"SNMPResNet",
     {3, 4},
     sizeof(variable2),
     {{SNMP_ResNetTable, 3, {1}}},
     "init_SNMPResNet",
     "SNMPResNet",
     91},
    {"SNMPKelvNorv",
     {4, 1, 1},
     sizeof(variable2),
     {{SNMP_KelvNorv, 1, {}}},
     "init_SNMPKelvTbl",
     "SNMPKelv",
     68},
    {"SNMPSystem", {1}, sizeof(variable2), {{SNMP_System, 1, {}}}, "init_SNMPSystem", "SNMPSystem", 97},
};

const std::vector<LogLine> logOfALoad{
    {6, "SNMPVMInfo: Initialized.\n"},  {6, "SNMPVMNet: Initialized.\n"},
    {6, "SNMPVMDisk: Initialized.\n"},  {6, "SNMPVMFloppyCD: Initialized.\n"},
    {6, "SNMPResMem: Initialized.\n"},  {6, "SNMPResCPU: Initialized.\n"},
    {6, "SNMPResDisk: Initialized.\n"}, {6, "SNMPResNet: Initialized.\n"},
    {6, "SNMPKelv: Initialized.\n"},    {6, "SNMPSystem: Initialized.\n"},
    {6, "SNMPRask: Initialized\n"},
};

// How many of the module's variables the agent serves through their handlers.
std::size_t CountServed() {
    const std::vector<RegisteredVariable> variables = RegisteredVariables();
    return static_cast<std::size_t>(
        std::count_if(variables.begin(), variables.end(), [](const RegisteredVariable& each) {
            const variable* const entry = FindRegistered(each.name);
            return entry != nullptr && entry->findVar == each.handler;
        }));
}

u_char* ForeignHandler(variable*, oid*, size_t*, int, size_t*, WriteMethod**) {
    return nullptr;
}

// A column that another module holds while this lives.
class ForeignColumn {
  public:
    explicit ForeignColumn(Oid column, int priority = DEFAULT_MIB_PRIORITY)
        : name(std::move(column)), priority(priority) {
        const variable1 entry{1, ASN_INTEGER, RONLY, ForeignHandler, 1, {name.back()}};
        if (register_mib_priority("foreign", reinterpret_cast<const variable*>(&entry), sizeof(entry), 1,
                                  name.data(), name.size() - 1, priority) != MIB_REGISTERED_OK) {
            throw std::runtime_error("the agent refused the foreign column");
        }
    }
    ~ForeignColumn() { unregister_mib_priority(name.data(), name.size(), priority); }
    ForeignColumn(const ForeignColumn&) = delete;
    ForeignColumn& operator=(const ForeignColumn&) = delete;

    bool IsRegistered() const {
        const variable* const entry = FindRegistered(name);
        return entry != nullptr && entry->findVar == ForeignHandler;
    }

  private:
    Oid name;
    int priority;
};

// Debug output of the agent while this lives.
class Debugging {
  public:
    Debugging() {
        snmp_set_do_debugging(1);
        debug_register_tokens("trace,register_mib");
    }
    ~Debugging() { snmp_set_do_debugging(0); }
    Debugging(const Debugging&) = delete;
    Debugging& operator=(const Debugging&) = delete;
};

class Module : public testing::Test {
  protected:
    Module() {
        TestSupport::StartAgent();
        log.Take();
    }
    ~Module() override {
        SNMP::Registration::UnregisterAll();
        DestroyAllRows();
    }

    // The lines of the module, without what the agent itself says of a refusal.
    std::vector<LogLine> TakeModuleLines() {
        std::vector<LogLine> lines = log.Take();
        std::erase_if(lines, [](const LogLine& line) {
            return line == LogLine{4, "old_api handler registration failed\n"} ||
                   (line.priority == 3 && line.text.starts_with("duplicate registration: MIB modules "));
        });
        return lines;
    }

    TestSupport::LogCapture log;
    TestSupport::FakeDaemon daemon;
};

TEST_F(Module, RegistersItsVariablesUnderTheirNumbersAndMagics) {
    init_SNMPKelv();
    std::vector<RegisteredVariable> expected;
    for (const Expected& registration : registrations) {
        for (const Served& served : registration.served) {
            oid number = 0;
            for (RegisteredVariable variable : VariablesOf(served.handler)) {
                variable.magic = static_cast<u_char>(served.firstMagic + number);
                variable.name = Join(Enterprise(registration.base), Join(served.parent, {++number}));
                expected.push_back(variable);
            }
            EXPECT_NE(number, 0U);
        }
    }
    const std::vector<RegisteredVariable> variables = RegisteredVariables();
    ASSERT_EQ(variables.size(), expected.size());
    for (std::size_t i = 0; i < variables.size(); ++i) {
        EXPECT_EQ(variables[i].name, expected[i].name);
        EXPECT_EQ(variables[i].magic, expected[i].magic);
        EXPECT_EQ(variables[i].handler, expected[i].handler);
        // The agent's copy.
        const variable* const entry = FindRegistered(variables[i].name);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->magic, variables[i].magic);
        EXPECT_EQ(entry->type, variables[i].type);
        EXPECT_EQ(entry->acl, RONLY);
        EXPECT_EQ(entry->findVar, variables[i].handler);
    }
}

TEST_F(Module, RegistersUnderFixedNamesAndBasesInOrder) {
    init_SNMPKelv();
    const SNMP::Registration* registration = SNMP::Registration::First();
    for (auto expected = registrations.rbegin(); expected != registrations.rend(); ++expected) {
        ASSERT_NE(registration, nullptr);
        const Oid base(registration->Base().begin(), registration->Base().end());
        EXPECT_EQ(base, Enterprise(expected->base));
        for (std::size_t i = 0; i < registration->Count(); ++i) {
            const variable* const entry = registration->Entry(i);
            EXPECT_EQ(
                reinterpret_cast<const char*>(entry) - reinterpret_cast<const char*>(registration->Entry(0)),
                static_cast<std::ptrdiff_t>(i * expected->entrySize));
            EXPECT_EQ(TestSupport::RegistrationName(Join(base, {entry->name, entry->name + entry->namelen})),
                      expected->name);
        }
        registration = registration->Next();
    }
    EXPECT_EQ(registration, nullptr);
}

TEST_F(Module, RegistersNothingElse) {
    init_SNMPKelv();
    std::size_t ours = 0;
    const Oid enterprise = Enterprise({});
    for (const netsnmp_subtree* subtree = netsnmp_subtree_find_first(""); subtree != nullptr;
         subtree = subtree->next) {
        if (subtree->namelen > enterprise.size() && subtree->reginfo != nullptr &&
            std::equal(enterprise.begin(), enterprise.end(), subtree->name_a)) {
            ++ours;
        }
    }
    EXPECT_EQ(ours, RegisteredVariables().size());
}

TEST_F(Module, LogsOneLinePerGroupInOrderAndThenStartsTheClient) {
    init_SNMPKelv();
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(daemon.host.logins.size(), 1U);
    deinit_SNMPKelv();
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST_F(Module, LoadsWhenTheClientThrows) {
    daemon.WhenCalled("Login", [] { throw std::runtime_error("no client"); });
    init_SNMPKelv();
    std::vector<LogLine> expected = logOfALoad;
    expected.insert(expected.end() - 1, {3, "SNMPRaskHelper_Init: no client\n"});
    EXPECT_EQ(log.Take(), expected);
}

TEST_F(Module, WritesOnlyItsLinesWhenTheAgentRefuses) {
    debug_register_tokens("trace,register_mib");  // known, but debugging stays off
    init_SNMPKelv();
    log.Take();
    init_SNMPKelv();
    EXPECT_EQ(TakeModuleLines(), logOfALoad);
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
}

TEST_F(Module, TracesEachRefusalInOrderWhileTheAgentIsDebugging) {
    init_SNMPKelv();
    const Debugging debugging;
    log.Take();
    init_SNMPKelv();
    const std::string trace = log.TakeDebugText();
    const std::string failed = " registration failed\n";
    std::size_t at = 0;
    std::size_t end = 0;
    for (const Expected& expected : registrations) {
        const std::string before = std::string("trace: ") + expected.function + "(): ";
        const std::string after = std::string("apps/snmp/") + expected.unit + ".cpp, " +
                                  std::to_string(expected.line) + "\nregister_mib: " + expected.name + failed;
        const std::size_t start = trace.find(before, at);
        ASSERT_NE(start, std::string::npos) << expected.name;
        at = trace.find(after, start);
        ASSERT_NE(at, std::string::npos) << expected.name;
        // Nothing but the directory of the build stands between.
        EXPECT_EQ(trace.substr(start, at - start).find('\n'), std::string::npos);
        at += after.size();
        // No other refusal comes before.
        end = trace.find(failed, end) + failed.size();
        EXPECT_EQ(end, at);
    }
    EXPECT_EQ(trace.find(failed, end), std::string::npos);
}

TEST_F(Module, TracesNothingThatTheAgentAccepts) {
    const Debugging debugging;
    init_SNMPKelv();
    EXPECT_EQ(log.TakeDebugText().find("registration failed"), std::string::npos);
}

TEST_F(Module, KeepsTheFloppyTableWhenTheAgentRefusesTheCdromTable) {
    const ForeignColumn foreign(Enterprise({2, 6, 1, 1}));
    const Debugging debugging;
    log.Take();
    init_SNMPVMFloppyCD();
    EXPECT_NE(FindRegistered(Enterprise({2, 5, 1, 1})), nullptr);
    EXPECT_NE(FindRegistered(Enterprise({2, 5, 1, 4})), nullptr);
    const std::string trace = log.TakeDebugText();
    EXPECT_NE(trace.find("init_SNMPVMFloppyCD(): "), std::string::npos);
    EXPECT_NE(trace.find("SNMPVMFloppyCD.cpp, 81\n"), std::string::npos);
    EXPECT_NE(trace.find("CDROMTable registration failed\n"), std::string::npos);
    EXPECT_EQ(trace.find("floppyTable registration failed\n"), std::string::npos);
}

TEST_F(Module, RegistersTheSecondTableOfAGroupWhenTheFirstIsRefused) {
    const ForeignColumn foreignAdapters(Enterprise({2, 2, 1, 1}));
    const ForeignColumn foreignFloppies(Enterprise({2, 5, 1, 1}));
    init_SNMPVMDisk();
    init_SNMPVMFloppyCD();
    EXPECT_NE(FindRegistered(Enterprise({2, 3, 1, 1})), nullptr);
    EXPECT_NE(FindRegistered(Enterprise({2, 6, 1, 1})), nullptr);
}

TEST_F(Module, UnregistersEveryVariableAtUnload) {
    init_SNMPKelv();
    ASSERT_EQ(CountServed(), RegisteredVariables().size());
    deinit_SNMPKelv();
    for (const RegisteredVariable& variable : RegisteredVariables()) {
        EXPECT_EQ(FindRegistered(variable.name), nullptr);
    }
}

TEST_F(Module, UnregistersItsOwnColumnsOnly) {
    // The third column is taken: the agent accepts the first two and no more.
    const ForeignColumn foreign(Enterprise({2, 1, 1, 3}));
    init_SNMPKelv();
    EXPECT_NE(FindRegistered(Enterprise({2, 1, 1, 2})), nullptr);
    EXPECT_EQ(FindRegistered(Enterprise({2, 1, 1, 4})), nullptr);
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), 0U);
    EXPECT_TRUE(foreign.IsRegistered());
}

TEST_F(Module, UnregistersAColumnBehindOneOfHigherPriority) {
    const Oid column = Enterprise({2, 1, 1, 3});
    {
        const ForeignColumn foreign(column, DEFAULT_MIB_PRIORITY - 1);
        init_SNMPKelv();
        EXPECT_TRUE(foreign.IsRegistered());
        deinit_SNMPKelv();
        EXPECT_TRUE(foreign.IsRegistered());
    }
    EXPECT_EQ(FindRegistered(column), nullptr);
}

TEST_F(Module, StaysRegisteredUntilItsLastUnload) {
    init_SNMPKelv();
    init_SNMPKelv();
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), 0U);
    deinit_SNMPKelv();
    log.Take();
    init_SNMPKelv();  // as if for the first time
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), 0U);
}

void FillEveryTable() {
    ForEachTable([](const auto& table) { InsertRow(table, 0); });
}

// The handlers of the tables that hold rows.
std::vector<FindVarMethod*> FilledTables() {
    std::vector<FindVarMethod*> filled;
    ForEachTable([&](const auto& table) {
        if (*table.getPtr() != nullptr) {
            filled.push_back(table.handler);
        }
    });
    return filled;
}

TEST_F(Module, EmptiesEveryTableAtUnloadSoThatTheNextRequestRefreshes) {
    init_SNMPKelv();
    EXPECT_FALSE(FindVariable("vmIdx").GetNext({}).answered);
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 1);
    FillEveryTable();
    ASSERT_EQ(FilledTables().size(), 10U);
    EXPECT_TRUE(FindVariable("vmIdx").GetNext({}).answered);  // from the cache
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 1);
    deinit_SNMPKelv();
    EXPECT_EQ(FilledTables(), std::vector<FindVarMethod*>{});
    EXPECT_FALSE(FindVariable("vmIdx").GetNext({}).answered);
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 2);
    FillEveryTable();
    EXPECT_EQ(FilledTables().size(), 10U);
}

TEST_F(Module, EmptiesATableWithItsGroup) {
    const struct {
        void (*deinit)();
        std::vector<FindVarMethod*> tables;
    } groups[] = {{deinit_SNMPVMInfo, {SNMP_VMInfoTable}},
                  {deinit_SNMPVMNet, {SNMP_VMNetTable}},
                  {deinit_SNMPVMDisk, {SNMP_VMHBATable, SNMP_VMHBATgtTable}},
                  {deinit_SNMPVMFloppyCD, {SNMP_VMFloppyTable, SNMP_VMCDROMTable}},
                  {deinit_SNMPResCPU, {SNMP_ResCPUTable}},
                  {deinit_SNMPResMem, {SNMP_ResMemTable}},
                  {deinit_SNMPResDisk, {SNMP_ResDiskTable}},
                  {deinit_SNMPResNet, {SNMP_ResNetTable}},
                  {deinit_SNMPKelvTbl, {}},
                  {deinit_SNMPSystem, {}}};
    for (const auto& group : groups) {
        DestroyAllRows();
        FillEveryTable();
        std::vector<FindVarMethod*> expected = FilledTables();
        for (FindVarMethod* const table : group.tables) {
            std::erase(expected, table);
        }
        group.deinit();
        EXPECT_EQ(FilledTables(), expected);
    }
}

TEST_F(Module, EmptiesTheTablesInTheOrderOfItsGroups) {
    FillEveryTable();
    std::vector<const void*> order;
    ForEachTable([&](const auto& table) { order.push_back(*table.getPtr()); });
    EXPECT_EQ(ReleasedBlocks(deinit_SNMPKelv), order);
}

TEST_F(Module, UnloadsWithoutALoad) {
    deinit_SNMPKelv();
    EXPECT_EQ(FilledTables(), std::vector<FindVarMethod*>{});
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

}  // namespace
