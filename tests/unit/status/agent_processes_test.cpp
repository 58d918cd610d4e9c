#include "apps/status/AgentProcesses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/unit/vessad/temporary_directory.h"

namespace KelvStatus {
namespace {

using Module = AgentFacts::Module;
using testing::ElementsAre;

constexpr const char* network = "net:[4026531840]";
const std::string mapping = "7f00-7f01 r-xp 00000000 08:01 42                     ";

// A proc file system of files.
class AgentProcesses : public testing::Test {
  protected:
    AgentProcesses() { Link("self", network); }

    std::filesystem::path Folder(const std::string& process) const {
        std::filesystem::create_directories(proc.GetPath() / process / "ns");
        return proc.GetPath() / process;
    }
    void Link(const std::string& process, const std::string& target) const {
        std::filesystem::create_symlink(target, Folder(process) / "ns/net");
    }
    void Add(const std::string& process, const std::string& name, const std::string& maps,
             const std::string& state = "S (sleeping)") const {
        const auto folder = Folder(process);
        std::ofstream(folder / "comm") << name << "\n";
        std::ofstream(folder / "status") << "Name:\t" << name << "\nState:\t" << state
                                         << "\nUid:\t1\t2\t3\t4000000001\nGid:\t5\t6\t7\t4000000002\n"
                                            "Groups:\t4000000003 9 \nVmPeak:\t 3 kB\n";
        std::ofstream(folder / "maps") << maps;
    }
    std::vector<AgentFacts> List() const { return ListAgents(proc.GetPath()); }

    VessadTest::TemporaryDirectory proc;
};

TEST_F(AgentProcesses, AreThoseOfThisNetworkInTheOrderOfTheirIds) {
    EXPECT_TRUE(List().empty());
    for (const char* process : {"1000", "20", "300", "4"}) {
        Add(process, "snmpd", mapping);
        Link(process, std::string(process) == "300" ? "net:[1]" : network);
    }
    Add("5", "snmpd", mapping);
    std::ofstream(Folder("5") / "ns/net") << "cannot be read as a link";
    Add("6", "snmpd", mapping, "Z (zombie)");
    Link("6", network);
    Add("7", "snmptrapd", mapping);
    Add("8x", "snmpd", mapping);
    Add("9", "snmpd", mapping);  // ended since its folder was listed
    Folder("10");
    EXPECT_THAT(
        List(),
        ElementsAre(testing::Field(&AgentFacts::process, 4), testing::Field(&AgentFacts::process, 5),
                    testing::Field(&AgentFacts::process, 20), testing::Field(&AgentFacts::process, 1000)));
}

TEST_F(AgentProcesses, OpenFilesAsTheirFileSystemUserWithAllGroups) {
    Add("4", "snmpd", mapping);
    Link("4", network);
    const AgentFacts agent = List().at(0);
    EXPECT_EQ(agent.credentials.user, 4000000001U);
    EXPECT_THAT(agent.credentials.groups, ElementsAre(4000000002U, 4000000003U, 9U));
    // Nobody has these.
    EXPECT_EQ(agent.user, "4000000001");
    EXPECT_EQ(agent.group, "4000000002");
}

TEST_F(AgentProcesses, HaveTheModuleThatTheirMapsName) {
    const std::string folder = "/usr/lib/x86_64-linux-gnu/snmp/dlmod";
    const std::vector<std::pair<std::string, Module>> cases = {
        {"", Module::Unknown},
        {mapping + "\n", Module::NotLoaded},
        {mapping + "/usr/sbin/snmpd\n" + mapping + folder + "/NotSNMPKelv.so\n", Module::NotLoaded},
        {mapping + folder + "/SNMPKelv.so.new\n", Module::NotLoaded},
        {mapping + "/usr/sbin/snmpd\n" + mapping + folder + "/SNMPKelv.so\n" + mapping + "\n",
         Module::Loaded},
        {mapping + folder + "/SNMPKelv.so (deleted)\n" + mapping + "[stack]\n", Module::Replaced},
        {mapping + "/usr/sbin/snmpd (deleted)\n", Module::NotLoaded},
        {mapping + folder + "/SNMPKelv.so (deleted)\n" + mapping + folder + "/SNMPKelv.so\n", Module::Loaded},
    };
    Link("4", network);
    for (const auto& [maps, module] : cases) {
        Add("4", "snmpd", maps);
        EXPECT_EQ(List().at(0).module, module) << maps;
    }
}

}  // namespace
}  // namespace KelvStatus
