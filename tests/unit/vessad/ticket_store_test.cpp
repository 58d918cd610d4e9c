#include "apps/vessad/TicketStore.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;
using VessadTest::FilesIn;
using VessadTest::ReadAll;

// Returns type and mode, owner and group of a file, which must have no second name.
std::string Describe(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    EXPECT_TRUE(S_ISDIR(status.st_mode) || status.st_nlink == 1);
    std::ostringstream text;
    text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ' ' << status.st_gid;
    return text.str();
}

class TicketStoreTest : public ::testing::Test {
  protected:
    TicketStore& Store() {
        if (!store) {
            store.emplace(options, io.get_executor());
        }
        return *store;
    }
    std::string IssuePassword(std::uint64_t owner) { return ReadAll(Store().Issue(owner)); }
    std::vector<std::string> Files() const { return FilesIn(options.directory); }

    VessadTest::TemporaryDirectory directory;
    TicketOptions options{directory.GetPath() / "tickets", ""};
    boost::asio::io_context io;
    std::optional<TicketStore> store;
};

TEST_F(TicketStoreTest, CreatesFilesThatOnlyTheUserCanRead) {
    const mode_t before = ::umask(0);
    const fs::path file = Store().Issue(1);
    ::umask(before);
    const std::string owner = " " + std::to_string(::geteuid()) + " " + std::to_string(::getegid());
    EXPECT_EQ(Describe(file), "100600" + owner);
    EXPECT_EQ(Describe(options.directory), "40711" + owner);
}

TEST_F(TicketStoreTest, LetsTheConfiguredGroupReadThem) {
    // Only root may give files to a group that is not its own.
    const group* reader = ::geteuid() == 0 ? ::getgrnam("daemon") : ::getgrgid(::getegid());
    ASSERT_NE(reader, nullptr);
    options.group = reader->gr_name;
    const std::string owner = " " + std::to_string(::geteuid()) + " " + std::to_string(reader->gr_gid);
    EXPECT_EQ(Describe(Store().Issue(1)), "100640" + owner);
    EXPECT_EQ(Describe(options.directory), "40750" + owner);
}

TEST_F(TicketStoreTest, IssuesTicketsOfDistinctNamesAndPasswords) {
    std::set<std::string> passwords;
    for (std::uint64_t owner = 0; owner < 100; ++owner) {
        passwords.insert(IssuePassword(owner));
    }
    EXPECT_EQ(Files().size(), 100U);
    EXPECT_EQ(passwords.size(), 100U);
    // 256 bits, and no line end.
    EXPECT_THAT(passwords, ::testing::Each(::testing::MatchesRegex("[0-9a-f]{64}")));
}

TEST_F(TicketStoreTest, RedeemsATicketOnceAndForItsOwnerOnly) {
    const std::string password = IssuePassword(1);
    EXPECT_FALSE(Store().Redeem(2, password));
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_TRUE(Store().Redeem(1, password));
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_FALSE(Store().Redeem(1, password));
}

TEST_F(TicketStoreTest, RemovesATicketOnAnyAttempt) {
    const std::string password = IssuePassword(1);
    std::string other = password;
    other.back() = other.back() == '0' ? '1' : '0';
    EXPECT_FALSE(Store().Redeem(1, other));
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_FALSE(Store().Redeem(1, password));
    for (const bool shorter : {false, true}) {
        const std::string valid = IssuePassword(1);
        EXPECT_FALSE(Store().Redeem(1, shorter ? valid.substr(1) : valid + "\n"));
    }
    Store().Issue(1);
    EXPECT_FALSE(Store().Redeem(1, ""));
}

TEST_F(TicketStoreTest, ReplacesTheOwnersPreviousTicket) {
    const std::string first = IssuePassword(1);
    const fs::path second = Store().Issue(1);
    EXPECT_THAT(Files(), ElementsAre(second.filename().string()));
    EXPECT_FALSE(Store().Redeem(1, first));
}

