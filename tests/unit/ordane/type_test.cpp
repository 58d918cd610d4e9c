#include "runtime/ordane/type.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/ordane/faults.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> NamesOf(const DataObjectType& type) {
    std::vector<std::string> names;
    for (const Member* member : type.GetMembers()) {
        names.emplace_back(member->name);
    }
    return names;
}

TEST(DataObjectType, IsItselfAndEachOfItsBases) {
    const auto* redToy = GetType<Sample::RedToy>();
    EXPECT_TRUE(redToy->IsA(redToy));
    EXPECT_TRUE(redToy->IsA(GetType<Sample::Toy>()));
    EXPECT_TRUE(redToy->IsA(GetType<Sample::Thing>()));
}

TEST(DataObjectType, IsNeitherADescendantNorASiblingNorAStranger) {
    EXPECT_FALSE(GetType<Sample::Thing>()->IsA(GetType<Sample::Toy>()));
    EXPECT_FALSE(GetType<Sample::Toy>()->IsA(GetType<Sample::Tool>()));
    EXPECT_FALSE(GetType<Sample::Everything>()->IsA(GetType<Sample::Thing>()));
}

TEST(DataObjectType, FindsItselfAndItsDescendantsByTheirWireNames) {
    const auto* thing = GetType<Sample::Thing>();
    EXPECT_EQ(thing->FindSubtype("Thing"), thing);
    EXPECT_EQ(thing->FindSubtype("RedToy"), GetType<Sample::RedToy>());
    EXPECT_EQ(thing->FindSubtype("SharpTool"), GetType<Sample::Tool>());
}

TEST(DataObjectType, FindsNoBaseNoSiblingAndNoUnknownName) {
    EXPECT_EQ(GetType<Sample::Toy>()->FindSubtype("Thing"), nullptr);
    EXPECT_EQ(GetType<Sample::Toy>()->FindSubtype("SharpTool"), nullptr);
    EXPECT_EQ(GetType<Sample::Thing>()->FindSubtype("Everything"), nullptr);
    EXPECT_EQ(GetType<Sample::Thing>()->FindSubtype("Tool"), nullptr);
    EXPECT_EQ(GetType<Sample::Thing>()->FindSubtype("redtoy"), nullptr);
    EXPECT_EQ(GetType<Sample::Thing>()->FindSubtype(""), nullptr);
}

TEST(DataObjectType, ListsTheMembersOfItsBaseFirst) {
    EXPECT_THAT(NamesOf(*GetType<Sample::Toy>()), ElementsAre("name", "count"));
    EXPECT_THAT(NamesOf(*GetType<Sample::RedToy>()), ElementsAre("name", "count"));
}

TEST(DataObjectType, CreatesAnEmptyObjectOfItself) {
    const Tessim::Ref<DataObject> made = GetType<Sample::RedToy>()->create();
    EXPECT_EQ(made->GetDataObjectType(), GetType<Sample::RedToy>());
    EXPECT_NE(Tessim::NarrowToType<Sample::RedToy>(made), nullptr);
}

TEST(DataObjectType, IsThatOfTheObjectAndNotOfThePointer) {
    const Tessim::Ref<Sample::Thing> thing = Tessim::MakeRef<Sample::Tool>().Get();
    EXPECT_EQ(thing->GetDataObjectType(), GetType<Sample::Tool>());
    EXPECT_NE(thing->GetDataObjectType(), GetType<Sample::Thing>());
}

TEST(DoTypeTest, IncludesTheClassAndItsDescendantsOnly) {
    EXPECT_TRUE(GetDoType<Sample::Toy>().Includes(GetType<Sample::Toy>()));
    EXPECT_TRUE(GetDoType<Sample::Toy>().Includes(GetType<Sample::RedToy>()));
    EXPECT_FALSE(GetDoType<Sample::Toy>().Includes(GetType<Sample::Thing>()));
    EXPECT_FALSE(GetDoType<Sample::Toy>().Includes(GetType<Sample::Tool>()));
}

TEST(EnumType, TranslatesEveryValueBothWays) {
    const EnumType* type = GetEnumType<Sample::Shop::State>();
    EXPECT_EQ(type->name, "State");
    ASSERT_THAT(type->texts, ElementsAre("closed", "open", "sold"));
    EXPECT_EQ(type->GetText(static_cast<int>(Sample::Shop::State::sold)), "sold");
    for (int value = 0; value < 3; ++value) {
        EXPECT_EQ(type->FindValue(type->GetText(value)), value);
    }
}

TEST(EnumType, KnowsNoOtherValue) {
    const EnumType* type = GetEnumType<Sample::Shop::State>();
    EXPECT_EQ(type->GetText(-1), "");
    EXPECT_EQ(type->GetText(3), "");
    EXPECT_EQ(type->FindValue(""), -1);
    EXPECT_EQ(type->FindValue("Open"), -1);
    EXPECT_EQ(type->FindValue("open "), -1);
}

