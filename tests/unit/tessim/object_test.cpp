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
    second = nullptr;
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(circle || second);
    const Ref<Shape>& same = base;
    base = same;
    const Ref<Shape> moved = std::move(base);
    EXPECT_EQ(alive, 1);
    base = Ref<Shape>(MakeRef<Circle>(&alive));
    EXPECT_EQ(alive, 2);
    base = moved;
    EXPECT_EQ(alive, 1);
    EXPECT_TRUE(base == moved);
    EXPECT_FALSE(base == Ref<Shape>(MakeRef<Circle>(&alive)));
    EXPECT_FALSE(base == nullptr);
    EXPECT_TRUE(circle == nullptr);
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
