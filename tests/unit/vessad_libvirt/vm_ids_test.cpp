#include "apps/vessad/backends/libvirt/VmIds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

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
const std::string heading = "tovric-vessad identities 2\n";
const std::string oldHeading = "tovric-vessad identities 1\n";

class VmIdsTest : public testing::Test {
  protected:
    // Returns the ids of a, b and c.
    std::vector<int> Ids() const { return {ids->Find(a), ids->Find(b), ids->Find(c)}; }
    void Restart() {
        ids.reset();
        ids = std::make_unique<VmIds>(path, options);
    }
    void StartWith(const std::string& text) {
        ids.reset();
        WriteAll(file, text);
        Restart();
    }
    void PassDays(int days) { now += std::chrono::days(days); }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    const std::filesystem::path path = directory.GetPath() / "state" / "vessad";
    const std::filesystem::path file = path / "identities";
    const std::filesystem::path damaged = path / "identities.damaged-1";
    // A directory of this name keeps the file from being replaced, also by root.
    const std::filesystem::path obstacle = path / "identities.new";
    std::chrono::sys_days now{std::chrono::days(20000)};
    VmIdsOptions options{.now = [this] { return now; }};
    // In an optional, g++ 16 takes it for uninitialized.
    std::unique_ptr<VmIds> ids = std::make_unique<VmIds>(path, options);
};

TEST_F(VmIdsTest, AreAssignedInOrderAndKeptInATextThatOnlyTheOwnerReads) {
    ids->Admit({a, b});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0));
    EXPECT_EQ(ReadAll(file), heading + "next 1000\n1000 " + a + " 20000\n2000 " + b + " 20000\n");
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
    {
        const VessadTest::FullDisk full(ReadAll(file).size());
        Restart();
        ids->Admit({a});
        EXPECT_THAT(log.GetText(), IsEmpty()) << "known VMs need no write";
        PassDays(1);
        ids->Admit({a});
        ids->Admit({a});
        EXPECT_EQ(log.Count("error VM ids are not saved: cannot write " + file.string()), 1);
        EXPECT_EQ(log.Count("; known VMs keep theirs"), 1);
        ids->Admit({a, b});
        ids->Admit({a, b, c});
        EXPECT_THAT(Ids(), ElementsAre(1000, 0, 0));
        EXPECT_EQ(log.Count("error VM ids are not saved: cannot write " + file.string()), 2);
        EXPECT_EQ(log.Count("; 1 new VMs stay hidden until they are"), 1);
    }
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
    const std::string text = oldHeading + "next 7000\n1000 " + a + "\n2000 0000\n3000 " + b;
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
    const std::string text = oldHeading + "next 7000\n5000 " + a + "\nrubbish\n";
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
    StartWith(oldHeading + "next 2147483000\n");
    ids->Admit({a, b});
    EXPECT_THAT(log.GetText(), HasSubstr("No VM id is left"));
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(2147483000, 0, 0));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("damaged")));
    StartWith(oldHeading + "next 2147483000\nrubbish\n");
    ids->Admit({a});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(0, 0, 0));
    EXPECT_THAT(FilesIn(path), UnorderedElementsAre("identities", "identities.damaged-1"));
}

TEST_F(VmIdsTest, RecogniseADamagedFile) {
    const std::vector<std::string> texts = {
        oldHeading + "next 3000\n1000 " + a + "\n1000 " + b + "\n",
        oldHeading + "next 3000\n1000 " + a + "\n2000 " + a + "\n",
        oldHeading + "next 1000\n1000 " + a + "\n",
        oldHeading + "1000 " + a + "\n",
        oldHeading + "next 2000\n-5 " + a + "\n",
        oldHeading + "next 2000\n1000 0000000000000-4000-8000-00000000000a\n",
        heading + "next 3000\n1000 " + a + " 1\n1000 " + b + " 1\n",
        heading + "next 3000\n1000 " + a + " 1\n2000 " + a + " 1\n",
        heading + "next 2000\n1000 " + a + "\n",
        heading + "next 2000\n1000 " + a + " 0\n",
        heading + "1000 " + a + " 1\n",
        "other heading\nnext 1000\n",
        ""};
    int number = 0;
    for (const std::string& text : texts) {
        StartWith(text);
        EXPECT_EQ(ReadAll(path / ("identities.damaged-" + std::to_string(++number))), text);
    }
}

