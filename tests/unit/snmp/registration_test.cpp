#include "apps/snmp/columns/Registration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/snmp/SNMPKelv.h"
#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPSystem.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "apps/snmp/collections/VMTables.h"
#include "tests/support/in_process_agent.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/fake_refresh.h"
#include "tests/unit/snmp/handler_call.h"
#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp/rows.h"

namespace {

using TestSupport::FindRegistered;
using TestSupport::LogLine;

constexpr u_char integer = 0x02;
constexpr u_char octetString = 0x04;
constexpr u_char objectId = 0x06;
constexpr u_char counter64 = 0x46;

// Every variable of the module.
struct Expected {
    const char* registration;
    u_char magic;
    u_char type;
    FindVarMethod* handler;
    Oid base;  // without the enterprise
    Oid suffix;

    Oid Name() const {
        Oid name = Enterprise(base);
        name.insert(name.end(), suffix.begin(), suffix.end());
        return name;
    }
};

const std::vector<Expected> variables{
    {"SNMPVMInfo", 3, integer, SNMP_VMInfoTable, {2, 1}, {1, 1}},
    {"SNMPVMInfo", 4, octetString, SNMP_VMInfoTable, {2, 1}, {1, 2}},
    {"SNMPVMInfo", 5, octetString, SNMP_VMInfoTable, {2, 1}, {1, 3}},
    {"SNMPVMInfo", 6, octetString, SNMP_VMInfoTable, {2, 1}, {1, 4}},
    {"SNMPVMInfo", 7, integer, SNMP_VMInfoTable, {2, 1}, {1, 5}},
    {"SNMPVMInfo", 8, octetString, SNMP_VMInfoTable, {2, 1}, {1, 6}},
    {"SNMPVMInfo", 9, integer, SNMP_VMInfoTable, {2, 1}, {1, 7}},
    {"SNMPVMInfo", 10, octetString, SNMP_VMInfoTable, {2, 1}, {1, 8}},
    {"SNMPVMHBA", 3, integer, SNMP_VMHBATable, {2, 2}, {1, 1}},
    {"SNMPVMHBA", 4, integer, SNMP_VMHBATable, {2, 2}, {1, 2}},
    {"SNMPVMHBA", 5, octetString, SNMP_VMHBATable, {2, 2}, {1, 3}},
    {"SNMPVMHBA", 6, octetString, SNMP_VMHBATable, {2, 2}, {1, 4}},
    {"SNMPVMTgt", 9, integer, SNMP_VMHBATgtTable, {2, 3}, {1, 1}},
    {"SNMPVMTgt", 10, integer, SNMP_VMHBATgtTable, {2, 3}, {1, 2}},
    {"SNMPVMTgt", 11, octetString, SNMP_VMHBATgtTable, {2, 3}, {1, 3}},
    {"SNMPVMNet", 3, integer, SNMP_VMNetTable, {2, 4}, {1, 1}},
    {"SNMPVMNet", 4, integer, SNMP_VMNetTable, {2, 4}, {1, 2}},
    {"SNMPVMNet", 5, octetString, SNMP_VMNetTable, {2, 4}, {1, 3}},
    {"SNMPVMNet", 6, octetString, SNMP_VMNetTable, {2, 4}, {1, 4}},
    {"SNMPVMNet", 7, octetString, SNMP_VMNetTable, {2, 4}, {1, 5}},
    {"floppyTable", 3, integer, SNMP_VMFloppyTable, {2, 5}, {1, 1}},
    {"floppyTable", 4, integer, SNMP_VMFloppyTable, {2, 5}, {1, 2}},
    {"floppyTable", 5, octetString, SNMP_VMFloppyTable, {2, 5}, {1, 3}},
    {"floppyTable", 6, octetString, SNMP_VMFloppyTable, {2, 5}, {1, 4}},
    {"CDROMTable", 3, integer, SNMP_VMCDROMTable, {2, 6}, {1, 1}},
    {"CDROMTable", 4, integer, SNMP_VMCDROMTable, {2, 6}, {1, 2}},
    {"CDROMTable", 5, octetString, SNMP_VMCDROMTable, {2, 6}, {1, 3}},
    {"CDROMTable", 6, octetString, SNMP_VMCDROMTable, {2, 6}, {1, 4}},
    {"SNMPResCPU", 2, integer, SNMP_ResCPU, {3, 1}, {1}},
    {"SNMPResCPU", 5, integer, SNMP_ResCPUTable, {3, 1}, {2, 1, 1}},
    {"SNMPResCPU", 6, integer, SNMP_ResCPUTable, {3, 1}, {2, 1, 2}},
    {"SNMPResCPU", 7, integer, SNMP_ResCPUTable, {3, 1}, {2, 1, 3}},
    {"SNMPResMem", 2, integer, SNMP_ResMem, {3, 2}, {1}},
    {"SNMPResMem", 3, integer, SNMP_ResMem, {3, 2}, {2}},
    {"SNMPResMem", 4, integer, SNMP_ResMem, {3, 2}, {3}},
    {"SNMPResMem", 7, integer, SNMP_ResMemTable, {3, 2}, {4, 1, 1}},
    {"SNMPResMem", 8, integer, SNMP_ResMemTable, {3, 2}, {4, 1, 2}},
    {"SNMPResMem", 9, integer, SNMP_ResMemTable, {3, 2}, {4, 1, 3}},
    {"SNMPResMem", 10, integer, SNMP_ResMemTable, {3, 2}, {4, 1, 4}},
    {"SNMPResDisk", 3, integer, SNMP_ResDiskTable, {3, 3}, {1, 1}},
    {"SNMPResDisk", 4, octetString, SNMP_ResDiskTable, {3, 3}, {1, 2}},
    {"SNMPResDisk", 5, integer, SNMP_ResDiskTable, {3, 3}, {1, 3}},
    {"SNMPResDisk", 6, integer, SNMP_ResDiskTable, {3, 3}, {1, 4}},
    {"SNMPResDisk", 7, integer, SNMP_ResDiskTable, {3, 3}, {1, 5}},
    {"SNMPResDisk", 8, integer, SNMP_ResDiskTable, {3, 3}, {1, 6}},
    {"SNMPResDisk", 9, integer, SNMP_ResDiskTable, {3, 3}, {1, 7}},
    {"SNMPResDisk", 10, integer, SNMP_ResDiskTable, {3, 3}, {1, 8}},
    {"SNMPResNet", 3, integer, SNMP_ResNetTable, {3, 4}, {1, 1}},
    {"SNMPResNet", 4, octetString, SNMP_ResNetTable, {3, 4}, {1, 2}},
    {"SNMPResNet", 5, integer, SNMP_ResNetTable, {3, 4}, {1, 3}},
    {"SNMPResNet", 6, octetString, SNMP_ResNetTable, {3, 4}, {1, 4}},
    {"SNMPResNet", 7, integer, SNMP_ResNetTable, {3, 4}, {1, 5}},
    {"SNMPResNet", 8, integer, SNMP_ResNetTable, {3, 4}, {1, 6}},
    {"SNMPResNet", 9, integer, SNMP_ResNetTable, {3, 4}, {1, 7}},
    {"SNMPResNet", 10, integer, SNMP_ResNetTable, {3, 4}, {1, 8}},
    {"SNMPResNet", 11, integer, SNMP_ResNetTable, {3, 4}, {1, 9}},
    {"SNMPResNet", 12, counter64, SNMP_ResNetTable, {3, 4}, {1, 10}},
    {"SNMPResNet", 13, counter64, SNMP_ResNetTable, {3, 4}, {1, 11}},
    {"SNMPResNet", 14, counter64, SNMP_ResNetTable, {3, 4}, {1, 12}},
    {"SNMPResNet", 15, counter64, SNMP_ResNetTable, {3, 4}, {1, 13}},
    {"SNMPKelvNorv", 1, octetString, SNMP_KelvNorv, {4, 1, 1}, {1}},
    {"SNMPSystem", 1, octetString, SNMP_System, {1}, {1}},
    {"SNMPSystem", 2, octetString, SNMP_System, {1}, {2}},
    {"SNMPSystem", 3, objectId, SNMP_System, {1}, {3}},
    {"SNMPSystem", 4, octetString, SNMP_System, {1}, {4}},
};

// One subtree: its group, and what the trace of a refusal names.
struct Subtree {
    const char* registration;
    void (*init)();
    const char* function;
    const char* unit;
    int line;
    const char* logLine;
};

const std::vector<Subtree> subtrees{
    {"SNMPVMInfo", init_SNMPVMInfo, "init_SNMPVMInfo", "apps/snmp/SNMPVMInfo", 79,
     "SNMPVMInfo: Initialized.\n"},
    {"SNMPVMHBA", init_SNMPVMDisk, "init_SNMPVMDisk", "apps/snmp/SNMPVMDisk", 91,
     "SNMPVMDisk: Initialized.\n"},
    {"SNMPVMTgt", init_SNMPVMDisk, "init_SNMPVMDisk", "apps/snmp/SNMPVMDisk", 94,
     "SNMPVMDisk: Initialized.\n"},
    {"SNMPVMNet", init_SNMPVMNet, "init_SNMPVMNet", "apps/snmp/SNMPVMNet", 74, "SNMPVMNet: Initialized.\n"},
    {"floppyTable", init_SNMPVMFloppyCD, "init_SNMPVMFloppyCD", "apps/snmp/SNMPVMFloppyCD", 79,
     "SNMPVMFloppyCD: Initialized.\n"},
    {"CDROMTable", init_SNMPVMFloppyCD, "init_SNMPVMFloppyCD", "apps/snmp/SNMPVMFloppyCD", 81,
     "SNMPVMFloppyCD: Initialized.\n"},
    {"SNMPResCPU", init_SNMPResCPU, "init_SNMPResCPU", "apps/snmp/SNMPResCPU", 75,
     "SNMPResCPU: Initialized.\n"},
    {"SNMPResMem", init_SNMPResMem, "init_SNMPResMem", "apps/snmp/SNMPResMem", 82,
     "SNMPResMem: Initialized.\n"},
    {"SNMPResDisk", init_SNMPResDisk, "init_SNMPResDisk", "apps/snmp/SNMPResDisk", 81,
     "SNMPResDisk: Initialized.\n"},
    {"SNMPResNet", init_SNMPResNet, "init_SNMPResNet", "apps/snmp/SNMPResNet", 91,
     "SNMPResNet: Initialized.\n"},
    {"SNMPKelvNorv", init_SNMPKelvTbl, "init_SNMPKelvTbl", "apps/snmp/SNMPKelv", 68,
     "SNMPKelv: Initialized.\n"},
    {"SNMPSystem", init_SNMPSystem, "init_SNMPSystem", "apps/snmp/SNMPSystem", 97,
     "SNMPSystem: Initialized.\n"},
};

const std::vector<LogLine> logOfALoad{
    {6, "SNMPVMInfo: Initialized.\n"},     {6, "SNMPVMNet: Initialized.\n"},
    {6, "SNMPVMDisk: Initialized.\n"},     {6, "SNMPVMFloppyCD: Initialized.\n"},
    {6, "SNMPResMem: Initialized.\n"},     {6, "SNMPResCPU: Initialized.\n"},
    {6, "SNMPResDisk: Initialized.\n"},    {6, "SNMPResNet: Initialized.\n"},
    {6, "SNMPKelv: Initialized.\n"},       {6, "SNMPSystem: Initialized.\n"},
    {6, "the management client starts\n"}, {6, "SNMPRask: Initialized\n"},
};

bool IsOurs(const Expected& expected) {
    const variable* const entry = FindRegistered(expected.Name());
    return entry != nullptr && entry->findVar == expected.handler;
}

int CountOurs() {
    return static_cast<int>(std::count_if(variables.begin(), variables.end(), IsOurs));
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
    void SetUp() override {
        TestSupport::StartAgent();
        FakeRefresh::Reset();
        FakeRefresh::Get().onStart = [] { snmp_log(LOG_INFO, "the management client starts\n"); };
        log.Take();
    }
    void TearDown() override {
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
};

TEST_F(Module, RegistersEveryVariable) {
    ASSERT_EQ(CountOurs(), 0);
    init_SNMPKelv();
    for (const Expected& expected : variables) {
        const variable* const entry = FindRegistered(expected.Name());
        ASSERT_NE(entry, nullptr) << testing::PrintToString(expected.Name());
        EXPECT_EQ(entry->magic, expected.magic);
        EXPECT_EQ(entry->type, expected.type);
        EXPECT_EQ(entry->acl, 1);
        EXPECT_EQ(entry->findVar, expected.handler);
        EXPECT_EQ(Oid(entry->name, entry->name + entry->namelen), expected.suffix);
        EXPECT_EQ(TestSupport::RegistrationName(expected.Name()), expected.registration);
    }
    deinit_SNMPKelv();
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
    EXPECT_EQ(ours, variables.size());
    deinit_SNMPKelv();
}

TEST_F(Module, LogsOneLinePerGroupInOrderAndThenItsOwn) {
    init_SNMPKelv();
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(FakeRefresh::Get().starts, 1);
    deinit_SNMPKelv();
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST_F(Module, LoadsWhenTheClientThrows) {
    FakeRefresh::Get().onStart = [] { throw std::runtime_error("no client"); };
    init_SNMPKelv();
    const std::vector<LogLine> lines = log.Take();
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines[10], (LogLine{3, "init_SNMPKelv: no client\n"}));
    EXPECT_EQ(lines[11], (LogLine{6, "SNMPRask: Initialized\n"}));
    deinit_SNMPKelv();
}

TEST_F(Module, WritesOnlyItsLinesWhenTheAgentRefuses) {
    debug_register_tokens("trace,register_mib");  // known, but debugging stays off
    init_SNMPKelv();
    log.Take();
    init_SNMPKelv();
    EXPECT_EQ(TakeModuleLines(), logOfALoad);
    EXPECT_EQ(CountOurs(), static_cast<int>(variables.size()));
    deinit_SNMPKelv();
    deinit_SNMPKelv();
}

TEST_F(Module, TracesEachRefusalWhileTheAgentIsDebugging) {
    for (const Subtree& subtree : subtrees) {
        const auto first = std::find_if(variables.begin(), variables.end(), [&](const Expected& variable) {
            return std::string(variable.registration) == subtree.registration;
        });
        const ForeignColumn foreign(first->Name());
        const Debugging debugging;
        log.Take();
        subtree.init();
        const std::vector<LogLine> lines = TakeModuleLines();
        std::string trace;
        for (const LogLine& line : lines) {
            trace += line.priority == LOG_DEBUG ? line.text : "";
        }
        const std::string file = std::string(subtree.unit) + ".cpp";
        const std::string before = std::string("trace: ") + subtree.function + "(): ";
        const std::string after = file + ", " + std::to_string(subtree.line) + "\n" +
                                  "register_mib: " + subtree.registration + " registration failed\n";
        const std::size_t start = trace.find(before);
        ASSERT_NE(start, std::string::npos) << trace;
        const std::size_t end = trace.find(after, start);
        ASSERT_NE(end, std::string::npos) << trace;
        // Nothing but the directory of the build stands between.
        EXPECT_EQ(trace.substr(start + before.size(), end - start - before.size()).find('\n'),
                  std::string::npos);
        EXPECT_NE(std::find(lines.begin(), lines.end(), LogLine{6, subtree.logLine}), lines.end());
        EXPECT_TRUE(foreign.IsRegistered());
        SNMP::Registration::UnregisterAll();
    }
}

TEST_F(Module, RegistersItsSubtreesInTheirOrder) {
    init_SNMPKelv();
    log.Take();
    std::vector<std::string> refused;
    {
        const Debugging debugging;
        init_SNMPKelv();
        const std::string before = "register_mib: ";
        const std::string trace = log.TakeDebugText();
        std::size_t end = trace.find(" registration failed\n");
        for (; end != std::string::npos; end = trace.find(" registration failed\n", end + 1)) {
            const std::size_t start = trace.rfind(before, end) + before.size();
            refused.push_back(trace.substr(start, end - start));
        }
    }
    EXPECT_EQ(refused, (std::vector<std::string>{"SNMPVMInfo", "SNMPVMNet", "SNMPVMHBA", "SNMPVMTgt",
                                                 "floppyTable", "CDROMTable", "SNMPResMem", "SNMPResCPU",
                                                 "SNMPResDisk", "SNMPResNet", "SNMPKelvNorv", "SNMPSystem"}));
    deinit_SNMPKelv();
    deinit_SNMPKelv();
}

TEST_F(Module, DoesNotTraceWhatTheAgentAccepts) {
    const Debugging debugging;
    init_SNMPKelv();
    EXPECT_EQ(log.TakeDebugText().find("registration failed"), std::string::npos);
    deinit_SNMPKelv();
}

TEST_F(Module, KeepsFloppiesWhenTheAgentRefusesCdroms) {
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

TEST_F(Module, TriesTheSecondSubtreeOfAGroupWhenTheFirstIsRefused) {
    const ForeignColumn foreignAdapters(Enterprise({2, 2, 1, 1}));
    const ForeignColumn foreignFloppies(Enterprise({2, 5, 1, 1}));
    init_SNMPVMDisk();
    init_SNMPVMFloppyCD();
    EXPECT_NE(FindRegistered(Enterprise({2, 3, 1, 1})), nullptr);
    EXPECT_NE(FindRegistered(Enterprise({2, 6, 1, 1})), nullptr);
}

TEST_F(Module, TakesEveryVariableBackAtUnload) {
    init_SNMPKelv();
    ASSERT_EQ(CountOurs(), static_cast<int>(variables.size()));
    deinit_SNMPKelv();
    for (const Expected& expected : variables) {
        EXPECT_EQ(FindRegistered(expected.Name()), nullptr);
    }
}

TEST_F(Module, TakesOnlyItsOwnColumnsBack) {
    // The third column is taken: the agent accepts the first two and no more.
    const ForeignColumn foreign(Enterprise({2, 1, 1, 3}));
    init_SNMPKelv();
    EXPECT_NE(FindRegistered(Enterprise({2, 1, 1, 2})), nullptr);
    EXPECT_EQ(FindRegistered(Enterprise({2, 1, 1, 4})), nullptr);
    deinit_SNMPKelv();
    EXPECT_EQ(CountOurs(), 0);
    EXPECT_TRUE(foreign.IsRegistered());
}

TEST_F(Module, TakesAColumnBackFromBehindOneOfHigherPriority) {
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
    EXPECT_EQ(CountOurs(), static_cast<int>(variables.size()));
    deinit_SNMPKelv();
    EXPECT_EQ(CountOurs(), 0);
    deinit_SNMPKelv();
    init_SNMPKelv();
    EXPECT_EQ(CountOurs(), static_cast<int>(variables.size()));
    deinit_SNMPKelv();
    EXPECT_EQ(CountOurs(), 0);
}

TEST_F(Module, LoadsAgainAfterAnUnloadAsIfForTheFirstTime) {
    init_SNMPKelv();
    deinit_SNMPKelv();
    log.Take();
    init_SNMPKelv();
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(CountOurs(), static_cast<int>(variables.size()));
    deinit_SNMPKelv();
}

void FillEveryTable() {
    MakeVmRows(2)->vmDisplayName = SNMPAllocString("web-1");
    Append(SNMPVMNetTable_GetPtr());
    Append(SNMPVMHBATable_GetPtr());
    Append(SNMPVMHBATgtTable_GetPtr());
    Append(SNMPVMFloppyTable_GetPtr());
    Append(SNMPVMCDROMTable_GetPtr());
    Append(SNMPResCPUTable_GetPtr());
    Append(SNMPResMemTable_GetPtr());
    Append(SNMPResDiskTable_GetPtr());
    Append(SNMPResNetTable_GetPtr());
}

// The tables that hold rows.
std::vector<std::string> FilledTables() {
    std::vector<std::string> filled;
    const auto note = [&](const char* name, bool hasRows) {
        if (hasRows) {
            filled.emplace_back(name);
        }
    };
    note("vm", vmInfoTable != nullptr || vmInfoTableNumEnt != 0);
    note("net", vmNetList != nullptr);
    note("hba", vmHBAList != nullptr);
    note("tgt", vmHBATgtList != nullptr);
    note("floppy", vmFloppyList != nullptr);
    note("cdrom", vmCDROMList != nullptr);
    note("cpu", resCPUList != nullptr);
    note("mem", resMemList != nullptr);
    note("disk", resDiskList != nullptr);
    note("resnet", resNetList != nullptr);
    return filled;
}

TEST_F(Module, EmptiesEveryTableAtUnloadAndCanFillThemAgain) {
    init_SNMPKelv();
    FillEveryTable();
    ASSERT_EQ(FilledTables().size(), 10U);
    EXPECT_EQ(FakeRefresh::Get().expiries, 0);
    deinit_SNMPKelv();
    EXPECT_EQ(FilledTables(), std::vector<std::string>{});
    EXPECT_EQ(FakeRefresh::Get().expiries, 1);  // the next request rebuilds
    FillEveryTable();
    EXPECT_EQ(FilledTables().size(), 10U);
}

TEST_F(Module, EmptiesATableWithItsGroup) {
    const struct {
        void (*deinit)();
        std::vector<std::string> tables;
    } groups[] = {{deinit_SNMPVMInfo, {"vm"}},
                  {deinit_SNMPVMNet, {"net"}},
                  {deinit_SNMPVMDisk, {"hba", "tgt"}},
                  {deinit_SNMPVMFloppyCD, {"floppy", "cdrom"}},
                  {deinit_SNMPResCPU, {"cpu"}},
                  {deinit_SNMPResMem, {"mem"}},
                  {deinit_SNMPResDisk, {"disk"}},
                  {deinit_SNMPResNet, {"resnet"}},
                  {deinit_SNMPKelvTbl, {}},
                  {deinit_SNMPSystem, {}}};
    for (const auto& group : groups) {
        DestroyAllRows();
        FillEveryTable();
        std::vector<std::string> expected = FilledTables();
        for (const std::string& table : group.tables) {
            std::erase(expected, table);
        }
        group.deinit();
        EXPECT_EQ(FilledTables(), expected);
    }
}

TEST_F(Module, EmptiesTheTablesInTheOrderOfItsGroups) {
    FillEveryTable();
    const std::vector<const void*> order = {vmInfoTable, vmNetList,  vmHBAList,  vmHBATgtList, vmFloppyList,
                                            vmCDROMList, resMemList, resCPUList, resDiskList,  resNetList};
    std::vector<const void*> released = ReleasedBlocks(deinit_SNMPKelv);
    std::erase_if(released, [&](const void* block) {
        return std::find(order.begin(), order.end(), block) == order.end();
    });
    EXPECT_EQ(released, order);
}

TEST_F(Module, UnloadsWithoutALoad) {
    deinit_SNMPKelv();
    EXPECT_EQ(FilledTables(), std::vector<std::string>{});
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

}  // namespace
