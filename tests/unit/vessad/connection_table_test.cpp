#include "apps/vessad/ConnectionTable.h"

#include <gtest/gtest.h>

#include <map>
#include <new>
#include <sstream>
#include <string>
#include <utility>

#include "tests/support/files.h"

namespace Vessad {
namespace {

struct Evictions {
    std::ostringstream log;
    bool nextFails = false;
};

struct FakeConnection final : ConnectionTable::Entry {
    FakeConnection(std::uint64_t number, Evictions& evictions) : number(number), evictions(evictions) {}
    void Evict(std::string_view why) override {
        const bool fails = std::exchange(evictions.nextFails, false);
        evictions.log << (evictions.log.str().empty() ? "" : ", ") << number << ' '
                      << (fails ? "fails" : why);
        if (fails) {
            throw std::bad_alloc();
        }
    }

    std::uint64_t number;
    Evictions& evictions;
};

// Returns what a table of at most two connections at each stage does when the words of `script` are followed:
// a stage or "remove" with the connections to place there or to remove, "make-room", "close", "fail", by
// which the next eviction runs out of memory, and "release", which ends all connections. "NUMBER REASON" for
// each eviction. At the end the table is closed, which evicts the connections that are left, stage by stage
// and the oldest first.
std::string Follow(const std::string& script) {
    static const std::map<std::string, Stage> stages{
        {"preamble", Stage::Preamble}, {"login", Stage::Login}, {"session", Stage::Session}};
    ConnectionTable table({.preamble = 2, .login = 2, .session = 2});
    Evictions evictions;
    std::map<std::uint64_t, std::shared_ptr<FakeConnection>> connections;
    std::istringstream words(script);
    std::string command;
    for (std::string word; words >> word;) {
        try {
            if (word == "make-room") {
                table.MakeRoom("short");
            } else if (word == "close") {
                table.Close("over");
            } else if (word == "fail") {
                evictions.nextFails = true;
            } else if (word == "release") {
                connections.clear();
            } else if (std::isdigit(word[0]) == 0) {
                command = word;
            } else if (command == "remove") {
                table.Remove(std::stoull(word));
            } else {
                auto& connection = connections[std::stoull(word)];
                if (!connection) {
                    connection = std::make_shared<FakeConnection>(std::stoull(word), evictions);
                }
                table.Place(connection->number, connection, stages.at(command));
            }
        } catch (const std::bad_alloc&) {
            // The log has it.
        }
    }
    table.Close("left");
    return evictions.log.str();
}

TEST(ConnectionTable, FollowsScripts) {
    for (const auto& [script, transcript] : TestSupport::ReadCases(VESSAD_TEST_CASES "/connections.txt")) {
        EXPECT_EQ(Follow(script), transcript) << script;
    }
}

}  // namespace
}  // namespace Vessad
