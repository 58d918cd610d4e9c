#include "apps/vessad/backends/libvirt/Text.h"

#include <gtest/gtest.h>

namespace Vessad::Libvirt {
namespace {

using namespace std::string_literals;

TEST(WireText, ReplacesOnlyTheBytesThatXmlCannotCarry) {
    EXPECT_EQ(WireText(""), "");
    EXPECT_EQ(WireText("web-1 \t größe 日本 \U0001F427"), "web-1 \t größe 日本 \U0001F427");
    EXPECT_EQ(WireText("a\x01\x02"s + "b\0c"s), "a\uFFFD\uFFFDb\uFFFDc");
    EXPECT_EQ(WireText("\xff"s + "a"), "\uFFFDa");
    EXPECT_EQ(WireText("\xe2\x82"s + "x€"), "\uFFFD\uFFFDx€");
    EXPECT_EQ(WireText("end \xf0\x9f\x90"), "end \uFFFD\uFFFD\uFFFD");
}

}  // namespace
}  // namespace Vessad::Libvirt
