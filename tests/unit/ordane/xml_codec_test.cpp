#include "runtime/ordane/xml_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/messages.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane::Xml {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// Reads as messages do.
class Document {
  public:
    explicit Document(const std::string& text) {
        const auto result = document.load_buffer(
            text.data(), text.size(), pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata);
        EXPECT_TRUE(result) << result.description() << " in " << text;
    }
    pugi::xml_node GetRoot() const { return document.first_child(); }

  private:
    pugi::xml_document document;
};

template <class T>
Tessim::Ref<T> Read(const std::string& text, Unknown unknown = Unknown::Ignore) {
    const Document document(text);
    return Tessim::NarrowToType<T>(ReadObject(document.GetRoot(), T::StaticType(), unknown));
}

// Why `text` is refused as a T.
template <class T>
std::string Refusal(const std::string& text, Unknown unknown = Unknown::Ignore) {
    return Sample::FailureOf<Tessim::InvalidArgumentException>([&] { Read<T>(text, unknown); });
}

std::string Write(const DataObject& object) {
    pugi::xml_document document;
    WriteObject(document, "x", object, *object.GetDataObjectType());
    std::ostringstream text;
    document.save(text, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    return text.str();
}

// The XML of an Everything of which only the required members and `member` are set.
std::string EverythingWith(const std::string& member) {
    std::string text = "<x>";
    for (const auto& [name, value] :
         {std::pair{"flag", "true"}, std::pair{"small", "1"}, std::pair{"large", "2"}, std::pair{"text", "t"},
          std::pair{"state", "open"}}) {
        if (!member.starts_with(std::string("<") + name + ">")) {
            text += std::string("<") + name + ">" + value + "</" + name + ">";
        }
    }
    return text + member + "</x>";
}

constexpr const char* everything =
    "<x><flag>true</flag><flagMaybe>false</flagMaybe><flagList>false</flagList><flagList>true</flagList>"
    "<small>-2147483648</small><smallMaybe>2147483647</smallMaybe><smallList>1</smallList><smallList>2</"
    "smallList>"
    "<large>-9223372036854775808</large><largeMaybe>9223372036854775807</largeMaybe>"
    "<largeList>3</largeList><largeList>4</largeList>"
    "<text>a text</text><textMaybe>maybe</textMaybe><textList>first</textList><textList>second</textList>"
    "<state>open</state><stateMaybe>closed</stateMaybe><stateList>sold</stateList><stateList>open</stateList>"
    "<thing xsi:type=\"SharpTool\"><name>saw</name></thing>"
    "<thingList><name>cup</name></thingList>"
    "<thingList xsi:type=\"RedToy\"><name>ball</name><count>7</count></thingList>"
    "<thingListMaybe><name>jug</name></thingListMaybe>"
    "<thingListMaybe xsi:type=\"RedToy\"><name>kite</name><count>7</count></thingListMaybe>"
    "<reference type=\"Shop\">shop-2</reference><person type=\"Person\">ann</person>"
    "<personList type=\"Person\">bob</personList><personList type=\"Person\">cy</personList></x>";

TEST(XmlCodec, WritesAndReadsEveryKindOfMemberInTheOrderOfItsType) {
    EXPECT_EQ(Write(*Sample::MakeEverything()), everything);
    EXPECT_EQ(Write(*Read<Sample::Everything>(everything, Unknown::Refuse)), everything);
}

TEST(XmlCodec, ReadsEachMemberForItsGetter) {
    const auto all = Read<Sample::Everything>(everything);
    EXPECT_TRUE(all->IsFlag());
    EXPECT_EQ(all->IsFlagMaybe(), false);
    EXPECT_THAT(all->IsFlagList(), ElementsAre(false, true));
    EXPECT_EQ(all->GetSmall(), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(all->GetSmallMaybe(), std::numeric_limits<std::int32_t>::max());
    EXPECT_THAT(all->GetSmallList(), ElementsAre(1, 2));
    EXPECT_EQ(all->GetLarge(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(all->GetLargeMaybe(), std::numeric_limits<std::int64_t>::max());
    EXPECT_THAT(all->GetLargeList(), ElementsAre(3, 4));
    EXPECT_EQ(all->GetText(), "a text");
    EXPECT_EQ(all->GetTextMaybe(), "maybe");
    EXPECT_THAT(all->GetTextList(), ElementsAre("first", "second"));
    EXPECT_EQ(all->GetState(), Sample::Shop::State::open);
    EXPECT_EQ(all->GetStateMaybe(), Sample::Shop::State::closed);
    EXPECT_THAT(all->GetStateList(), ElementsAre(Sample::Shop::State::sold, Sample::Shop::State::open));
    EXPECT_EQ(all->GetThing()->GetDataObjectType(), GetType<Sample::Tool>());
    ASSERT_EQ(all->GetThingList()->GetLength(), 2);
    const auto* toy = Tessim::NarrowToType<Sample::RedToy>((*all->GetThingList())[1]);
    ASSERT_NE(toy, nullptr);
    EXPECT_EQ(toy->GetName(), "ball");
    EXPECT_EQ(toy->GetCount(), 7);
    EXPECT_EQ((*all->GetThingListMaybe())[0]->GetName(), "jug");
    EXPECT_EQ(all->GetReference()->GetType(), "Shop");
    EXPECT_EQ(all->GetReference()->GetId(), "shop-2");
    EXPECT_EQ(all->GetPerson()->GetId(), "ann");
    EXPECT_EQ((*all->GetPersonList())[1]->GetId(), "cy");
}

TEST(XmlCodec, AcceptsMembersInAnyOrderAndNamesAndTypesOfAnyPrefix) {
    const Document document("<a:x xsi:type=\"b:Toy\"><c:count>3</c:count><d:name>top</d:name></a:x>");
    const auto toy = ReadObject(document.GetRoot(), Sample::Thing::StaticType(), Unknown::Refuse);
    EXPECT_EQ(Write(*toy), "<x><name>top</name><count>3</count></x>");
    EXPECT_EQ(toy->GetDataObjectType(), GetType<Sample::Toy>());
    EXPECT_EQ(LocalName(document.GetRoot()), "x");
}

TEST(XmlCodec, DistinguishesAnEmptyTextFromAnAbsentOne) {
    for (const char* member : {"<textMaybe/>", "<textMaybe></textMaybe>"}) {
        EXPECT_EQ(Read<Sample::Everything>(EverythingWith(member))->GetTextMaybe(), "");
    }
    const auto all = Read<Sample::Everything>(EverythingWith(""));
    EXPECT_FALSE(all->GetTextMaybe().has_value());
    EXPECT_EQ(Write(*all).find("textMaybe"), std::string::npos);
    all->SetTextMaybe("");
    EXPECT_NE(Write(*all).find("<textMaybe/>"), std::string::npos);
    EXPECT_EQ(Read<Sample::Thing>("<x><name/></x>")->GetName(), "");
}

TEST(XmlCodec, ReadsTheElementsOfAListBetweenOthers) {
    const auto all = Read<Sample::Everything>(
        EverythingWith("<textList/><textList>a</textList><largeList>5</largeList><textList>b</textList>"));
    EXPECT_THAT(all->GetTextList(), ElementsAre("", "a", "b"));
    EXPECT_THAT(all->GetLargeList(), ElementsAre(5));
}

TEST(XmlCodec, ReadsAnAbsentListAsEmptyOrNullAndWritesBothAsAbsent) {
    const auto all = Read<Sample::Everything>(EverythingWith(""));
    EXPECT_THAT(all->GetSmallList(), IsEmpty());
    ASSERT_NE(all->GetThingList(), nullptr);
    EXPECT_EQ(all->GetThingList()->GetLength(), 0);
    EXPECT_EQ(all->GetThingListMaybe(), nullptr);
    const std::string without = Write(*all);
    all->SetThingListMaybe(Tessim::MakeRef<DataArray<Sample::Thing>>());
    EXPECT_EQ(Write(*all), without);
}

TEST(XmlCodec, ReadsTextsWithTheirWhiteSpaceCharacterDataAndEntitiesOfXml) {
    for (const auto& [content, text] :
         {std::pair{" ", " "},
          {" \n\ta  b ", " \n\ta  b "},
          {"a<![CDATA[<b>&amp;]]>c", "a<b>&amp;c"},
          {" <![CDATA[ ]]> ", "   "},
          {"a<!-- no <b> -->c", "ac"},
          {"<![CDATA[]]>", ""},
          {"a<?target data?>b", "ab"},
          {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
          {"&#65;&#x42;&#xe9;&#8364;&#x1F600;", "AB\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
          {"&lol;", "&lol;"}}) {
        const auto thing =
            Read<Sample::Thing>("<x><name>" + std::string(content) + "</name></x>", Unknown::Refuse);
        EXPECT_EQ(thing->GetName(), text);
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

TEST(XmlCodec, RefusesTextsThatAreNoValue) {
    const std::string whole = "a whole number from ";
    for (const auto& [element, expected, texts] :
         std::vector<std::tuple<std::string, std::string, std::vector<std::string>>>{
             {"small",
              whole + "-2147483648 to 2147483647",
              {"2147483648", "-2147483649", "99999999999999999999999", "", " ", "one", "1.0", "0x10", "1 2",
               "+1", "--1", "-", "1e3", "1<b/>2x"}},
             {"large",
              whole + "-9223372036854775808 to 9223372036854775807",
              {"9223372036854775808", "-9223372036854775809"}},
             {"flag", "true or false", {"", "True", "yes", "2", "tru", "true false"}},
             {"state", "a State", {"", "1", "Open", "open ", "ajar"}}}) {
        for (const std::string& text : texts) {
            EXPECT_EQ(Refusal<Sample::Everything>(
                          EverythingWith("<" + element + ">" + text + "</" + element + ">")),
                      "element x/" + element + ": expected " + expected)
                << text;
        }
    }
}

TEST(XmlCodec, AcceptsBooleansAsWordsAndDigitsAndWhiteSpaceAroundValues) {
    for (const auto& [text, value] :
         {std::pair{"true", true}, {"1", true}, {"false", false}, {"0", false}, {" true\r\n", true}}) {
        const auto all = Read<Sample::Everything>(EverythingWith(std::string("<flag>") + text + "</flag>"));
        EXPECT_EQ(all->IsFlag(), value) << text;
    }
    EXPECT_EQ(Read<Sample::Everything>(EverythingWith("<small>\n  12\t</small>"))->GetSmall(), 12);
}

TEST(XmlCodec, RefusesObjectsThatDoNotFitTheirType) {
    for (const auto& [member, refusal] : {
             std::pair{"<thing xsi:type=\"Bomb\"><name>b</name></thing>",
                       "thing: expected a Thing, not the type Bomb"},
             {"<thing xsi:type=\"Everything\"/>", "thing: expected a Thing, not the type Everything"},
             {"<thing xsi:type=\"\"><name>b</name></thing>", "thing: expected a Thing, not the type "},
             {"<thing/>", "thing: expected the member name"},
             {"<thing xsi:type=\"Toy\"><name>top</name></thing>", "thing: expected the member count"},
             {"<thing xsi:type=\"Toy\"><count>3</count></thing>", "thing: expected the member name"},
             {"<thing><name>a</name><name>a</name></thing>", "thing/name: expected one element of this name"},
             {"<textMaybe/><textMaybe/>", "textMaybe: expected one element of this name"},
             {"<reference>shop-1</reference>", "reference: expected a reference with the type of its object"},
             {"<person type=\"\">ann</person>", "person: expected a reference with the type Person"},
             {"<person type=\"Shop\">ann</person>", "person: expected a reference with the type Person"},
         }) {
        EXPECT_EQ(Refusal<Sample::Everything>(EverythingWith(member)), std::string("element x/") + refusal);
    }
    EXPECT_EQ(Refusal<Sample::Toy>("<x xsi:type=\"Thing\"><name>b</name></x>"),
              "element x: expected a Toy, not the type Thing");
}

TEST(XmlCodec, RefusesAsServerOnlyUnknownElementsAndWhatXmlCannotCarry) {
    const std::string text = "textMaybe: expected a text that XML can carry";
    const std::string reference = "reference: expected a reference that XML can carry";
    for (const auto& [member, refusal] : {
             std::pair<std::string, std::string>{"<new><textMaybe>inner</textMaybe></new>",
                                                 "new: expected a member of Everything"},
             {"<thingList xsi:type=\"Toy\"><name>a</name><count>1</count><Name/></thingList>",
              "thingList/Name: expected a member of Toy"},
             {"<textMaybe>&#1;</textMaybe>", text},
             {"<textMaybe>&#xD800;</textMaybe>", text},
             {"<textMaybe>&#xFFFE;</textMaybe>", text},
             {"<textMaybe>\x01</textMaybe>", text},
             {"<textMaybe>\xff</textMaybe>", text},
             {"<textMaybe>\xc3</textMaybe>", text},
             {"<reference type=\"Shop\">&#2;</reference>", reference},
             {"<reference type=\"&#2;\">shop-1</reference>", reference},
         }) {
        EXPECT_EQ(Refusal<Sample::Everything>(EverythingWith(member), Unknown::Refuse),
                  "element x/" + refusal);
        EXPECT_EQ(Refusal<Sample::Everything>(EverythingWith(member)), "nothing") << member;
    }
    EXPECT_EQ(
        Write(*Read<Sample::Thing>("<x><new><name>inner</name></new><name a=\"b\">a\xff&#1;</name></x>")),
        "<x><name>a\xff&#01;</name></x>");
}

TEST(XmlCodec, CarriesAReferenceOfAnyText) {
    pugi::xml_document document;
    WriteReference(document, "r", MoRef("A \"quoted\" <type>", "id & \xc3\xa9"));
    const auto reference = ReadReference(document.first_child(), {});
    EXPECT_EQ(reference->GetType(), "A \"quoted\" <type>");
    EXPECT_EQ(reference->GetId(), "id & \xc3\xa9");
}

TEST(XmlCodec, TruncatesAndEscapesTheNamesOfAPeer) {
    const std::string longName(100'000, 'n');
    EXPECT_LT(Refusal<Sample::Thing>("<x><" + longName + "/></x>", Unknown::Refuse).size(), 300U);
    EXPECT_LT(Refusal<Sample::Thing>("<x xsi:type=\"" + longName + "\"/>").size(), 300U);
    EXPECT_EQ(Refusal<Sample::Thing>("<x xsi:type=\"a&#10;b\xc3\xa9\"/>"),
              "element x: expected a Thing, not the type a\\x0ab\\xc3\\xa9");
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