TEST(ManagedType, FindsItsMethodsByName) {
    const ManagedType& shop = Sample::Shop::staticType;
    EXPECT_EQ(shop.name, "Shop");
    ASSERT_NE(shop.FindMethod("Sweep"), nullptr);
    EXPECT_EQ(shop.FindMethod("Sweep")->name, "Sweep");
    EXPECT_EQ(shop.FindMethod("sweep"), nullptr);
    EXPECT_EQ(shop.FindMethod("Wait"), nullptr);
    EXPECT_EQ(shop.FindMethod(""), nullptr);
}

TEST(ManagedType, MarksTheMethodsThatNeedNoLogin) {
    EXPECT_TRUE(Sample::Shop::staticType.FindMethod("Greet")->beforeLogin);
    EXPECT_FALSE(Sample::Shop::staticType.FindMethod("Sweep")->beforeLogin);
}

TEST(Member, VisitsNothingOfAnObjectInWhichNothingIsSet) {
    const auto empty = Tessim::MakeRef<Sample::Everything>();
    for (const Member* member : GetType<Sample::Everything>()->GetMembers()) {
        int count = 0;
        member->forEach(*empty, [&](const Value& /*value*/) { ++count; });
        EXPECT_EQ(count, member->optional || member->list ? 0 : 1) << member->name;
    }
}

TEST(Member, VisitsEachValueThatIsSet) {
    const auto full = Sample::MakeEverything();
    for (const Member* member : GetType<Sample::Everything>()->GetMembers()) {
        int count = 0;
        member->forEach(*full, [&](const Value& /*value*/) { ++count; });
        EXPECT_EQ(count, member->list ? 2 : 1) << member->name;
    }
}

TEST(Member, LeavesNullElementsOfAListOut) {
    const auto things = Tessim::MakeRef<DataArray<Sample::Thing>>();
    things->Append(nullptr);
    things->Append(Tessim::MakeRef<Sample::Thing>());
    const auto all = Tessim::MakeRef<Sample::Everything>();
    all->SetThingList(things);
    int count = 0;
    for (const Member* member : GetType<Sample::Everything>()->GetMembers()) {
        if (member->name == "thingList") {
            member->forEach(*all, [&](const Value& value) {
                EXPECT_NE(std::get<Any*>(value), nullptr);
                ++count;
            });
        }
    }
    EXPECT_EQ(count, 1);
}

TEST(GeneratedClass, HoldsAnEmptyListWhereTheListIsNotOptional) {
    const auto empty = Tessim::MakeRef<Sample::Everything>();
    ASSERT_NE(empty->GetThingList(), nullptr);
    EXPECT_EQ(empty->GetThingList()->GetLength(), 0);
    EXPECT_EQ(empty->GetThingListMaybe(), nullptr);
    EXPECT_THAT(empty->GetSmallList(), IsEmpty());
    EXPECT_FALSE(empty->IsFlagMaybe().has_value());
    EXPECT_FALSE(empty->IsFlag());
}

TEST(GeneratedFault, IsThrownAsItsOwnExceptionAndThoseOfItsBases) {
    const auto fault = Tessim::MakeRef<Fault::NotAuthenticated>();
    fault->SetMessage("log in first");
    EXPECT_THROW(fault->Throw(), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(fault->Throw(), Fault::RuntimeFault::Exception);
    EXPECT_THROW(fault->Throw(), Fault::MethodFault::Exception);
    try {
        static_cast<Fault::MethodFault&>(*fault).Throw();
    } catch (const Tessim::Exception& thrown) {
        EXPECT_STREQ(thrown.what(), "log in first");
        ASSERT_FALSE(thrown.GetBacktrace().empty());
        EXPECT_NE(thrown.GetBacktrace()[0].find("type_test.cpp"), std::string::npos);
    }
}

TEST(GeneratedFault, IsCalledByItsTypeWhenItHasNoMessage) {
    EXPECT_STREQ(Fault::InvalidLogin::Exception(Tessim::MakeRef<Fault::InvalidLogin>()).what(),
                 "InvalidLogin");
}

TEST(GeneratedFault, KeepsTheMessageItsExceptionIsMadeFrom) {
    const Fault::SystemError::Exception thrown("out of order");
    EXPECT_STREQ(thrown.what(), "out of order");
    EXPECT_EQ(thrown.GetFault()->GetMessage(), "out of order");
    EXPECT_EQ(thrown.GetFault()->GetDataObjectType(), GetType<Fault::SystemError>());
}

}  // namespace
}  // namespace Ordane
