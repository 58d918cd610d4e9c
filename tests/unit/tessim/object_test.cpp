#include "runtime/tessim/object.h"

#include <gtest/gtest.h>

#include <utility>

namespace Tessim {
namespace {

class Shape : public virtual Object {};

class Circle final : public virtual Shape, public ObjectImpl {
  public:
    explicit Circle(int* alive) : alive(alive) { ++*alive; }
    ~Circle() override { --*alive; }

  private:
    int* alive;
};

class Square final : public virtual Shape, public ObjectImpl {};

class RefTest : public testing::Test {
  protected:
    int alive = 0;
    Ref<Circle> circle = MakeRef<Circle>(&alive);
};

TEST_F(RefTest, DeletesTheObjectWithItsLastHandle) {
    Ref<Circle> second = circle;
    Ref<Shape> base = circle;
    circle.Reset();
    second.Reset();
    EXPECT_EQ(alive, 1);
    base.Reset();
    EXPECT_EQ(alive, 0);
}

TEST_F(RefTest, ReleasesWhatItHeldWhenAssigned) {
    circle = MakeRef<Circle>(&alive);
    EXPECT_EQ(alive, 1);
    const Ref<Circle>& same = circle;
    circle = same;
    EXPECT_EQ(alive, 1);
    EXPECT_TRUE(circle);
    circle = nullptr;
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(circle);
}

TEST_F(RefTest, ComparesByIdentityAndMovesWithoutTouchingTheCount) {
    const Ref<Circle> other = MakeRef<Circle>(&alive);
    EXPECT_TRUE(circle == Ref<Circle>(circle));
    EXPECT_FALSE(circle == other);
    EXPECT_FALSE(circle == nullptr);
    EXPECT_TRUE(Ref<Circle>() == nullptr);
    const Circle* const object = circle.Get();
    const Ref<Circle> to = std::move(circle);
    EXPECT_EQ(to.Get(), object);
    EXPECT_EQ(alive, 2);
}

TEST_F(RefTest, NarrowsToTypesOfTheObjectOnly) {
    const Ref<Shape> shape = circle;
    EXPECT_EQ(NarrowToType<Circle>(shape), circle.Get());
    EXPECT_EQ(NarrowToType<Square>(shape), nullptr);
    EXPECT_EQ(NarrowToType<Square>(shape.Get()), nullptr);
    EXPECT_EQ(NarrowToType<Circle>(Ref<Shape>()), nullptr);
    EXPECT_EQ(NarrowToType<Circle>(static_cast<Shape*>(nullptr)), nullptr);
}

}  // namespace
}  // namespace Tessim
