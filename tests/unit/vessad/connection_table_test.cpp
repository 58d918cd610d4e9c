#include "apps/vessad/ConnectionTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Vessad {
namespace {

class FakeConnection final : public ConnectionTable::Entry {
  public:
    void Evict(std::string_view why) override { reason = why; }
    std::string reason;
};

class ConnectionTableTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeConnection> Add(std::uint64_t number, Stage stage) {
        auto connection = std::make_shared<FakeConnection>();
        table.Place(number, connection, stage);
        return connection;
    }

    ConnectionTable table{{.preamble = 2, .login = 2, .session = 2}};
};

TEST_F(ConnectionTableTest, EvictsTheOldestOfAFullStage) {
    for (const Stage stage : {Stage::Preamble, Stage::Login, Stage::Session}) {
        const auto number = static_cast<std::uint64_t>(stage) * 10;
        const auto first = Add(number, stage);
        const auto second = Add(number + 1, stage);
        EXPECT_EQ(first->reason, "");
        const auto third = Add(number + 2, stage);
        EXPECT_EQ(first->reason, "too many connections");
        EXPECT_EQ(second->reason, "");
        EXPECT_EQ(third->reason, "");
        EXPECT_EQ(table.Count(stage), 2U);
    }
}

TEST_F(ConnectionTableTest, LimitsEachStageSeparately) {
    const auto waiting = Add(1, Stage::Login);
    const auto working = Add(2, Stage::Session);
    std::vector<std::shared_ptr<FakeConnection>> crowd;
    for (std::uint64_t number = 10; number < 100; ++number) {
        crowd.push_back(Add(number, Stage::Preamble));
    }
    EXPECT_EQ(waiting->reason, "");
    EXPECT_EQ(working->reason, "");
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

TEST_F(ConnectionTableTest, MovesAConnectionToAnotherStageAsItsNewest) {
    const auto mover = Add(1, Stage::Preamble);
    const auto other = Add(2, Stage::Login);
    table.Place(1, mover, Stage::Login);
    EXPECT_EQ(table.Count(Stage::Preamble), 0U);
    Add(3, Stage::Login);
    EXPECT_NE(other->reason, "");
    EXPECT_EQ(mover->reason, "");
}

TEST_F(ConnectionTableTest, MakesAConnectionTheNewestOfItsStageAgain) {
    const auto busy = Add(1, Stage::Session);
    const auto idle = Add(2, Stage::Session);
    table.Place(1, busy, Stage::Session);
    Add(3, Stage::Session);
    EXPECT_EQ(busy->reason, "");
    EXPECT_NE(idle->reason, "");
}

TEST_F(ConnectionTableTest, RemovesConnections) {
    const auto first = Add(1, Stage::Preamble);
    table.Remove(1);
    table.Remove(1);
    table.Remove(99);
    Add(2, Stage::Preamble);
    Add(3, Stage::Preamble);
    EXPECT_EQ(first->reason, "");
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

TEST_F(ConnectionTableTest, MakesRoomByEvictingConnectionsWithoutALogin) {
    const auto session = Add(1, Stage::Session);
    const auto login = Add(2, Stage::Login);
    const auto preamble = Add(3, Stage::Preamble);
    table.MakeRoom("short");
    EXPECT_EQ(preamble->reason, "short");
    EXPECT_EQ(login->reason, "");
    table.MakeRoom("short");
    EXPECT_EQ(login->reason, "short");
    table.MakeRoom("short");
    EXPECT_EQ(session->reason, "");
}

TEST_F(ConnectionTableTest, EvictsEveryConnectionWhenClosed) {
    const auto session = Add(1, Stage::Session);
    const auto preamble = Add(2, Stage::Preamble);
    table.Close("over");
    EXPECT_EQ(session->reason, "over");
    EXPECT_EQ(preamble->reason, "over");
    EXPECT_NE(Add(3, Stage::Session)->reason, "");
    EXPECT_EQ(table.Count(Stage::Session), 0U);
}

TEST_F(ConnectionTableTest, SkipsConnectionsThatNoLongerExist) {
    Add(1, Stage::Preamble);  // released at once
    const auto second = Add(2, Stage::Preamble);
    const auto third = Add(3, Stage::Preamble);
    EXPECT_EQ(second->reason, "");
    EXPECT_EQ(table.Count(Stage::Preamble), 2U);
}

}  // namespace
}  // namespace Vessad
