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
using ::testing::HasSubstr;
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
    TicketOptions Options(const std::string& name = "tickets") const {
        TicketOptions options;
        options.directory = directory.GetPath() / name;
        return options;
    }

    std::string MistakeWith(const TicketOptions& options) {
        try {
            const TicketStore store(options, io.get_executor());
        } catch (const std::exception& error) {
            return error.what();
        }
        return "none";
    }

    VessadTest::TemporaryDirectory directory;
    boost::asio::io_context io;
};

TEST_F(TicketStoreTest, MakesFilesThatOnlyTheirUserCanRead) {
    const mode_t before = ::umask(0);
    TicketStore store(Options(), io.get_executor());
    const fs::path file = store.Issue(1);
    ::umask(before);
    const struct stat status = StatusOf(file);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & permissions, 0600U);
    EXPECT_EQ(status.st_uid, ::geteuid());
    EXPECT_EQ(status.st_nlink, 1U);
    EXPECT_EQ(StatusOf(Options().directory).st_mode & permissions, 0711U);
}

TEST_F(TicketStoreTest, LetsTheConfiguredGroupReadThem) {
    TicketOptions options = Options();
    const group* own = ::getgrgid(::getegid());
    ASSERT_NE(own, nullptr);
    options.group = own->gr_name;
    TicketStore store(options, io.get_executor());
    const struct stat status = StatusOf(store.Issue(1));
    EXPECT_EQ(status.st_mode & permissions, 0640U);
    EXPECT_EQ(status.st_gid, ::getegid());
    EXPECT_EQ(StatusOf(options.directory).st_mode & permissions, 0750U);
    EXPECT_EQ(StatusOf(options.directory).st_gid, ::getegid());
}

TEST_F(TicketStoreTest, GivesTheFilesToAGroupThatIsNotItsOwn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may give files to any group";
    }
    TicketOptions options = Options();
    options.group = "daemon";
    const group* other = ::getgrnam("daemon");
    if (other == nullptr) {
        GTEST_SKIP() << "there is no group daemon";
    }
    const gid_t id = other->gr_gid;
    TicketStore store(options, io.get_executor());
    EXPECT_EQ(StatusOf(store.Issue(1)).st_gid, id);
    EXPECT_EQ(StatusOf(options.directory).st_gid, id);
}

TEST_F(TicketStoreTest, GivesEveryTicketANameAndAPasswordOfItsOwn) {
    TicketStore store(Options(), io.get_executor());
    std::set<std::string> names;
    std::set<std::string> passwords;
    for (std::uint64_t owner = 0; owner < 100; ++owner) {
        const fs::path file = store.Issue(owner);
        names.insert(file.filename());
        passwords.insert(ReadAll(file));
    }
    EXPECT_EQ(names.size(), 100U);
    EXPECT_EQ(passwords.size(), 100U);
    for (const std::string& password : passwords) {
        EXPECT_EQ(password.size(), 64U);  // 256 bits, and no line end
        EXPECT_EQ(password.find_first_not_of("0123456789abcdef"), std::string::npos);
    }
    EXPECT_EQ(FilesIn(Options().directory).size(), 100U);
}

TEST_F(TicketStoreTest, TakesATicketOnce) {
    TicketStore store(Options(), io.get_executor());
    const std::string password = ReadAll(store.Issue(1));
    EXPECT_TRUE(store.Redeem(1, password));
    EXPECT_TRUE(FilesIn(Options().directory).empty());
    EXPECT_FALSE(store.Redeem(1, password));
}

TEST_F(TicketStoreTest, UsesATicketUpByAnyAttempt) {
    TicketStore store(Options(), io.get_executor());
    const std::string password = ReadAll(store.Issue(1));
    std::string other = password;
    other.back() = other.back() == '0' ? '1' : '0';
    EXPECT_FALSE(store.Redeem(1, other));
    EXPECT_TRUE(FilesIn(Options().directory).empty());
    EXPECT_FALSE(store.Redeem(1, password));
    for (const std::string& wrong :
         {std::string(), password.substr(1), password + "\n", password + password}) {
        store.Issue(1);
        EXPECT_FALSE(store.Redeem(1, wrong));
    }
}

TEST_F(TicketStoreTest, TakesATicketFromItsOwnConnectionOnly) {
    TicketStore store(Options(), io.get_executor());
    const std::string password = ReadAll(store.Issue(1));
    EXPECT_FALSE(store.Redeem(2, password));
    EXPECT_EQ(FilesIn(Options().directory).size(), 1U);
    EXPECT_TRUE(store.Redeem(1, password));
}

TEST_F(TicketStoreTest, LetsExactlyOneOfManyAttemptsWin) {
    TicketStore store(Options(), io.get_executor());
    for (int round = 0; round < 50; ++round) {
        const std::string password = ReadAll(store.Issue(1));
        std::atomic<int> winners{0};
        std::vector<std::thread> attempts;
        constexpr std::size_t attemptCount = 4;
        attempts.reserve(attemptCount);
        while (attempts.size() < attemptCount) {
            attempts.emplace_back([&] { winners += store.Redeem(1, password) ? 1 : 0; });
        }
        for (std::thread& attempt : attempts) {
            attempt.join();
        }
        ASSERT_EQ(winners, 1);
    }
}