TEST_F(VmIdsTest, AreAppendedToTheFile) {
    std::filesystem::create_directory(obstacle);
    ids->Admit({a});
    ids->Admit({a, b});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0));
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(VmIdsTest, ReplaceAFileThatSomebodyElseHasWritten) {
    WriteAll(file, "rubbish");
    ids->Admit({a});
    EXPECT_EQ(ReadAll(file), heading + "next 2000\n1000 " + a + " 20000\n");
}

// As after a crash of the system in the middle of a write.
TEST_F(VmIdsTest, LoseNothingButAnIncompleteLastLine) {
    const std::string first = heading + "next 1000\n1000 " + a + " 20000\n";
    const std::string whole = first + "2000 " + b + " 20000\n";
    for (std::size_t size = first.size() + 1; size < whole.size(); ++size) {
        StartWith(whole.substr(0, size));
        EXPECT_THAT(Ids(), ElementsAre(1000, 0, 0));
        EXPECT_EQ(ReadAll(file).size(), size) << "no write is needed";
        ids->Admit({a, c});
        Restart();
        EXPECT_THAT(Ids(), ElementsAre(1000, 0, 2000));
    }
    EXPECT_EQ(log.Count("warning The last line of " + file.string() + " is incomplete and ignored\n"),
              whole.size() - first.size() - 1);
    EXPECT_THAT(FilesIn(path), ElementsAre("identities"));
}

TEST_F(VmIdsTest, OfAFileWithoutDaysCountAsSeenToday) {
    StartWith(oldHeading + "next 7000\n1000 " + a + "\n2000 " + b + "\n");
    ids->Admit({b});
    EXPECT_EQ(ReadAll(file), heading + "next 7000\n1000 " + a + " 20000\n2000 " + b + " 20000\n");
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(VmIdsTest, OfVmsThatAreGoneForLongAreForgottenAndNotAssignedAgain) {
    ids->Admit({a, b});
    PassDays(300);
    ids->Admit({b});
    PassDays(100);
    Restart();
    ids->Admit({c});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 3000));
    EXPECT_THAT(log.GetText(), IsEmpty());
    PassDays(300);
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 3000)) << "nothing is forgotten before the VMs are seen";
    ids->Admit({c});
    EXPECT_THAT(Ids(), ElementsAre(0, 2000, 3000));
    PassDays(101);
    ids->Admit({});
    EXPECT_EQ(ReadAll(file), heading + "next 4000\n3000 " + c + " 20700\n");
    PassDays(1000);
    ids->Admit({a});
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(4000, 0, 0));
    const std::string forgotten =
        "info 1 VMs that were not seen for 400 days are forgotten, their ids are not assigned again\n";
    EXPECT_EQ(log.GetText(), forgotten + forgotten + forgotten);
}

TEST_F(VmIdsTest, OfVmsThatAreGoneAreKeptWhereThatIsWanted) {
    options.forgetAfter = std::chrono::days(0);
    Restart();
    ids->Admit({a});
    PassDays(50000);
    ids->Admit({b});
    EXPECT_THAT(Ids(), ElementsAre(1000, 2000, 0));
}

TEST_F(VmIdsTest, AreKeptInAFileThatStaysShort) {
    for (int day = 0; day < 250; ++day) {
        ids->Admit({a});
        const std::string text = ReadAll(file);
        EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 2 + 102);
        PassDays(1);
    }
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(1000, 0, 0));
    EXPECT_EQ(ReadAll(file).substr(0, 37), heading + "next 2000\n");
}

}  // namespace
}  // namespace Vessad::Libvirt
