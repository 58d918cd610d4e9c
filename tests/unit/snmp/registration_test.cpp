// Loading and unloading the module in an agent inside the test program.
#include "apps/snmp/columns/Registration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>
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

// The registrations in their order: name, base without the enterprise, then each handler with the suffixes
// and magics of its variables.
const char* const registrations = R"(
SNMPVMInfo 2.1: SNMP_VMInfoTable 1.1=3 1.2=4 1.3=5 1.4=6 1.5=7 1.6=8 1.7=9 1.8=10
SNMPVMNet 2.4: SNMP_VMNetTable 1.1=3 1.2=4 1.3=5 1.4=6 1.5=7
SNMPVMHBA 2.2: SNMP_VMHBATable 1.1=3 1.2=4 1.3=5 1.4=6
SNMPVMTgt 2.3: SNMP_VMHBATgtTable 1.1=9 1.2=10 1.3=11
floppyTable 2.5: SNMP_VMFloppyTable 1.1=3 1.2=4 1.3=5 1.4=6
CDROMTable 2.6: SNMP_VMCDROMTable 1.1=3 1.2=4 1.3=5 1.4=6
SNMPResMem 3.2: SNMP_ResMem 1=2 2=3 3=4 SNMP_ResMemTable 4.1.1=7 4.1.2=8 4.1.3=9 4.1.4=10
SNMPResCPU 3.1: SNMP_ResCPU 1=2 SNMP_ResCPUTable 2.1.1=5 2.1.2=6 2.1.3=7
SNMPResDisk 3.3: SNMP_ResDiskTable 1.1=3 1.2=4 1.3=5 1.4=6 1.5=7 1.6=8 1.7=9 1.8=10
SNMPResNet 3.4: SNMP_ResNetTable 1.1=3 1.2=4 1.3=5 1.4=6 1.5=7 1.6=8 1.7=9 1.8=10 1.9=11 1.10=12 1.11=13 1.12=14 1.13=15
SNMPKelvNorv 4.1.1: SNMP_KelvNorv 1=1
SNMPSystem 1: SNMP_System 1=1 2=2 3=3 4=4
)";

// The trace when the agent refuses them all.
const std::vector<std::string> refusals{
    "init_SNMPVMInfo(): SNMPVMInfo.cpp, 79: SNMPVMInfo",
    "init_SNMPVMNet(): SNMPVMNet.cpp, 74: SNMPVMNet",
    "init_SNMPVMDisk(): SNMPVMDisk.cpp, 91: SNMPVMHBA",
    "init_SNMPVMDisk(): SNMPVMDisk.cpp, 94: SNMPVMTgt",
    "init_SNMPVMFloppyCD(): SNMPVMFloppyCD.cpp, 79: floppyTable",
    "init_SNMPVMFloppyCD(): SNMPVMFloppyCD.cpp, 81: CDROMTable",
    "init_SNMPResMem(): SNMPResMem.cpp, 82: SNMPResMem",
    "init_SNMPResCPU(): SNMPResCPU.cpp, 75: SNMPResCPU",
    "init_SNMPResDisk(): SNMPResDisk.cpp, 81: SNMPResDisk",
    "init_SNMPResNet(): SNMPResNet.cpp, 91: SNMPResNet",
    "init_SNMPKelvTbl(): SNMPKelv.cpp, 68: SNMPKelvNorv",
    "init_SNMPSystem(): SNMPSystem.cpp, 97: SNMPSystem",
};

const std::vector<LogLine> logOfALoad{
    {6, "SNMPVMInfo: Initialized.\n"},  {6, "SNMPVMNet: Initialized.\n"},
    {6, "SNMPVMDisk: Initialized.\n"},  {6, "SNMPVMFloppyCD: Initialized.\n"},
    {6, "SNMPResMem: Initialized.\n"},  {6, "SNMPResCPU: Initialized.\n"},
    {6, "SNMPResDisk: Initialized.\n"}, {6, "SNMPResNet: Initialized.\n"},
    {6, "SNMPKelv: Initialized.\n"},    {6, "SNMPSystem: Initialized.\n"},
    {6, "SNMPRask: Initialized\n"},
};

