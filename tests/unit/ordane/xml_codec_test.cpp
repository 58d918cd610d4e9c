#include "runtime/ordane/xml_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/messages.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane::Xml {
namespace {

// The T that `text` is, read as messages are.
template <class T>
Tessim::Ref<T> Read(const std::string& text, Unknown unknown = Unknown::Ignore) {
    pugi::xml_document document;
    const auto result = document.load_buffer(text.data(), text.size(),
                                             pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata);
    EXPECT_TRUE(result) << result.description() << " in " << text;
    return Tessim::NarrowToType<T>(ReadObject(document.first_child(), T::StaticType(), unknown));
}

std::string Write(const DataObject& object) {
    Writer writer;
    WriteObject(writer, "x", object, *object.GetDataObjectType());
    return writer.Take();
}

// What is written of the T that `text` is read as; else why it is refused.
template <class T>
std::string Carried(const std::string& text, Unknown unknown = Unknown::Ignore) {
    std::string written;
    const std::string refusal = Sample::FailureOf<Tessim::InvalidArgumentException>(
        [&] { written = Write(*Read<T>(text, unknown)); });
    return written.empty() ? refusal : written;
}

// The same of an Everything with `members` behind its required ones, which are left out of the result.
std::string CarriedMembers(const std::string& members, Unknown unknown = Unknown::Ignore) {
    const std::vector<std::string> required = {"<flag>true</flag>", "<small>1</small>", "<large>2</large>",
                                               "<text>t</text>", "<state>open</state>"};
    std::string text = "<x>";
    for (const std::string& member : required) {
        text += member;
    }
    text = Carried<Sample::Everything>(text + members + "</x>", unknown);
    for (const std::string& part : required) {
        if (const auto at = text.find(part); at != std::string::npos) {
            text.erase(at, part.size());
        }
    }
    return text;
}

TEST(XmlCodec, WritesAndReadsEveryKindOfMemberInTheOrderOfItsType) {
    EXPECT_EQ(Carried<Sample::Everything>(Sample::everything, Unknown::Refuse), Sample::everything);
}

TEST(XmlCodec, CountsWhatItWrites) {
    EXPECT_EQ(SizeOf("<a b='='><c/>=</a><").elements, 3U);
    EXPECT_EQ(SizeOf("<a b='='><c/>=</a><").attributes, 3U);
    const auto object = Read<Sample::Everything>(Sample::everything);
    for (const char* const text : {"", "a text", "a=b", "<&>\"\x01\n", "\x7f\xc3\xa4"}) {
        object->SetText(text);
        Writer writer;
        WriteMembers(writer, *object);
        const std::string written = writer.Take();
        const Size size = SizeOf(*object);
        EXPECT_EQ(size.elements, SizeOf(written).elements) << text;
        EXPECT_EQ(size.attributes, SizeOf(written).attributes) << text;
        EXPECT_GE(size.bytes, written.size()) << text;
        EXPECT_LE(size.bytes, written.size() + written.size() / 10) << text;
    }
}

TEST(XmlCodec, CarriesMembers) {
    for (const auto& [read, written] : Sample::ReadCases("carried_members")) {
        EXPECT_EQ(CarriedMembers(read), written) << read;
    }
}

TEST(XmlCodec, ReadsAnAbsentListAsEmptyOrNullAndWritesBothAsAbsent) {
    const auto all = Tessim::MakeRef<Sample::Everything>();
    ASSERT_NE(all->GetThingList(), nullptr);
    EXPECT_EQ(all->GetThingList()->GetLength(), 0);
    EXPECT_EQ(all->GetThingListMaybe(), nullptr);
    const std::string without = Write(*all);
    all->SetThingListMaybe(Tessim::MakeRef<DataArray<Sample::Thing>>());
    EXPECT_EQ(Write(*all), without);
}

TEST(XmlCodec, ReadsTextsWithTheirWhiteSpaceCharacterDataAndEntitiesOfXml) {
    for (const auto& [content, text] : Sample::ReadCases("texts")) {
        const std::string thing = "<x><name>" + content + "</name></x>";
        EXPECT_EQ(Read<Sample::Thing>(thing, Unknown::Refuse)->GetName(), text);
    }
}

TEST(XmlCodec, CarriesAnyTextThereAndBack) {
    for (const std::string text : {"Gr\xc3\xbcn \xe6\x9d\xb1\xe4\xba\xac \xf0\x9f\x98\x80", "<&>\"'", "]]>",
                                   " x ", "a\tb\nc", "\xef\xbf\xbd", "&#65;", "<!-- -->"}) {
        const auto thing = Tessim::MakeRef<Sample::Thing>();
        thing->SetName(text);
        EXPECT_EQ(Read<Sample::Thing>(Write(*thing), Unknown::Refuse)->GetName(), text);
    }
}

TEST(XmlCodec, RefusesMembersThatDoNotFitTheirType) {
    for (const auto& [member, refusal] : Sample::ReadCases("refused_members")) {
        EXPECT_EQ(CarriedMembers(member), refusal);
    }
}

TEST(XmlCodec, RefusesAsServerOnlyUnknownElementsAndWhatXmlCannotCarry) {
    for (const auto& [member, refusal] : Sample::ReadCases("members_refused_by_servers")) {
        EXPECT_EQ(CarriedMembers(member, Unknown::Refuse), refusal);
        EXPECT_THAT(CarriedMembers(member), testing::StartsWith("<x")) << member;
    }
    EXPECT_EQ(Carried<Sample::Thing>("<x><new><name>inner</name></new><name a=\"b\">a\xff&#1;</name></x>"),
              "<x><name>a\xff&#01;</name></x>");
}

TEST(XmlCodec, TruncatesTheNamesOfAPeer) {
    const std::string name(100'000, 'n');
    EXPECT_EQ(CarriedMembers("<" + name + "/>", Unknown::Refuse),
              "element x/" + name.substr(0, 198) + ": expected a member of Everything");
    EXPECT_EQ(CarriedMembers("<thing xsi:type=\"" + name + "\"/>", Unknown::Refuse),
              "element x/thing: expected a Thing, not the type " + name.substr(0, 64));
}

TEST(XmlCodec, CarriesAReferenceOfAnyText) {
    Writer writer;
    WriteReference(writer, "r", MoRef("A \"quoted\"\n<type>", "id & \xc3\xa9"));
    const std::string text = writer.Take();
    EXPECT_EQ(text, "<r type=\"A &quot;quoted&quot;&#10;&lt;type&gt;\">id &amp; \xc3\xa9</r>");
    pugi::xml_document document;
    document.load_buffer(text.data(), text.size(), pugi::parse_escapes);
    const auto reference = ReadReference(document.first_child(), {});
    EXPECT_EQ(reference->GetType(), "A \"quoted\"\n<type>");
    EXPECT_EQ(reference->GetId(), "id & \xc3\xa9");
}

// The bytes that UTF-8 would have for a code point, valid or not.
std::string Encode(unsigned long code) {
    std::size_t length = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    const unsigned long lead = length == 1 ? 0 : 0xf00UL >> length & 0xffUL;
    std::string bytes;
    for (; length > 1; --length, code >>= 6U) {
        bytes.insert(bytes.begin(), static_cast<char>(0x80U | (code & 0x3fU)));
    }
    return static_cast<char>(lead | code) + bytes;
}

// The characters of XML 1.0, as its grammar lists them.
bool IsXmlCharacter(unsigned long code) {
    return code == 0x9 || code == 0xa || code == 0xd || (code >= 0x20 && code <= 0xd7ff) ||
           (code >= 0xe000 && code <= 0xfffd) || (code >= 0x10000 && code <= 0x10ffff);
}

TEST(IsText, AgreesWithTheGrammarOfXmlForEveryCodePoint) {
    for (unsigned long code = 0; code < 0x200000; ++code) {
        ASSERT_EQ(IsText(Encode(code)), IsXmlCharacter(code)) << std::hex << code;
        if (code < 0x11000 || code > 0x10f000) {
            ASSERT_EQ(IsText("a" + Encode(code) + "b"), IsXmlCharacter(code)) << std::hex << code;
        }
    }
}

TEST(IsText, RefusesEveryTruncatedCharacter) {
    for (const unsigned long code : {0x80UL, 0x7ffUL, 0x800UL, 0xfffdUL, 0x10000UL, 0x10ffffUL}) {
        const std::string whole = Encode(code);
        for (std::size_t length = 1; length < whole.size(); ++length) {
            EXPECT_FALSE(IsText(whole.substr(0, length))) << std::hex << code;
            EXPECT_FALSE(IsText(whole.substr(0, length) + "a")) << std::hex << code;
            EXPECT_FALSE(IsText(whole.substr(length))) << std::hex << code;
        }
    }
}

TEST(IsText, RefusesOverlongFormsAndStrayBytesAndLooksBeyondANul) {
    for (const char* text :
         {"\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xf0\x80\x80\x80", "\xf0\x8f\xbf\xbf",
          "\x80", "\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xf8\x88\x80\x80\x80", "\xfe", "\xff"}) {
        EXPECT_FALSE(IsText(text));
    }
    EXPECT_FALSE(IsText(std::string_view("a\0b", 3)));
    EXPECT_TRUE(IsText(std::string_view()));
}

}  // namespace
}  // namespace Ordane::Xml
