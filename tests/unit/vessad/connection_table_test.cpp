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
    // Adds a connection, or moves it to another stage.
    void Place(std::uint64_t number, Stage stage) {
        auto& connection = connections[number];
        if (!connection) {
            connection = std::make_shared<FakeConnection>(number, evicted);
        }
        table.Place(number, connection, stage);
    }

    ConnectionTable table{{.preamble = 2, .login = 2, .session = 2}};
    std::map<std::uint64_t, std::shared_ptr<FakeConnection>> connections;
    std::vector<std::string> evicted;  // each as "number: reason"
};

TEST_F(ConnectionTableTest, EvictsTheOldestOfAFullStage) {
    for (const Stage stage : {Stage::Preamble, Stage::Login, Stage::Session}) {
        const auto number = static_cast<std::uint64_t>(stage) * 10;
        Place(number, stage);
        Place(number + 1, stage);
        EXPECT_THAT(evicted, IsEmpty());
        Place(number + 2, stage);
        EXPECT_THAT(evicted, ElementsAre(std::to_string(number) + ": too many connections"));
        EXPECT_EQ(table.Count(stage), 2U);
        evicted.clear();
    }
}

TEST_F(ConnectionTableTest, LimitsEachStageSeparately) {
    Place(1, Stage::Login);
    Place(2, Stage::Session);
    for (std::uint64_t number = 10; number < 13; ++number) {
        Place(number, Stage::Preamble);
    }
    EXPECT_THAT(evicted, ElementsAre("10: too many connections"));
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

TEST_F(ConnectionTableTest, MovesAConnectionToAnotherStageAsItsNewest) {
    Place(1, Stage::Preamble);
    Place(2, Stage::Login);
    Place(1, Stage::Login);
    EXPECT_EQ(table.Count(Stage::Preamble), 0U);
    Place(3, Stage::Login);
    EXPECT_THAT(evicted, ElementsAre("2: too many connections"));
}

TEST_F(ConnectionTableTest, MakesAConnectionTheNewestOfItsStageAgain) {
    for (const std::uint64_t number : {1, 2, 1, 3}) {
        Place(number, Stage::Session);
    }
    EXPECT_THAT(evicted, ElementsAre("2: too many connections"));
}

TEST_F(ConnectionTableTest, RemovesConnections) {
    Place(1, Stage::Preamble);
    table.Remove(1);
    table.Remove(1);
    table.Remove(99);
    Place(2, Stage::Preamble);
    Place(3, Stage::Preamble);
    EXPECT_THAT(evicted, IsEmpty());
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

TEST_F(ConnectionTableTest, MakesRoomByEvictingConnectionsWithoutALogin) {
    Place(1, Stage::Session);
    Place(2, Stage::Login);
    Place(3, Stage::Preamble);
    table.MakeRoom("short");
    EXPECT_THAT(evicted, ElementsAre("3: short"));
    table.MakeRoom("short");
    table.MakeRoom("short");
    EXPECT_THAT(evicted, ElementsAre("3: short", "2: short"));
}

TEST_F(ConnectionTableTest, EvictsEveryConnectionWhenClosed) {
    Place(1, Stage::Session);
    Place(2, Stage::Preamble);
    table.Close("over");
    EXPECT_THAT(evicted, ElementsAre("2: over", "1: over"));
    Place(3, Stage::Session);
    EXPECT_EQ(evicted.size(), 3U);
    EXPECT_EQ(table.Count(Stage::Session), 0U);
}

TEST_F(ConnectionTableTest, SkipsConnectionsThatNoLongerExist) {
    Place(1, Stage::Preamble);
    connections.clear();
    Place(2, Stage::Preamble);
    Place(3, Stage::Preamble);
    EXPECT_THAT(evicted, IsEmpty());
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

}  // namespace
}  // namespace Vessad
