#include "apps/vessad/ConnectionTable.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <sstream>
#include <string>

namespace Vessad {
namespace {

struct FakeConnection final : ConnectionTable::Entry {
    FakeConnection(std::uint64_t number, std::ostream& log) : number(number), log(log) {}
    void Evict(std::string_view why) override { log << number << ' ' << why << ", "; }

    std::uint64_t number;
    std::ostream& log;
};

// Returns what a table of at most two connections at each stage does when the words of `script` are followed:
// a stage or "remove" with the connections to place there or to remove, "make-room", "close", and "release",
// which ends all connections. "NUMBER REASON" for each eviction, then the number of connections at the
// stages.
std::string Follow(const std::string& script) {
    static const std::map<std::string, Stage> stages{
        {"preamble", Stage::Preamble}, {"login", Stage::Login}, {"session", Stage::Session}};
    ConnectionTable table({.preamble = 2, .login = 2, .session = 2});
    std::ostringstream transcript;
    std::map<std::uint64_t, std::shared_ptr<FakeConnection>> connections;
    std::istringstream words(script);
    std::string command;
    for (std::string word; words >> word;) {
        if (word == "make-room") {
            table.MakeRoom("short");
        } else if (word == "close") {
            table.Close("over");
        } else if (word == "release") {
            connections.clear();
        } else if (std::isdigit(word[0]) == 0) {
            command = word;
        } else if (command == "remove") {
            table.Remove(std::stoull(word));
        } else {
            auto& connection = connections[std::stoull(word)];
            if (!connection) {
                connection = std::make_shared<FakeConnection>(std::stoull(word), transcript);
            }
            table.Place(connection->number, connection, stages.at(command));
        }
    }
    transcript << table.Count(Stage::Preamble) << table.Count(Stage::Login) << table.Count(Stage::Session);
    return transcript.str();
}

TEST(ConnectionTable, EvictsTheOldestOfAFullStage) {
    EXPECT_EQ(Follow("preamble 1 2 login 3 4 session 5 6"), "222");
    EXPECT_EQ(Follow("preamble 1 2 3 login 4 5 6 session 7 8 9"),
              "1 too many connections, 4 too many connections, 7 too many connections, 222");
}

TEST(ConnectionTable, MakesAConnectionTheNewestOfItsStage) {
    EXPECT_EQ(Follow("preamble 1 login 2 1"), "020");
    EXPECT_EQ(Follow("preamble 1 login 2 1 3"), "2 too many connections, 020");
    EXPECT_EQ(Follow("session 1 2 1 3"), "2 too many connections, 002");
}

TEST(ConnectionTable, DropsConnectionsThatAreRemovedOrNoLongerExist) {
    EXPECT_EQ(Follow("preamble 1 remove 1 1 99 preamble 2 3"), "200");
    EXPECT_EQ(Follow("preamble 1 release 2 3"), "200");
}

TEST(ConnectionTable, MakesRoomByEvictingConnectionsWithoutALogin) {
    EXPECT_EQ(Follow("session 1 login 2 preamble 3 make-room"), "3 short, 011");
    EXPECT_EQ(Follow("session 1 login 2 preamble 3 make-room make-room make-room"), "3 short, 2 short, 001");
}

TEST(ConnectionTable, EvictsEveryConnectionWhenClosed) {
    EXPECT_EQ(Follow("session 1 preamble 2 close session 3"), "2 over, 1 over, 3 too many connections, 000");
}

}  // namespace
}  // namespace Vessad
