#include "runtime/ordane/type.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/ordane/faults.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using testing::ElementsAre;

TEST(DataObjectType, IsItselfAndEachOfItsBasesOnly) {
    EXPECT_TRUE(GetType<Sample::RedToy>()->IsA(GetType<Sample::RedToy>()));
    EXPECT_TRUE(GetType<Sample::RedToy>()->IsA(GetType<Sample::Toy>()));
    EXPECT_TRUE(GetType<Sample::RedToy>()->IsA(GetType<Sample::Thing>()));
    EXPECT_FALSE(GetType<Sample::Thing>()->IsA(GetType<Sample::Toy>()));
    EXPECT_FALSE(GetType<Sample::Toy>()->IsA(GetType<Sample::Tool>()));
    EXPECT_FALSE(GetType<Sample::Everything>()->IsA(GetType<Sample::Thing>()));
    EXPECT_TRUE(GetDoType<Sample::Toy>().Includes(GetType<Sample::RedToy>()));
    EXPECT_FALSE(GetDoType<Sample::Toy>().Includes(GetType<Sample::Thing>()));
}

TEST(EnumType, TranslatesEveryValueBothWays) {
    const EnumType* type = GetEnumType<Sample::Shop::State>();
    EXPECT_EQ(type->name, "State");
    ASSERT_THAT(type->texts, ElementsAre("closed", "open", "sold"));
    EXPECT_EQ(type->GetText(static_cast<int>(Sample::Shop::State::sold)), "sold");
    for (int value = 0; value < 3; ++value) {
        EXPECT_EQ(type->FindValue(type->GetText(value)), value);
    }
    EXPECT_EQ(type->GetText(-1), "");
    EXPECT_EQ(type->GetText(3), "");
    EXPECT_EQ(type->FindValue(""), -1);
    EXPECT_EQ(type->FindValue("Open"), -1);
    EXPECT_EQ(type->FindValue("open "), -1);
}

TEST(EnumType, KeepsTextsThatNoEnumerationHas) {
    const int value = EnumType::KeepUnknown("crashed");
    EXPECT_EQ(EnumType::KeepUnknown("crashed"), value);
    EXPECT_EQ(GetEnumType<Sample::Shop::State>()->GetText(value), "crashed");
    const auto textOf = [](const std::string& text) {
        return GetEnumType<Sample::Shop::State>()->GetText(EnumType::KeepUnknown(text));
    };
    EXPECT_EQ(textOf(std::string(64, 'x')), std::string(64, 'x'));
    EXPECT_EQ(textOf(std::string(65, 'x')), "unknown");
    for (int number = 3; number <= 64; ++number) {
        EXPECT_EQ(textOf(std::to_string(number)), std::to_string(number));
    }
    EXPECT_EQ(textOf("one more"), "unknown");
    EXPECT_EQ(textOf("crashed"), "crashed");
    EXPECT_EQ(GetEnumType<Sample::Shop::State>()->GetText(1 << 20), "");
}

TEST(Member, VisitsEachValueThatIsSet) {
    const auto full = Sample::MakeEverything();
    full->GetThingList()->Append(nullptr);  // null elements are left out
    const auto empty = Tessim::MakeRef<Sample::Everything>();
    EXPECT_FALSE(empty->IsFlag());
    for (const Member* member : GetType<Sample::Everything>()->GetMembers()) {
        int count = 0;
        const auto visit = [&](const Value& /*value*/) { ++count; };
        member->forEach(*full, visit);
        EXPECT_EQ(count, member->list ? 2 : 1) << member->name;
        count = 0;
        member->forEach(*empty, visit);
        EXPECT_EQ(count, member->optional || member->list ? 0 : 1) << member->name;
    }
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

TEST(GeneratedFault, HasTheMessageOrTheNameOfItsTypeAsTheTextOfItsException) {
    EXPECT_STREQ(Fault::InvalidLogin::Exception(Tessim::MakeRef<Fault::InvalidLogin>()).what(),
                 "InvalidLogin");
    const Fault::SystemError::Exception thrown("out of order");
    EXPECT_STREQ(thrown.what(), "out of order");
    EXPECT_EQ(thrown.GetFault()->GetMessage(), "out of order");
    EXPECT_EQ(thrown.GetFault()->GetDataObjectType(), GetType<Fault::SystemError>());
}

}  // namespace
}  // namespace Ordane