TEST_F(TicketStoreTest, RemovesExpiredTickets) {
    options.lifetime = 50ms;
    const std::string first = IssuePassword(1);
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(Store().Redeem(1, first));  // the timer has not run
    Store().Issue(2);
    std::this_thread::sleep_for(20ms);
    Store().Issue(3);
    io.run();  // returns when no ticket is left to expire
    EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(TicketStoreTest, RemovesDroppedTicketsAndAllOnClose) {
    Store().Issue(1);
    const fs::path kept = Store().Issue(2);
    const std::string password = ReadAll(kept);
    Store().Drop(1);
    Store().Drop(3);
    EXPECT_THAT(Files(), ElementsAre(kept.filename().string()));
    Store().Close();
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_FALSE(Store().Redeem(2, password));
    EXPECT_THROW(Store().Issue(3), std::system_error);
    EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(TicketStoreTest, RemovesTheFilesOfAKilledDaemon) {
    const std::string name = "ticket-" + std::string(31, 'a');
    directory.Run("mkdir -m 700 tickets && cd tickets && touch notes ticket-short " + name + "x " + name +
                  "0");
    const VessadTest::LogLines log;
    Store();
    EXPECT_THAT(Files(), ::testing::UnorderedElementsAre("notes", "ticket-short", name + "x"));
    EXPECT_EQ(log.GetText(), "warning Removed 1 stale tickets of an earlier daemon\n");
}

TEST_F(TicketStoreTest, RejectsADirectoryThatIsNotPrivateOrWithoutItsGroup) {
    const std::string group = ::getgrgid(::getegid())->gr_name;
    const std::string named = "the ticket directory " + options.directory.string();
    for (const auto& [commands, readers, reason] : std::vector<std::array<std::string, 3>>{
             {"mkdir tickets && chmod 0777 tickets", "", named + " is writable by others"},
             {"mkdir tickets && chmod 1777 tickets", "", named + " is writable by others"},
             {"mkdir tickets && chmod 0722 tickets", "", named + " is writable by others"},
             {"mkdir tickets && chmod 0770 tickets", "", named + " is writable by others"},
             {"mkdir tickets && chown 65534:65534 tickets", "", named + " belongs to another user"},
             {"touch tickets", "", "cannot open " + named},
             {"mkdir real && ln -s real tickets", "", "cannot open " + named},
             {"mkdir -m 700 tickets", group, "cannot reach files in " + named},
             {"true", "no-such-group-here", "there is no group no-such-group-here"}}) {
        if (commands.find("chown") != std::string::npos && ::geteuid() != 0) {
            continue;
        }
        directory.Run("rm -rf tickets && " + commands);
        options.group = readers;
        EXPECT_THAT([this] { Store(); }, ThrowsMessage<std::exception>(HasSubstr(reason))) << commands;
    }
    options = {directory.GetPath() / "missing/tickets", ""};
    EXPECT_THAT([this] { Store(); },
                ThrowsMessage<std::exception>(HasSubstr("cannot create the ticket dir")));
}

TEST_F(TicketStoreTest, LeavesNothingThatItsGroupCannotRead) {
    directory.Run("chmod 777 .");
    const uid_t user = ::geteuid();
    if (user == 0) {
        ASSERT_EQ(::seteuid(65534), 0);  // who is not in the group
    }
    options.group = "daemon";
    EXPECT_THAT([this] { Store(); },
                ThrowsMessage<std::exception>(HasSubstr("cannot set group and mode of ")));
    EXPECT_TRUE(fs::create_directory(options.directory));
    EXPECT_THAT([this] { Store().Issue(1); },
                ThrowsMessage<std::exception>(HasSubstr("cannot set the group of a ticket file")));
    EXPECT_THAT(Files(), IsEmpty());
    ASSERT_EQ(::seteuid(user), 0);
}

TEST_F(TicketStoreTest, LogsThatAFileCannotBeRemovedUnlessItIsGone) {
    const VessadTest::LogLines log;
    fs::remove(Store().Issue(1));
    Store().Drop(1);
    const fs::path file = Store().Issue(2);
    fs::remove(file);
    fs::create_directory(file);
    Store().Drop(2);
    EXPECT_EQ(log.GetText(),
              "warning Cannot remove ticket file " + file.filename().string() + ": Is a directory\n");
}

TEST_F(TicketStoreTest, LeavesNoFileWhenTheDiskIsFull) {
    Store();
    for (const rlim_t size : {0U, 10U, 63U}) {
        const VessadTest::FullDisk full(size);
        EXPECT_THROW(Store().Issue(1), std::system_error);
        EXPECT_THAT(Files(), IsEmpty());
    }
    EXPECT_TRUE(Store().Redeem(1, IssuePassword(1)));
}

}  // namespace
}  // namespace Vessad
