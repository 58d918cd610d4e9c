#include "runtime/tessim/print_formatter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace Tessim {
namespace {

template <class... Arguments>
std::string Formatted(const char* format, Arguments... arguments) {
    PrintFormatter formatter(format);
    (formatter << ... << arguments);
    return formatter.Format();
}

TEST(PrintFormatter, FillsItsPlaces) {
    EXPECT_EQ(Formatted("no %2 in %1, %2!", "file", "key"), "no key in file, key!");
    EXPECT_EQ(Formatted("%1 of %2", 3, INT64_MIN), "3 of -9223372036854775808");
    EXPECT_EQ(Formatted("%1 %2", "%2%%", "x"), "%2%% x");  // arguments are not searched for places
    EXPECT_EQ(Formatted("%9%10", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10), "910");
}

TEST(PrintFormatter, LeavesAPlaceWithoutAnArgumentAndOtherPercents) {
    EXPECT_EQ(Formatted("%1 %2", "one"), "one %2");
    EXPECT_EQ(PrintFormatter("%1").Format(), "%1");
    EXPECT_EQ(Formatted("%0 %x %", "one"), "%0 %x %");
    EXPECT_EQ(Formatted("100%% of %1, %%1", "all"), "100% of all, %1");
}

}  // namespace
}  // namespace Tessim
