#include "runtime/tessim/print_formatter.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace Tessim {
namespace {

TEST(PrintFormatter, FillsItsPlacesInAnyOrder) {
    EXPECT_EQ((PrintFormatter("no %2 in %1, %2!") << "file"
                                                  << "key")
                  .Format(),
              "no key in file, key!");
}

TEST(PrintFormatter, TakesNumbers) {
    EXPECT_EQ((PrintFormatter("%1 of %2") << 3 << INT64_MIN).Format(), "3 of -9223372036854775808");
}

TEST(PrintFormatter, LeavesAPlaceWithoutAnArgument) {
    EXPECT_EQ((PrintFormatter("%1 %2") << "one").Format(), "one %2");
    EXPECT_EQ(PrintFormatter("%1").Format(), "%1");
}

TEST(PrintFormatter, WritesOnePercentForTwo) {
    EXPECT_EQ((PrintFormatter("100%% of %1, %%1") << "all").Format(), "100% of all, %1");
}

TEST(PrintFormatter, LeavesOtherPercentsAlone) {
    EXPECT_EQ((PrintFormatter("%0 %x %") << "one").Format(), "%0 %x %");
}

TEST(PrintFormatter, NeverSearchesAnArgumentForPlaces) {
    EXPECT_EQ((PrintFormatter("%1 %2") << "%2%%"
                                       << "x")
                  .Format(),
              "%2%% x");
}

TEST(PrintFormatter, HasNinePlaces) {
    PrintFormatter formatter("%9%10");
    for (int i = 1; i <= 10; ++i) {
        formatter << i;
    }
    EXPECT_EQ(formatter.Format(), "910");
}

}  // namespace
}  // namespace Tessim
