#include "apps/vessad/TicketStore.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <set>
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
using VessadTest::FilesIn;
using VessadTest::ReadAll;
using VessadTest::WriteAll;

constexpr mode_t permissions = 07777;

struct stat StatusOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

class TicketStoreTest : public ::testing::Test {
  protected:
    TicketStore& Store() {
        if (!store) {
            store.emplace(options, io.get_executor());
        }
        return *store;
    }

    std::vector<std::string> Files() const { return FilesIn(options.directory); }

    void ExpectRefusal(const std::string& mistake) {
        EXPECT_THAT([this] { Store(); }, ::testing::ThrowsMessage<std::exception>(HasSubstr(mistake)));
    }

    VessadTest::TemporaryDirectory directory;
    TicketOptions options{directory.GetPath() / "tickets", ""};
    boost::asio::io_context io;
    std::optional<TicketStore> store;
};

TEST_F(TicketStoreTest, CreatesFilesThatOnlyTheUserCanRead) {
    const mode_t before = ::umask(0);
    const fs::path file = Store().Issue(1);
    ::umask(before);
    const struct stat status = StatusOf(file);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & permissions, 0600U);
    EXPECT_EQ(status.st_uid, ::geteuid());
    EXPECT_EQ(status.st_nlink, 1U);
    EXPECT_EQ(StatusOf(options.directory).st_mode & permissions, 0711U);
}

TEST_F(TicketStoreTest, LetsTheConfiguredGroupReadThem) {
    // Only root may give files to a group that is not its own.
    const group* reader = ::geteuid() == 0 ? ::getgrnam("daemon") : ::getgrgid(::getegid());
    ASSERT_NE(reader, nullptr);
    options.group = reader->gr_name;
    const gid_t id = reader->gr_gid;
    const struct stat status = StatusOf(Store().Issue(1));
    EXPECT_EQ(status.st_mode & permissions, 0640U);
    EXPECT_EQ(status.st_gid, id);
    EXPECT_EQ(StatusOf(options.directory).st_mode & permissions, 0750U);
    EXPECT_EQ(StatusOf(options.directory).st_gid, id);
}

TEST_F(TicketStoreTest, IssuesTicketsOfDistinctNamesAndPasswords) {
    std::set<std::string> passwords;
    for (std::uint64_t owner = 0; owner < 100; ++owner) {
        passwords.insert(ReadAll(Store().Issue(owner)));
    }
    EXPECT_EQ(Files().size(), 100U);
    EXPECT_EQ(passwords.size(), 100U);
    // 256 bits, and no line end.
    EXPECT_THAT(passwords, ::testing::Each(::testing::MatchesRegex("[0-9a-f]{64}")));
}

TEST_F(TicketStoreTest, RedeemsATicketOnceAndForItsOwnerOnly) {
    const std::string password = ReadAll(Store().Issue(1));
    EXPECT_FALSE(Store().Redeem(2, password));
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_TRUE(Store().Redeem(1, password));
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_FALSE(Store().Redeem(1, password));
}

TEST_F(TicketStoreTest, RemovesATicketOnAnyAttempt) {
    const std::string password = ReadAll(Store().Issue(1));
    std::string other = password;
    other.back() = other.back() == '0' ? '1' : '0';
    EXPECT_FALSE(Store().Redeem(1, other));
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_FALSE(Store().Redeem(1, password));
    for (const bool shorter : {false, true}) {
        const std::string valid = ReadAll(Store().Issue(1));
        EXPECT_FALSE(Store().Redeem(1, shorter ? valid.substr(1) : valid + "\n"));
    }
    Store().Issue(1);
    EXPECT_FALSE(Store().Redeem(1, ""));
}

TEST_F(TicketStoreTest, LetsExactlyOneOfConcurrentAttemptsSucceed) {
    for (int round = 0; round < 50; ++round) {
        const std::string password = ReadAll(Store().Issue(1));
        std::atomic<int> winners{0};
        std::deque<std::jthread> attempts;
        for (int count = 0; count < 4; ++count) {
            attempts.emplace_back([&] { winners += Store().Redeem(1, password) ? 1 : 0; });
        }
        attempts.clear();
        ASSERT_EQ(winners, 1);
    }
}

TEST_F(TicketStoreTest, ReplacesTheOwnersPreviousTicket) {
    const std::string first = ReadAll(Store().Issue(1));
    const fs::path second = Store().Issue(1);
    EXPECT_THAT(Files(), ElementsAre(second.filename().string()));
    EXPECT_EQ(Store().Count(), 1U);
    EXPECT_FALSE(Store().Redeem(1, first));
}

TEST_F(TicketStoreTest, RemovesExpiredTickets) {
    options.lifetime = 50ms;
    const std::string first = ReadAll(Store().Issue(1));
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(Store().Redeem(1, first));  // the timer has not run
    Store().Issue(2);
    std::this_thread::sleep_for(20ms);
    Store().Issue(3);
    io.run();  // returns when no ticket is left to expire
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_EQ(Store().Count(), 0U);
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
    fs::create_directory(options.directory);
    fs::permissions(options.directory, fs::perms::owner_all);
    for (const std::string& name :
         {"ticket-" + std::string(32, 'a'), std::string("notes"), std::string("ticket-short")}) {
        WriteAll(options.directory / name, "password");
    }
    const VessadTest::LogLines log;
    Store();
    EXPECT_THAT(Files(), ::testing::UnorderedElementsAre("notes", "ticket-short"));
    EXPECT_THAT(log.GetText(), HasSubstr("warning Removed 1 stale tickets of an earlier daemon\n"));
}

TEST_F(TicketStoreTest, RejectsADirectoryThatIsNotPrivate) {
    fs::create_directory(options.directory);
    for (const mode_t mode : {0777U, 01777U, 0722U, 0770U}) {
        ASSERT_EQ(::chmod(options.directory.c_str(), mode), 0);
        ExpectRefusal("the ticket directory " + options.directory.string() + " is writable by others");
    }
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(options.directory.c_str(), 65534, 65534), 0);
        ExpectRefusal(" belongs to another user");
    }
}

TEST_F(TicketStoreTest, RejectsWhatIsNoDirectory) {
    const fs::path path = directory.GetPath();
    WriteAll(path / "file", "");
    fs::create_directory_symlink(path, path / "link");
    for (const auto& [name, verb] : std::vector<std::pair<std::string, std::string>>{
             {"file", "open"}, {"link", "open"}, {"a/b", "create"}}) {
        options.directory = path / name;
        ExpectRefusal("cannot " + verb + " the ticket directory ");
    }
}

TEST_F(TicketStoreTest, RejectsAGroupThatDoesNotExistOrCannotReachTheFiles) {
    options.group = "no-such-group-here";
    ExpectRefusal("there is no group no-such-group-here");
    options.group = ::getgrgid(::getegid())->gr_name;
    fs::create_directory(options.directory);
    fs::permissions(options.directory, fs::perms::owner_all);
    ExpectRefusal("cannot reach files in the ticket directory");
}

TEST_F(TicketStoreTest, LeavesNoFileWhenTheDiskIsFull) {
    Store();
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    for (const rlim_t size : {0U, 10U, 63U}) {
        const rlimit full{size, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &full);
        EXPECT_THROW(Store().Issue(1), std::system_error);
        ::setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_THAT(Files(), IsEmpty());
        EXPECT_EQ(Store().Count(), 0U);
    }
    EXPECT_TRUE(Store().Redeem(1, ReadAll(Store().Issue(1))));
}

}  // namespace
}  // namespace Vessad
