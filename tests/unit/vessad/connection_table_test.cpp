#include "apps/vessad/ConnectionTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Vessad {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct FakeConnection final : ConnectionTable::Entry {
    FakeConnection(std::uint64_t number, std::vector<std::string>& log) : number(number), log(log) {}
    void Evict(std::string_view why) override {
        log.push_back(std::to_string(number) + ": " + std::string(why));
    }

    std::uint64_t number;
    std::vector<std::string>& log;
};

class ConnectionTableTest : public ::testing::Test {
  protected:
    // Adds connections, or moves them to another stage.
    void Place(Stage stage, const std::vector<std::uint64_t>& numbers) {
        for (const std::uint64_t number : numbers) {
            auto& connection = connections[number];
            if (!connection) {
                connection = std::make_shared<FakeConnection>(number, evicted);
            }
            table.Place(number, connection, stage);
        }
    }

    ConnectionTable table{{.preamble = 2, .login = 2, .session = 2}};
    std::map<std::uint64_t, std::shared_ptr<FakeConnection>> connections;
    std::vector<std::string> evicted;  // each as "number: reason"
};

TEST_F(ConnectionTableTest, EvictsTheOldestOfAFullStage) {
    for (const Stage stage : {Stage::Preamble, Stage::Login, Stage::Session}) {
        const auto number = static_cast<std::uint64_t>(stage) * 10;
        Place(stage, {number, number + 1});
        EXPECT_THAT(evicted, IsEmpty());
        Place(stage, {number + 2});
        EXPECT_THAT(evicted, ElementsAre(std::to_string(number) + ": too many connections"));
        EXPECT_EQ(table.Count(stage), 2U);
        evicted.clear();
    }
}

TEST_F(ConnectionTableTest, LimitsEachStageSeparately) {
    Place(Stage::Login, {1});
    Place(Stage::Session, {2});
    Place(Stage::Preamble, {10, 11, 12});
    EXPECT_THAT(evicted, ElementsAre("10: too many connections"));
}

TEST_F(ConnectionTableTest, MovesAConnectionToAnotherStageAsItsNewest) {
    Place(Stage::Preamble, {1});
    Place(Stage::Login, {2, 1});
    EXPECT_EQ(table.Count(Stage::Preamble), 0U);
    Place(Stage::Login, {3});
    EXPECT_THAT(evicted, ElementsAre("2: too many connections"));
}

TEST_F(ConnectionTableTest, MakesAConnectionTheNewestOfItsStageAgain) {
    Place(Stage::Session, {1, 2, 1, 3});
    EXPECT_THAT(evicted, ElementsAre("2: too many connections"));
}

TEST_F(ConnectionTableTest, RemovesConnections) {
    Place(Stage::Preamble, {1});
    for (const std::uint64_t number : {1, 1, 99}) {
        table.Remove(number);
    }
    Place(Stage::Preamble, {2, 3});
    EXPECT_THAT(evicted, IsEmpty());
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

TEST_F(ConnectionTableTest, MakesRoomByEvictingConnectionsWithoutALogin) {
    Place(Stage::Session, {1});
    Place(Stage::Login, {2});
    Place(Stage::Preamble, {3});
    table.MakeRoom("short");
    EXPECT_THAT(evicted, ElementsAre("3: short"));
    table.MakeRoom("short");
    table.MakeRoom("short");
    EXPECT_THAT(evicted, ElementsAre("3: short", "2: short"));
}

TEST_F(ConnectionTableTest, EvictsEveryConnectionWhenClosed) {
    Place(Stage::Session, {1});
    Place(Stage::Preamble, {2});
    table.Close("over");
    EXPECT_THAT(evicted, ElementsAre("2: over", "1: over"));
    Place(Stage::Session, {3});
    EXPECT_EQ(evicted.size(), 3U);
    EXPECT_EQ(table.Count(Stage::Session), 0U);
}

TEST_F(ConnectionTableTest, SkipsConnectionsThatNoLongerExist) {
    Place(Stage::Preamble, {1});
    connections.clear();
    Place(Stage::Preamble, {2, 3});
    EXPECT_THAT(evicted, IsEmpty());
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

}  // namespace
}  // namespace Vessad
