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

TEST(Ref, DeletesTheObjectWithItsLastHandle) {
    int alive = 0;
    Ref<Circle> first = MakeRef<Circle>(&alive);
    Ref<Circle> second = first;
    first.Reset();
    EXPECT_EQ(alive, 1);
    second.Reset();
    EXPECT_EQ(alive, 0);
}

TEST(Ref, ReleasesWhatItHeldWhenAssigned) {
    int alive = 0;
    Ref<Circle> handle = MakeRef<Circle>(&alive);
    handle = MakeRef<Circle>(&alive);
    EXPECT_EQ(alive, 1);
    handle = nullptr;
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(handle);
}

TEST(Ref, SurvivesAssignmentToItself) {
    int alive = 0;
    Ref<Circle> handle = MakeRef<Circle>(&alive);
    const Ref<Circle>& same = handle;
    handle = same;
    EXPECT_EQ(alive, 1);
    EXPECT_TRUE(handle);
}

TEST(Ref, MovesWithoutTouchingTheCount) {
    int alive = 0;
    Ref<Circle> from = MakeRef<Circle>(&alive);
    const Circle* object = from.Get();
    const Ref<Circle> to = std::move(from);
    EXPECT_EQ(to.Get(), object);
    EXPECT_EQ(alive, 1);
}

TEST(Ref, SharesOwnershipThroughABaseType) {
    int alive = 0;
    Ref<Circle> circle = MakeRef<Circle>(&alive);
    const Ref<Shape> shape = circle;
    circle.Reset();
    EXPECT_EQ(alive, 1);
}

TEST(Ref, ComparesByIdentity) {
    int alive = 0;
    const Ref<Circle> one = MakeRef<Circle>(&alive);
    const Ref<Circle> other = MakeRef<Circle>(&alive);
    EXPECT_TRUE(one == Ref<Circle>(one));
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(one == nullptr);
    EXPECT_TRUE(Ref<Circle>() == nullptr);
}

TEST(NarrowToType, GivesTheObjectOnlyAsATypeThatItIs) {
    int alive = 0;
    const Ref<Circle> circle = MakeRef<Circle>(&alive);
    const Ref<Shape> shape = circle;
    EXPECT_EQ(NarrowToType<Circle>(shape), circle.Get());
    EXPECT_EQ(NarrowToType<Square>(shape), nullptr);
    EXPECT_EQ(NarrowToType<Square>(shape.Get()), nullptr);
}

TEST(NarrowToType, KeepsNullNull) {
    EXPECT_EQ(NarrowToType<Circle>(Ref<Shape>()), nullptr);
    EXPECT_EQ(NarrowToType<Circle>(static_cast<Shape*>(nullptr)), nullptr);
}

}  // namespace
}  // namespace Tessim
