#include "apps/vessad/backends/libvirt/VmIds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::ThrowsMessage;
using testing::UnorderedElementsAre;
using VessadTest::FilesIn;
using VessadTest::ReadAll;
using VessadTest::WriteAll;

const std::string a = uuidA;
const std::string b = uuidB;
const std::string c = uuidC;
const std::string heading = "tovric-vessad identities 1\n";

class VmIdsTest : public testing::Test {
  protected:
    // Returns the ids of a, b and c.
    std::vector<int> Ids() const { return {ids->Find(a), ids->Find(b), ids->Find(c)}; }
    void Restart() {
        ids.reset();
        ids.emplace(path);
    }
    void StartWith(const std::string& text) {
        ids.reset();
        WriteAll(file, text);
        ids.emplace(path);
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    const std::filesystem::path path = directory.GetPath() / "state" / "vessad";
    const std::filesystem::path file = path / "identities";
    const std::filesystem::path damaged = path / "identities.damaged-1";
    // A directory of this name makes every write fail, also for root.
    const std::filesystem::path obstacle = path / "identities.new";
    std::optional<VmIds> ids{path};
};

TEST_F(VmIdsTest, AreAssignedInOrderAndKeptInATextThatOnlyTheOwnerReads) {
    ids->Admit({a, b});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0));
    EXPECT_EQ(ReadAll(file), heading + "next 3000\n1000 " + a + "\n2000 " + b + "\n");
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
    ids->Admit({});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0)) << "VMs that are gone may come back";
    ids->Admit({c});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 3000));
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(VmIdsTest, RejectADirectoryOrFileThatCannotBeTrusted) {
    EXPECT_THAT([&] { VmIds second(path); },
                ThrowsMessage<std::runtime_error>(HasSubstr("is in use by another daemon")));
    ids.reset();
    for (const auto& [commands, reason] : std::vector<std::pair<std::string, std::string>>{
             {"chown 12345 vessad", "state/vessad belongs to another user"},
             {"chown 12345 vessad/identities", "identities belongs to another user"},
             {"chmod 0770 vessad", "state/vessad is writable by others"},
             {"chmod 0662 vessad/identities", "identities is writable by others"},
             {"mv vessad real && ln -s real vessad", "cannot open the state directory"},
             {"rm -r vessad && touch vessad", "cannot create the state directory"},
             {"cd vessad && mv identities real && ln -s real identities", "cannot read"},
             {"cd vessad && rm identities && mkdir identities", "is not a regular file"},
             {"cd vessad && rm identities && mkfifo -m 600 identities", "is not a regular file"},
             {"truncate -s 1T vessad/identities",
              "identities has 1099511627776 bytes, more than any VM ids take"}}) {
        if (commands.starts_with("chown") && ::geteuid() != 0) {
            continue;
        }
        directory.Run("rm -rf state && mkdir -p -m 0700 state/vessad");
        EXPECT_NO_THROW(VmIds{path});
        directory.Run("cd state && " + commands);
        EXPECT_THAT([&] { VmIds{path}; }, ThrowsMessage<std::runtime_error>(HasSubstr(reason))) << commands;
    }
}

TEST_F(VmIdsTest, ThatCannotBeSavedAreHiddenUntilTheyAre) {
    ids->Admit({a});
    std::filesystem::create_directory(obstacle);
    Restart();
    ids->Admit({a});
    EXPECT_THAT(log.GetText(), IsEmpty()) << "known VMs need no write";
    ids->Admit({a, b});
    ids->Admit({a, b, c});
    EXPECT_THAT(Ids(), ElementsAre(1000, 0, 0));
    EXPECT_EQ(log.Count("error VM ids are not saved: cannot write " + obstacle.string()), 1);
    EXPECT_EQ(log.Count("; 1 new VMs stay hidden until they are"), 1);
    std::filesystem::remove(obstacle);
    ids->Admit({a, b});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 3000));
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 3000));
}

TEST_F(VmIdsTest, KeepTheOldFileWhenTheDiskIsFull) {
    ids->Admit({a});
    const std::string before = ReadAll(file);
    {
        const VessadTest::FullDisk full(before.size() + 5);
        ids->Admit({a, b});
    }
    EXPECT_EQ(ReadAll(file), before);
    EXPECT_THAT(Ids(), ElementsAre(1000, 0, 0));
    EXPECT_THAT(log.GetText(), HasSubstr("error VM ids are not saved: cannot write "));
    ids->Admit({a, b});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0));
}

TEST_F(VmIdsTest, OfADamagedFileAreTakenOverAndTheFileIsKept) {
    const std::string text = heading + "next 7000\n1000 " + a + "\n2000 0000\n3000 " + b;
    StartWith(text);
    EXPECT_EQ(ReadAll(damaged), text);
    EXPECT_THAT(log.GetText(), HasSubstr("error The damaged " + file.string() + " is kept as " +
                                         damaged.string() + ": 2 VMs keep their ids"));
    ids->Admit({c});
    EXPECT_THAT(Ids(), ElementsAre(1000, 3000, 1007000));
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 3000, 1007000));
    StartWith("second");
    EXPECT_EQ(ReadAll(damaged), text);
    EXPECT_EQ(ReadAll(path / "identities.damaged-2"), "second");
    EXPECT_THAT(FilesIn(path),
                UnorderedElementsAre("identities", "identities.damaged-1", "identities.damaged-2"));
}

TEST_F(VmIdsTest, LeaveADamagedFileInItsPlaceUntilAValidOneReplacesIt) {
    const std::string text = heading + "next 7000\n5000 " + a + "\nrubbish\n";
    std::filesystem::create_directory(obstacle);
    EXPECT_THROW(StartWith(text), std::runtime_error);
    EXPECT_EQ(ReadAll(file), text);
    EXPECT_THAT(FilesIn(path), UnorderedElementsAre("identities", "identities.new"));
    std::filesystem::remove(obstacle);
    Restart();
    EXPECT_EQ(ids->Find(a), 5000);
    EXPECT_EQ(ReadAll(damaged), text);
}

TEST_F(VmIdsTest, EndWithTheLargestNumberThatAnAgentCanShow) {
    StartWith(heading + "next 2147483000\n");
    ids->Admit({a, b});
    EXPECT_THAT(log.GetText(), HasSubstr("No VM id is left"));
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(2147483000, 0, 0));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("damaged")));
    StartWith(heading + "next 2147483000\nrubbish\n");
    ids->Admit({a});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(0, 0, 0));
    EXPECT_THAT(FilesIn(path), UnorderedElementsAre("identities", "identities.damaged-1"));
}

TEST_F(VmIdsTest, RecogniseADamagedFile) {
    int number = 0;
    for (const std::string& text : std::vector<std::string>{
             heading + "next 3000\n1000 " + a + "\n1000 " + b + "\n",
             heading + "next 3000\n1000 " + a + "\n2000 " + a + "\n", heading + "next 1000\n1000 " + a + "\n",
             heading + "1000 " + a + "\n", heading + "next 2000\n-5 " + a + "\n",
             heading + "next 2000\n1000 0000000000000-4000-8000-00000000000a\n", "other heading\nnext 1000\n",
             ""}) {
        StartWith(text);
        EXPECT_EQ(ReadAll(path / ("identities.damaged-" + std::to_string(++number))), text);
    }
}

}  // namespace
}  // namespace Vessad::Libvirt