TEST_F(TicketStoreTest, ReplacesAConnectionsEarlierTicket) {
    TicketStore store(Options(), io.get_executor());
    const std::string first = ReadAll(store.Issue(1));
    const fs::path second = store.Issue(1);
    EXPECT_THAT(FilesIn(Options().directory), ::testing::ElementsAre(second.filename().string()));
    EXPECT_EQ(store.Count(), 1U);
    EXPECT_FALSE(store.Redeem(1, first));
}

TEST_F(TicketStoreTest, RemovesATicketWhenItExpires) {
    TicketOptions options = Options();
    options.life = 50ms;
    TicketStore store(options, io.get_executor());
    const std::string first = ReadAll(store.Issue(1));
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(store.Redeem(1, first));  // whether or not its file has gone yet
    store.Issue(2);
    std::this_thread::sleep_for(20ms);
    store.Issue(3);
    io.run();  // ends when no ticket is left to expire
    EXPECT_TRUE(FilesIn(options.directory).empty());
    EXPECT_EQ(store.Count(), 0U);
}

TEST_F(TicketStoreTest, RemovesTheTicketOfAConnectionThatEnds) {
    TicketStore store(Options(), io.get_executor());
    store.Issue(1);
    const fs::path kept = store.Issue(2);
    store.Drop(1);
    store.Drop(3);
    EXPECT_THAT(FilesIn(Options().directory), ::testing::ElementsAre(kept.filename().string()));
}

TEST_F(TicketStoreTest, RemovesEveryTicketAtTheEndAndMakesNoMore) {
    TicketStore store(Options(), io.get_executor());
    const std::string password = ReadAll(store.Issue(1));
    store.Issue(2);
    store.Close();
    EXPECT_TRUE(FilesIn(Options().directory).empty());
    EXPECT_FALSE(store.Redeem(1, password));
    EXPECT_THROW(store.Issue(3), std::system_error);
    EXPECT_TRUE(FilesIn(Options().directory).empty());
}

TEST_F(TicketStoreTest, RemovesWhatAKilledDaemonLeft) {
    const fs::path place = Options().directory;
    fs::create_directory(place);
    fs::permissions(place, fs::perms::owner_all);
    const std::string stale = "ticket-" + std::string(32, 'a');
    WriteAll(place / stale, "password");
    WriteAll(place / "notes", "kept");
    WriteAll(place / "ticket-short", "kept");
    const VessadTest::LogLines log;
    TicketStore store(Options(), io.get_executor());
    EXPECT_THAT(FilesIn(place), ::testing::UnorderedElementsAre("notes", "ticket-short"));
    EXPECT_THAT(log.GetText(), HasSubstr("Removed 1 tickets that an earlier daemon left behind"));
}

TEST_F(TicketStoreTest, RefusesADirectoryThatOthersCanWriteTo) {
    const fs::path place = Options().directory;
    fs::create_directory(place);
    for (const mode_t mode : {0777U, 01777U, 0722U, 0770U}) {
        ASSERT_EQ(::chmod(place.c_str(), mode), 0);
        EXPECT_THAT(MistakeWith(Options()), HasSubstr("others can write to the ticket directory"));
    }
}

TEST_F(TicketStoreTest, RefusesADirectoryOfSomebodyElse) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    const fs::path place = Options().directory;
    fs::create_directory(place);
    ASSERT_EQ(::chown(place.c_str(), 65534, 65534), 0);
    EXPECT_THAT(MistakeWith(Options()), HasSubstr("belongs to somebody else"));
}

TEST_F(TicketStoreTest, RefusesWhatIsNoDirectoryOfItsOwn) {
    WriteAll(directory.GetPath() / "file", "");
    EXPECT_THAT(MistakeWith(Options("file")), HasSubstr("cannot open the ticket directory"));
    fs::create_directory_symlink(directory.GetPath(), directory.GetPath() / "link");
    EXPECT_THAT(MistakeWith(Options("link")), HasSubstr("cannot open the ticket directory"));
    EXPECT_THAT(MistakeWith(Options("a/b")), HasSubstr("cannot make the ticket directory"));
}

TEST_F(TicketStoreTest, RefusesAGroupThatDoesNotExistOrCannotReachTheFiles) {
    TicketOptions options = Options();
    options.group = "no-such-group-here";
    EXPECT_EQ(MistakeWith(options), "there is no group no-such-group-here");
    options.group = ::getgrgid(::getegid())->gr_name;
    fs::create_directory(options.directory);
    fs::permissions(options.directory, fs::perms::owner_all);
    EXPECT_THAT(MistakeWith(options), HasSubstr("cannot reach files in the ticket directory"));
}

// Lets no file grow beyond `size` bytes, as a full disk does.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t size) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit{size, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &before); }

  private:
    rlimit before{};
};

TEST_F(TicketStoreTest, LeavesNothingBehindWhenTheDiskIsFull) {
    TicketStore store(Options(), io.get_executor());
    for (const rlim_t size : {0U, 10U, 63U}) {
        const FileSizeLimit full(size);
        EXPECT_THROW(store.Issue(1), std::system_error);
        EXPECT_TRUE(FilesIn(Options().directory).empty());
        EXPECT_EQ(store.Count(), 0U);
    }
    EXPECT_TRUE(store.Redeem(1, ReadAll(store.Issue(1))));
}

}  // namespace
}  // namespace Vessad
