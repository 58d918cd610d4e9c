#include "apps/vessad/backends/libvirt/VmIds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <optional>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using VessadTest::FilesIn;
using VessadTest::ReadAll;
using VessadTest::WriteAll;

const std::string a = "00000000-0000-4000-8000-00000000000a";
const std::string b = "00000000-0000-4000-8000-00000000000b";
const std::string c = "00000000-0000-4000-8000-00000000000c";

class IdentitiesTest : public testing::Test {
  protected:
    std::filesystem::path File() const { return directory.GetPath() / "identities"; }

    // What the next daemon finds.
    std::int32_t FindAfterRestart(std::optional<VmIds>& vmIds, const std::string& uuid) const {
        vmIds.reset();
        vmIds.emplace(directory.GetPath());
        return vmIds->Find(uuid);
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
};

TEST_F(IdentitiesTest, AreGivenInTheOrderOfAskingFarEnoughApartForVirtualCpus) {
    VmIds vmIds(directory.GetPath());
    vmIds.Admit({b, a});
    EXPECT_EQ(vmIds.Find(b), 1000);
    EXPECT_EQ(vmIds.Find(a), 2000);
    EXPECT_EQ(vmIds.Find(c), 0);
}

TEST_F(IdentitiesTest, StayTheSameAfterARestart) {
    VmIds(directory.GetPath()).Admit({a, b});
    VmIds vmIds(directory.GetPath());
    EXPECT_EQ(vmIds.Find(a), 1000);
    EXPECT_EQ(vmIds.Find(b), 2000);
    vmIds.Admit({c, b, a});
    EXPECT_EQ(vmIds.Find(a), 1000);
    EXPECT_EQ(vmIds.Find(c), 3000);
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(IdentitiesTest, OfAMachineThatHasGoneAreNeverGivenToAnother) {
    std::optional<VmIds> vmIds(directory.GetPath());
    vmIds->Admit({a, b});
    vmIds->Admit({});
    vmIds->Admit({c});
    EXPECT_EQ(vmIds->Find(c), 3000);
    const std::string d = "00000000-0000-4000-8000-00000000000d";
    EXPECT_EQ(FindAfterRestart(vmIds, c), 3000);
    vmIds->Admit({d});
    EXPECT_EQ(vmIds->Find(d), 4000);
    vmIds->Admit({b, d});
    EXPECT_EQ(vmIds->Find(b), 2000) << "it came back";
}

TEST_F(IdentitiesTest, AreWrittenAsTextThatOnlyTheOwnerReads) {
    VmIds(directory.GetPath()).Admit({a});
    EXPECT_EQ(ReadAll(File()), "tovric-vessad identities 1\nnext 2000\n1000 " + a + "\n");
    struct stat status {};
    ASSERT_EQ(::stat(File().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(IdentitiesTest, MakeTheirDirectory) {
    const auto below = directory.GetPath() / "state" / "vessad";
    VmIds(below).Admit({a});
    EXPECT_EQ(VmIds(below).Find(a), 1000);
}

TEST_F(IdentitiesTest, RefuseADirectoryThatIsAFile) {
    WriteAll(directory.GetPath() / "file", "");
    EXPECT_THROW(VmIds(directory.GetPath() / "file"), std::runtime_error);
}

TEST_F(IdentitiesTest, RefuseAFileThatCannotBeRead) {
    std::filesystem::create_directory(File());
    EXPECT_THROW(VmIds(directory.GetPath()), std::runtime_error);
}

// A directory in the way of the new file makes every write fail, also as root.
TEST_F(IdentitiesTest, ShowNoNumberThatIsNotSafeAndTryAgain) {
    std::optional<VmIds> vmIds(directory.GetPath());
    vmIds->Admit({a});
    const auto obstacle = directory.GetPath() / "identities.new";
    std::filesystem::create_directory(obstacle);
    vmIds->Admit({a, b});
    vmIds->Admit({a, b, c});
    EXPECT_EQ(vmIds->Find(a), 1000);
    EXPECT_EQ(vmIds->Find(b), 0);
    EXPECT_EQ(vmIds->Find(c), 0);
    EXPECT_THAT(log.GetText(), HasSubstr("error VM ids are not saved: cannot write " + obstacle.string()));
    EXPECT_EQ(log.GetText().find("cannot write"), log.GetText().rfind("cannot write")) << "told once";

    std::filesystem::remove(obstacle);
    vmIds->Admit({a, b});
    EXPECT_EQ(vmIds->Find(b), 2000);
    EXPECT_EQ(FindAfterRestart(vmIds, b), 2000);
}

TEST_F(IdentitiesTest, OfKnownMachinesNeedNoWrite) {
    VmIds(directory.GetPath()).Admit({a});
    const auto obstacle = directory.GetPath() / "identities.new";
    std::filesystem::create_directory(obstacle);
    VmIds vmIds(directory.GetPath());
    vmIds.Admit({a});
    EXPECT_EQ(vmIds.Find(a), 1000);
    EXPECT_THAT(log.GetText(), IsEmpty());
    vmIds.Admit({a, b});
    EXPECT_EQ(vmIds.Find(b), 0);
    EXPECT_THAT(log.GetText(), HasSubstr("; 1 new VMs stay hidden until they are"));
}

TEST_F(IdentitiesTest, KeepTheOldFileWhileTheDiskIsFull) {
    std::optional<VmIds> vmIds(directory.GetPath());
    vmIds->Admit({a});
    const std::string before = ReadAll(File());

    // A write that stops in the middle, as on a full disk.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{before.size() + 5, limit.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    vmIds->Admit({a, b});
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::signal(SIGXFSZ, handler);

    EXPECT_EQ(ReadAll(File()), before);
    EXPECT_EQ(vmIds->Find(a), 1000);
    EXPECT_EQ(vmIds->Find(b), 0);
    EXPECT_THAT(log.GetText(), HasSubstr("error VM ids are not saved: cannot write "));
    vmIds->Admit({a, b});
    EXPECT_EQ(FindAfterRestart(vmIds, b), 2000);
}

TEST_F(IdentitiesTest, AreOneDaemonsAtATime) {
    std::optional<VmIds> first(directory.GetPath());
    try {
        VmIds second(directory.GetPath());
        ADD_FAILURE() << "the directory is shared";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("is in use by another daemon"));
    }
    first.reset();
    EXPECT_NO_THROW(VmIds(directory.GetPath()));
}

TEST_F(IdentitiesTest, OfADamagedFileAreTakenOverAsFarAsTheyCanBeReadAndTheFileIsKept) {
    const std::string damaged = "tovric-vessad identities 1\nnext 7000\n1000 " + a + "\n2000 0000\n3000 " + b;
    WriteAll(File(), damaged);
    std::optional<VmIds> vmIds(directory.GetPath());
    EXPECT_EQ(ReadAll(directory.GetPath() / "identities.damaged-1"), damaged);
    EXPECT_EQ(vmIds->Find(a), 1000);
    EXPECT_EQ(vmIds->Find(b), 3000);
    vmIds->Admit({c});
    EXPECT_EQ(vmIds->Find(c), 1007000);
    EXPECT_THAT(log.GetText(), HasSubstr("error The damaged " + File().string() + " is kept as " +
                                         File().string() + ".damaged-1: 2 VMs keep their ids"));
    EXPECT_EQ(FindAfterRestart(vmIds, c), 1007000);
}

TEST_F(IdentitiesTest, LeaveADamagedFileInItsPlaceUntilASoundOneTakesIt) {
    const std::string damaged = "tovric-vessad identities 1\nnext 7000\n5000 " + a + "\nrubbish\n";
    WriteAll(File(), damaged);
    const auto obstacle = directory.GetPath() / "identities.new";
    std::filesystem::create_directory(obstacle);
    EXPECT_THROW(VmIds(directory.GetPath()), std::runtime_error);
    EXPECT_EQ(ReadAll(File()), damaged);
    EXPECT_THAT(FilesIn(directory.GetPath()), UnorderedElementsAre("identities", "identities.new"));
    std::filesystem::remove(obstacle);
    EXPECT_EQ(VmIds(directory.GetPath()).Find(a), 5000);
    EXPECT_EQ(ReadAll(directory.GetPath() / "identities.damaged-1"), damaged);
}

TEST_F(IdentitiesTest, StaySoundWhenTheNumbersBehindADamagedFileRunOut) {
    WriteAll(File(), "tovric-vessad identities 1\nnext 2147483000\nrubbish\n");
    VmIds(directory.GetPath()).Admit({a});
    EXPECT_EQ(VmIds(directory.GetPath()).Find(a), 0);
    EXPECT_THAT(FilesIn(directory.GetPath()), UnorderedElementsAre("identities", "identities.damaged-1"));
}

TEST_F(IdentitiesTest, NeverOverwriteADamagedFileThatIsKept) {
    for (const char* const damaged : {"first", "second"}) {
        WriteAll(File(), damaged);
        const VmIds started(directory.GetPath());
    }
    EXPECT_EQ(ReadAll(directory.GetPath() / "identities.damaged-1"), "first");
    EXPECT_EQ(ReadAll(directory.GetPath() / "identities.damaged-2"), "second");
    EXPECT_THAT(FilesIn(directory.GetPath()),
                UnorderedElementsAre("identities", "identities.damaged-1", "identities.damaged-2"));
}

TEST_F(IdentitiesTest, AreSoundOnlyWithoutRepetitions) {
    const std::string head = "tovric-vessad identities 1\n";
    const std::vector<std::string> texts{head + "next 3000\n1000 " + a + "\n1000 " + b + "\n",
                                         head + "next 3000\n1000 " + a + "\n2000 " + a + "\n",
                                         head + "next 1000\n1000 " + a + "\n",
                                         head + "1000 " + a + "\n",
                                         head + "next 2000\n-5 " + a + "\n",
                                         head + "next 2000\n1000 0000000000000-4000-8000-00000000000a\n",
                                         "other heading\nnext 1000\n",
                                         ""};
    for (const std::string& text : texts) {
        const VessadTest::LogLines own;
        const VessadTest::TemporaryDirectory fresh;
        WriteAll(fresh.GetPath() / "identities", text);
        VmIds vmIds(fresh.GetPath());
        EXPECT_THAT(own.GetText(), HasSubstr("The damaged")) << text;
        EXPECT_EQ(ReadAll(fresh.GetPath() / "identities.damaged-1"), text);
    }
}

TEST_F(IdentitiesTest, EndWithTheLargestNumberThatAnAgentCanShow) {
    WriteAll(File(), "tovric-vessad identities 1\nnext 2147483000\n");
    std::optional<VmIds> vmIds(directory.GetPath());
    vmIds->Admit({a, b});
    EXPECT_EQ(vmIds->Find(a), 2147483000);
    EXPECT_EQ(vmIds->Find(b), 0);
    EXPECT_THAT(log.GetText(), HasSubstr("No VM id is left"));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("damaged")));
    EXPECT_EQ(FindAfterRestart(vmIds, a), 2147483000);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("damaged")));
}

}  // namespace
}  // namespace Vessad::Libvirt