// How many variables the agent serves under the enterprise.
std::size_t CountServed() {
    std::size_t count = 0;
    const Oid enterprise = Enterprise({});
    for (const netsnmp_subtree* subtree = netsnmp_subtree_find_first(""); subtree != nullptr;
         subtree = subtree->next) {
        count += subtree->namelen > enterprise.size() && subtree->reginfo != nullptr &&
                 std::equal(enterprise.begin(), enterprise.end(), subtree->name_a);
    }
    return count;
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

class Module : public testing::Test {
  protected:
    Module() {
        TestSupport::StartAgent();
        debug_register_tokens("trace,register_mib");  // debugging is off
        log.Take();
    }
    ~Module() override {
        snmp_set_do_debugging(0);
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

    // The refusals that were traced: function, file without the build's directory, line and name.
    std::vector<std::string> TakeRefusals() {
        const std::string trace = log.TakeDebugText();
        const std::regex refusal(
            "(?:trace: (.*\\(\\): ).*apps/snmp/(.*)\nregister_mib: )?(.*) registration failed\n");
        std::vector<std::string> found;
        for (std::sregex_iterator at(trace.begin(), trace.end(), refusal), end; at != end; ++at) {
            found.push_back(at->format("$1$2: $3"));
        }
        return found;
    }

    TestSupport::LogCapture log;
    TestSupport::FakeDaemon daemon;
};

std::string ToText(const Oid& name) {
    std::string text;
    for (const oid subId : name) {
        text += (text.empty() ? "" : ".") + std::to_string(subId);
    }
    return text;
}

TEST_F(Module, RegistersEachGroupsVariablesInOrderAndNothingElse) {
    init_SNMPKelv();
    std::map<FindVarMethod*, std::string> handlers{{SNMP_ResMem, "SNMP_ResMem"},
                                                   {SNMP_ResCPU, "SNMP_ResCPU"},
                                                   {SNMP_KelvNorv, "SNMP_KelvNorv"},
                                                   {SNMP_System, "SNMP_System"}};
    ForEachTable([&](const auto& table) { handlers[table.handler] = table.handlerName; });
    std::string text;
    for (const auto* each = SNMP::Registration::First(); each != nullptr; each = each->Next()) {
        const Oid base(each->Base().begin(), each->Base().end());
        std::string line;
        FindVarMethod* handler = nullptr;
        for (std::size_t i = 0; i < each->Count(); ++i) {
            const variable* const entry = each->Entry(i);
            const Oid suffix(entry->name, entry->name + entry->namelen);
            const variable* const copy = FindRegistered(Join(base, suffix));
            ASSERT_NE(copy, nullptr);
            EXPECT_EQ(copy->findVar, entry->findVar);
            EXPECT_EQ(copy->magic, entry->magic);
            EXPECT_EQ(copy->type, entry->type);
            EXPECT_EQ(copy->acl, RONLY);
            line += line.empty() ? TestSupport::RegistrationName(Join(base, suffix)) + ' ' +
                                       ToText({base.begin() + 7, base.end()}) + ':'
                                 : "";
            line += handler == entry->findVar ? "" : ' ' + handlers.at(entry->findVar);
            line += ' ' + ToText(suffix) + '=' + std::to_string(entry->magic);
            handler = entry->findVar;
        }
        text.insert(0, line + '\n');
    }
    std::istringstream found(text);
    std::istringstream fixed(registrations + 1);
    for (std::string line, expected; std::getline(fixed, expected);) {
        ASSERT_TRUE(std::getline(found, line)) << expected;
        // Columns that were added since follow; the MIB has them.
        EXPECT_EQ(line.substr(0, expected.size()), expected);
    }
    EXPECT_EQ(found.peek(), EOF);
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
}

TEST_F(Module, LogsOneLinePerGroupInOrderAndThenStartsTheClient) {
    init_SNMPKelv();
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(daemon.host.texts["Login"].size(), 1U);
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
    init_SNMPKelv();
    log.Take();
    init_SNMPKelv();
    EXPECT_EQ(TakeModuleLines(), logOfALoad);
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
}

TEST_F(Module, TracesEachRefusalWhileTheAgentIsDebugging) {
    snmp_set_do_debugging(1);
    init_SNMPKelv();
    EXPECT_EQ(TakeRefusals(), std::vector<std::string>{});
    init_SNMPKelv();
    EXPECT_EQ(TakeRefusals(), refusals);
}

TEST_F(Module, RegistersOneTableOfAGroupWhenTheOtherIsRefused) {
    snmp_set_do_debugging(1);
    for (const oid taken : {oid{2}, oid{6}}) {
        const oid other = taken == 2 ? 3 : 5;
        const ForeignColumn foreign(Enterprise({2, taken, 1, 1}));
        log.Take();
        init_SNMPVMDisk();
        init_SNMPVMFloppyCD();
        EXPECT_NE(FindRegistered(Enterprise({2, other, 1, 1})), nullptr);
        EXPECT_NE(FindRegistered(Enterprise({2, other, 1, 3})), nullptr);
        EXPECT_EQ(TakeRefusals(), std::vector{refusals[taken == 2 ? 2 : 5]});
        SNMP::Registration::UnregisterAll();
    }
}

TEST_F(Module, UnregistersItsOwnColumnsOnly) {
    // The third column is taken: the agent accepts the first two and no more.
    const ForeignColumn foreign(Enterprise({2, 1, 1, 3}));
    init_SNMPKelv();
    EXPECT_NE(FindRegistered(Enterprise({2, 1, 1, 2})), nullptr);
    EXPECT_EQ(FindRegistered(Enterprise({2, 1, 1, 4})), nullptr);
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), 1U);
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
    log.Take();
    deinit_SNMPKelv();  // without a load
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
    init_SNMPKelv();  // as if for the first time
    EXPECT_EQ(log.Take(), logOfALoad);
    EXPECT_EQ(CountServed(), RegisteredVariables().size());
    deinit_SNMPKelv();
    EXPECT_EQ(CountServed(), 0U);
}

// A row for every table; returns the rows in the order in which the module empties the tables.
std::vector<const void*> FillEveryTable() {
    std::vector<const void*> rows;
    ForEachTable([&](const auto& table) { rows.push_back(&InsertRow(table, 0)); });
    return rows;
}

TEST_F(Module, EmptiesEveryTableAtUnloadSoThatTheNextRequestRefreshes) {
    init_SNMPKelv();
    EXPECT_FALSE(FindVariable("vmIdx").GetNext({}).answered);
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 1);
    const std::vector<const void*> rows = FillEveryTable();
    EXPECT_TRUE(FindVariable("vmIdx").GetNext({}).answered);  // from the cache
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 1);
    EXPECT_EQ(ReleasedBlocks(deinit_SNMPKelv), rows);
    ForEachTable([](const auto& table) { EXPECT_EQ(*table.getPtr(), nullptr); });
    EXPECT_FALSE(FindVariable("vmIdx").GetNext({}).answered);
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 2);
}

TEST_F(Module, EmptiesATableWithItsGroup) {
    const struct {
        void (*deinit)();
        std::ptrdiff_t tables;
    } groups[] = {{deinit_SNMPVMInfo, 1},     {deinit_SNMPVMNet, 1},  {deinit_SNMPVMDisk, 2},
                  {deinit_SNMPVMFloppyCD, 2}, {deinit_SNMPResMem, 1}, {deinit_SNMPResCPU, 1},
                  {deinit_SNMPResDisk, 1},    {deinit_SNMPResNet, 1}, {deinit_SNMPKelvTbl, 0},
                  {deinit_SNMPSystem, 0}};
    const std::vector<const void*> rows = FillEveryTable();
    auto next = rows.begin();
    for (const auto& group : groups) {
        EXPECT_EQ(ReleasedBlocks(group.deinit), std::vector(next, next + group.tables));
        next += group.tables;
    }
    EXPECT_EQ(next, rows.end());
}

}  // namespace
