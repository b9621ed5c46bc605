#include "xml/xml_document.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "faults.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;
using test_support::Fault;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedFault;
using test_support::ScratchDirectory;
using test_support::SmallDisk;
using test_support::write_file;

constexpr char kVars[] = "//norvak/Process/Data/var";

/// A file named document.xml in a scratch directory, and the document to load it into.
class Xml : public testing::Test {
 protected:
  [[nodiscard]] bool load(const std::string& text) {
    write_file(path_, text);
    return document_->load(path_.c_str()) != 0;
  }

  /// Bytes of the document when it is saved.
  [[nodiscard]] std::string saved() {
    const std::string path = scratch_ / "saved.xml";
    EXPECT_NE(document_->save(path.c_str()), 0);
    return read_file(path);
  }

  [[nodiscard]] XmlNode first(const char* xpath) {
    return document_->root().select_nodes(xpath).item(0);
  }

  /// The first setting of that name, found as the program does it.
  [[nodiscard]] XmlNode setting(const std::string& name) {
    const XmlNodeList list = document_->root().select_nodes(kVars);
    int i = 0;
    while (i < list.length() && list.item(i).get_attribute("name") != name) ++i;
    EXPECT_LT(i, list.length());
    return list.item(i);
  }

  /// The "name" attributes of the selected elements, joined.
  [[nodiscard]] std::string names_of(const char* xpath) {
    const XmlNodeList list = document_->root().select_nodes(xpath);
    std::string names;
    for (int i = 0; i < list.length(); ++i) names += list.item(i).get_attribute("name") + " ";
    return names;
  }

  const ScratchDirectory scratch_;
  // In memory where that is possible: every save waits for the disk.
  const SmallDisk disk_{scratch_.path(), std::size_t{512} * 1024 * 1024};
  const std::string path_ = scratch_ / "document.xml";
  const std::unique_ptr<XmlDocument> document_ = newXmlDocument();
};

// ---- What a change leaves alone ----

std::string widen(const std::string& text, std::size_t unit_bytes, bool big_endian) {
  const std::string zeros(unit_bytes - 1, '\0');
  std::string wide;
  for (const char c : text) wide += big_endian ? zeros + c : c + zeros;
  return wide;
}

std::string ascii(const std::string& text) { return text; }
std::string utf16le(const std::string& text) { return widen(text, 2, false); }
std::string utf16be(const std::string& text) { return widen(text, 2, true); }
std::string utf32le(const std::string& text) { return widen(text, 4, false); }
std::string utf32be(const std::string& text) { return widen(text, 4, true); }

/// A document whose setting "version" has its value between `before` and `after`. Both must be
/// unchanged around a new value.
struct Awkward {
  const char* name;
  std::string before;
  std::string after;
  std::string (*encode)(const std::string& ascii) =
      nullptr;  ///< of the value; null for one byte per unit
};

std::ostream& operator<<(std::ostream& out, const Awkward& document) {
  return out << document.name;
}

// The text around the setting in documents that test something else.
const std::string kOpen = "<norvak><Process><Data>";
const std::string kClose = "</Data></Process></norvak>";
const std::string kVar = "<var name=\"version\" value=\"";
const std::string kHead = kOpen + kVar;
const std::string kTail = "\"/>" + kClose + "\n";

const Awkward kAwkward[] = {
    // Around the root element.
    {"Plain", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + kHead, kTail},
    {"NoDeclaration", kHead, kTail},
    {"DeclarationInSingleQuotes", "<?xml version='1.0' encoding='utf-8'?>" + kHead, kTail},
    {"DeclarationWithBlanks", "<?xml   version = \"1.0\"\n standalone='no'  ?>\n" + kHead, kTail},
    {"ByteOrderMark", "\xEF\xBB\xBF" + kHead, kTail},
    {"ByteOrderMarkAndDeclaration", "\xEF\xBB\xBF<?xml version=\"1.0\"?>" + kHead, kTail},
    {"BlanksBeforeTheRoot", "\n \t\r\n" + kHead, kTail},
    {"NoFinalNewline", kHead, "\"/>" + kClose},
    {"ManyFinalNewlines", kHead, kTail + "\n\n  \n\t\n"},
    {"CommentsOutside", "<!-- a --><!---->\n" + kHead, kTail + "<!-- b < & \" -->"},
    {"InstructionsOutside", "<?a b=\"c\"?><?d?>" + kHead, kTail + "<?e value=\"1\" ?>"},
    {"DoctypeName", "<!DOCTYPE norvak>" + kHead, kTail},
    {"DoctypeSystem", "<!DOCTYPE norvak SYSTEM \"a>b.dtd\" >\n" + kHead, kTail},
    {"DoctypePublic", "<!DOCTYPE norvak PUBLIC '-//X//Y' 'z.dtd'>" + kHead, kTail},
    {"DoctypeInternalSubset",
     "<!DOCTYPE norvak [\n<!ENTITY host \"10.0.0.1\">\n<!ATTLIST var value CDATA #IMPLIED>\n"
     "<!-- ]> --><!ENTITY q '\"'>\n]>\n" +
         kHead,
     kTail},
    {"DoctypeAfterTheRoot", kHead, kTail + "<!DOCTYPE norvak>"},

    // Line ends and blanks.
    {"CarriageReturnLineFeeds",
     "<?xml version=\"1.0\"?>\r\n<norvak>\r\n<Process>\r\n<Data>\r\n" + kVar,
     "\"/>\r\n</Data>\r\n</Process>\r\n</norvak>\r\n"},
    {"CarriageReturns", "<norvak>\r<Process>\r<Data>\r" + kVar,
     "\"/>\r</Data></Process></norvak>\r"},
    {"MixedLineEnds", "<norvak>\r\n<Process>\n<Data>\r\r\n" + kVar, "\"/>\n\r" + kClose},
    {"BlanksAtLineEnds", "<norvak>  \t\n\t <Process> \n<Data>\t\n  " + kVar, "\"/>   \n" + kClose},
    {"BlanksInTags", "<norvak ><Process\t><Data\n><var  \t name=\"version\"   value=\"",
     "\"  />\n</Data\t></Process ></norvak\n>"},
    {"BlanksAroundEqualSigns", kOpen + "<var name =\"version\" value\n=\t \"", kTail},
    {"NewlinesBetweenAttributes", kOpen + "<var\n  name=\"version\"\r\n  value=\"",
     "\"\n/>" + kClose},
    {"VeryLongTag",
     kOpen + "<var name=\"version\"" + std::string(100'000, ' ') + "a=\"" +
         std::string(100'000, 'b') + "\" value=\"",
     kTail},

    // Elements.
    {"EndTagInsteadOfSlash", kOpen + "<a></a><b/>" + kVar, "\"></var><c></c><d />" + kClose},
    {"TextInTheElement", kHead, "\">text &lt;var&gt; </var>" + kClose},
    {"ElementsInTheElement", kHead, "\"><var name=\"version\" value=\"0\"/></var>" + kClose},
    {"OtherElements",
     "<norvak a=\"1\"><Other><Data><var name=\"version\" value=\"0\"/></Data></Other>"
     "<Process><var name=\"version\" value=\"0\"/><Data>" +
         kVar,
     kTail},
    {"Namespaces",
     "<x:root xmlns:x=\"urn:x\"><norvak xmlns=\"\"><Process><Data x:value=\"1\">" + kVar,
     "\" x:value=\"2\"/>" + kClose + "</x:root>"},
    {"SecondSettingOfThatName", kHead, "\"/>" + kVar + "0" + kTail},
    {"MixedContent", "<norvak>a <b>c</b> d<Process> e <Data>f" + kVar, "\"/>g" + kClose},
    {"XmlSpaceAndLanguage",
     "<norvak xml:space=\"preserve\" xml:lang='ne'> <Process>  <Data>" + kVar, kTail},

    // Attributes.
    {"SingleQuotes", kOpen + "<var name='version' value='", "'/>" + kClose},
    {"MixedQuotes", kOpen + "<var name=\"version\" a='\"' b=\"'\" value='",
     "' c=\"it's\"/>" + kClose},
    {"ValueBeforeName", kOpen + "<var value=\"", "\" name=\"version\"/>" + kClose},
    {"SimilarNames",
     kOpen + "<var Value=\"a\" values=\"b\" xvalue=\"c\" x:value=\"d\" value-x=\"e\" valu=\"f\" "
             "name=\"version\" value=\"",
     "\" VALUE=\"g\"/>" + kClose},
    {"SameAttributeTwice", kOpen + "<var name=\"version\" name=\"x\" value=\"",
     "\" value=\"second\"/>" + kClose},
    {"TagsInValues", kOpen + "<var a=\"<var value='0'/>\" b=\"/>\" c='>' name=\"version\" value=\"",
     "\" d=\"]]>\" e=\"-->\"/>" + kClose},
    {"AssignmentsInValues",
     kOpen + "<var a=\" value='0' \" b='value=\"0\"' name=\"version\" value=\"",
     "\" c=\" name=x\"/>" + kClose},
    {"BlanksInValues", kOpen + "<var a=\" b\tc\nd\r\ne \" name=\"version\" value=\"", kTail},

    // References, character data, comments and instructions.
    {"EntityReferences",
     "<!DOCTYPE norvak [<!ENTITY host \"h\">]>" + kOpen +
         "<var name=\"update_host\" value=\"&host;\"/>"
         "<a b='&host;&x;'>&host; &amp;host;</a>" +
         kVar,
     "\" c=\"&host;\"/>&host;" + kClose},
    {"PredefinedEntities", kOpen + "<a b=\"&lt;&gt;&amp;&quot;&apos;\">&gt; > &apos; '</a>" + kVar,
     "\" c='&gt;>'/>" + kClose},
    {"CharacterReferences",
     kOpen + "<a b=\"&#65;&#x42;&#10;&#xE9;&#x1F600;\">&#67;&#13;</a>" + kVar, kTail},
    {"LoneAmpersands", kOpen + "<a b=\"x&y & &;\">p & q &r</a>" + kVar, kTail},
    {"CharacterData", kOpen + "<![CDATA[<var name=\"version\" value=\"0\"/> & ]] > ]]>" + kVar,
     "\"/><a><![CDATA[]]><![CDATA[]]]]><![CDATA[>]]></a>" + kClose},
    {"Comments",
     "<norvak><!-- a --><Process><Data><!--<var name=\"version\" value=\"0\"/>-->" + kVar,
     "\"/><!-- \r\n\t é & < ' \" --><!----><a><!--b--></a>" + kClose},
    {"Instructions",
     "<norvak><?var name=\"version\" value=\"0\"?><Process><Data><?a <b> & ?>" + kVar,
     "\"/><?c?>" + kClose},

    // Encodings of one byte per unit: bytes are bytes.
    {"Utf8", kOpen + "<a b=\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\">\xE0\xA4\xA8</a>" + kVar,
     "\" c='\xC2\xA0'/>" + kClose},
    {"Latin1",
     "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + kOpen + "<a b=\"\xE9\xFC\">\xDF</a>" +
         kVar,
     "\" c='\xFF\xA0'/>" + kClose},
    {"Windows1251",
     "<?xml version='1.0' encoding='windows-1251'?>" + kOpen + "<!--\xCF\xF0\xE8-->" + kVar,
     "\" c='\xE2\xE5\xF2'/>" + kClose},
    {"Gbk",
     "<?xml version=\"1.0\" encoding=\"GBK\"?>" + kOpen +
         "<a b=\"\xC5\xE4\xD6\xC3\x81\x5C\">\x81\x5B</a>" + kVar,
     "\" c='\xD6\x5D'/>" + kClose},
    {"Gb18030",
     "<?xml version=\"1.0\" encoding=\"GB18030\"?>" + kOpen + "<!-- \x81\x30\x81\x30 -->" + kVar,
     kTail},
    {"ShiftJis",
     "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?>" + kOpen + "<a b=\"\x83\x5C\x95\x5C\"/>" +
         kVar,
     kTail},
    {"NotUtf8", kOpen + "<a b=\"\xFF\xFE\x80\xC3\">\xED\xA0\x80</a>" + kVar,
     "\" c='\xF5\xC0\x80'/>" + kClose},
    {"ControlCharacters", kOpen + "<a b=\"\x01\x7F\">\x02\x1B</a>" + kVar, kTail},

    // Wider units, written as the parser writes them.
    {"Utf16LittleEndian",
     "\xFF\xFE" + utf16le("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n" + kHead),
     utf16le(kTail), utf16le},
    {"Utf16BigEndian",
     "\xFE\xFF" + utf16be("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n" + kHead),
     utf16be(kTail), utf16be},
    {"Utf16LittleEndianUnmarked", utf16le(kHead), utf16le(kTail), utf16le},
    {"Utf16BigEndianUnmarked", utf16be("<?xml version=\"1.0\"?>" + kHead), utf16be(kTail), utf16be},
    {"Utf16Pairs",  // U+10000, U+1F600, U+10FFFF, and U+FFFF
     "\xFF\xFE" + utf16le("<!--") + "\x00\xD8\x00\xDC\x3D\xD8\x00\xDE"s + "\xFF\xDB\xFF\xDF" +
         "\xFF\xFF" + utf16le("-->" + kHead),
     utf16le("\" a=\"") + "\xAC\x20" + utf16le("\"/>" + kClose), utf16le},
    {"Utf16Awkward",
     "\xFE\xFF" + utf16be("<!DOCTYPE norvak [<!ENTITY h 'x'>]>\r\n<?a?><norvak>\r<Process> <Data>"
                          "<a b=\"&h;&#65;\n&\"/>\t<![CDATA[<]]><var name=\"version\" value=\""),
     utf16be("\"/>&h;&#65; > \"'<!-- ' -->" + kClose + "\r\n\r\n"), utf16be},
    {"Utf32LittleEndian", "\xFF\xFE\0\0"s + utf32le(kHead), utf32le(kTail), utf32le},
    {"Utf32BigEndian", "\0\0\xFE\xFF"s + utf32be(kHead), utf32be(kTail), utf32be},
    {"Utf32LittleEndianUnmarked", utf32le(kHead), utf32le(kTail), utf32le},
    {"Utf32BigEndianUnmarked", utf32be(kHead),
     utf32be("\" a=\"") + "\0\1\0\0\0\x10\xFF\xFF"s + utf32be(kTail), utf32be},
};

class AwkwardXml : public Xml, public testing::WithParamInterface<Awkward> {
 protected:
  /// The document with this value.
  [[nodiscard]] static std::string with_value(const std::string& value) {
    const Awkward& document = GetParam();
    return document.before + (document.encode == nullptr ? value : document.encode(value)) +
           document.after;
  }
};

TEST_P(AwkwardXml, OnlyTheSetValueChanges) {
  ASSERT_TRUE(load(with_value("7.0.0.1")));
  EXPECT_TRUE(saved() == with_value("7.0.0.1"));
  XmlNode version = setting("version");
  EXPECT_EQ(version.get_attribute("value"), "7.0.0.1");
  for (const char* value : {"7.0.0.2", "7", "", "7.0.0.123456789", "8"}) {
    version.set_attribute("value", value);
    EXPECT_EQ(version.get_attribute("value"), value);
    EXPECT_TRUE(saved() == with_value(value)) << value << " in\n" << saved();
  }
}

TEST_P(AwkwardXml, WhatIsSavedLoadsAgainAndIsSavedTheSame) {
  constexpr char kValue[] = "a & b < c > d \"e\" 'f'\t\n\r g";
  ASSERT_TRUE(load(with_value("7.0.0.1")));
  setting("version").set_attribute("value", kValue);
  const std::string once = saved();
  ASSERT_TRUE(load(once));
  EXPECT_EQ(setting("version").get_attribute("value"), kValue);
  EXPECT_TRUE(saved() == once);
}

TEST_P(AwkwardXml, SeveralElementsChangeInAnyOrder) {
  ASSERT_TRUE(load(with_value("7.0.0.1")));
  document_->root().set_attribute("value", "a long value before the setting");
  setting("version").set_attribute("value", "7.0.0.12");
  document_->root().set_attribute("value", "");
  setting("version").set_attribute("value", "7");
  ASSERT_TRUE(load(saved()));
  EXPECT_EQ(setting("version").get_attribute("value"), "7");
  setting("version").set_attribute("value", "7.0.0.1");
  std::string text = saved();
  const auto encode = GetParam().encode;
  const std::string added = encode == nullptr ? " value=\"\"" : encode(" value=\"\"");
  const std::size_t place = text.find(added);
  ASSERT_NE(place, std::string::npos);
  EXPECT_TRUE(text.erase(place, added.size()) == with_value("7.0.0.1"));
}

INSTANTIATE_TEST_SUITE_P(Documents, AwkwardXml, testing::ValuesIn(kAwkward),
                         test_support::case_name);

// ---- What a save changes in a wide document ----

/// A document in UTF-16 or UTF-32, and how it is saved.
struct Respelled {
  const char* name;
  std::string before;
  std::string after;
};

class RespelledXml : public Xml, public testing::WithParamInterface<Respelled> {};

TEST_P(RespelledXml, KeepsAllThatMeansSomething) {
  for (const auto encode : {utf16le, utf16be, utf32le, utf32be}) {
    ASSERT_TRUE(load(encode(GetParam().before)));
    EXPECT_TRUE(saved() == encode(GetParam().after));
    ASSERT_TRUE(load(saved()));
    EXPECT_TRUE(saved() == encode(GetParam().after));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Documents, RespelledXml,
    testing::Values(Respelled{"SingleQuotes", "<a b='1' c=\"2\"/>", "<a b=\"1\" c=\"2\"/>"},
                    Respelled{"QuotesInSingleQuotes", "<a b='\"1\" &quot;'/>",
                              "<a b=\"&quot;1&quot; &quot;\"/>"},
                    Respelled{"SingleQuotesInside", "<a b=\"it's\"/>", "<a b=\"it's\"/>"},
                    Respelled{"BlanksInTags", "<a \t b\n=\r'1'  ><c  /></a\n>",
                              "<a b=\"1\"><c/></a>"},
                    Respelled{"Declaration", "<?xml  version='1.0'\n standalone = 'no' ?><a/>",
                              "<?xml version=\"1.0\" standalone=\"no\"?><a/>"},
                    Respelled{"Doctype", "<!DOCTYPE  a SYSTEM 'b.dtd' ><a/>",
                              "<!DOCTYPE a SYSTEM 'b.dtd' ><a/>"}),
    test_support::case_name);

// ---- Setting attributes ----

struct Change {
  const char* name;
  std::string before;
  const char* value;
  std::string after;
};

class XmlChange : public Xml, public testing::WithParamInterface<Change> {};

/// Sets "value" of the first `var` and compares the whole text.
TEST_P(XmlChange, GivesTheExpectedText) {
  ASSERT_TRUE(load(GetParam().before));
  first("//var").set_attribute("value", GetParam().value);
  EXPECT_EQ(saved(), GetParam().after);
  EXPECT_EQ(first("//var").get_attribute("value"), GetParam().value);
  ASSERT_TRUE(load(saved()));
  EXPECT_EQ(first("//var").get_attribute("value"), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Escaped, XmlChange,
    testing::Values(
        Change{"Ampersand", "<var value=\"\"/>", "a&b &amp; &#65;",
               "<var value=\"a&amp;b &amp;amp; &amp;#65;\"/>"},
        Change{"AngleBrackets", "<var value=\"\"/>", "<b>", "<var value=\"&lt;b>\"/>"},
        Change{"QuotesInDoubleQuotes", "<var value=\"\"/>", "\"'", "<var value=\"&quot;&apos;\"/>"},
        Change{"QuotesInSingleQuotes", "<var value=''/>", "\"'", "<var value='&quot;&apos;'/>"},
        Change{"Blanks", "<var value=\"\"/>", " a\t\n\r b ",
               "<var value=\" a&#9;&#10;&#13; b \"/>"},
        Change{"OtherBytes", "<var value=\"\"/>", "\x7F\x80\xFF\xC3\xA9",
               "<var value=\"\x7F\x80\xFF\xC3\xA9\"/>"}),
    test_support::case_name);

INSTANTIATE_TEST_SUITE_P(
    Replaced, XmlChange,
    testing::Values(
        Change{"EntityReference", "<var value=\"&version;&amp;\"/>", "1", "<var value=\"1\"/>"},
        Change{"OtherQuotes", "<var value=\"it's\" a='b'/>", "1", "<var value=\"1\" a='b'/>"},
        Change{"AngleBracketsInside", "<var value='/><var value=\"\"/>'/>", "1",
               "<var value='1'/>"},
        Change{"NewlinesInside", "<var value='\r\n\t'/>", "1", "<var value='1'/>"},
        Change{"CarriageReturnBeforeEqualSign", "<var value\r='0'/>", "1", "<var value\r='1'/>"},
        Change{"TabBeforeEqualSign", "<var value\t='0'/>", "1", "<var value\t='1'/>"},
        Change{"CarriageReturnAfterElementName", "<var\rvalue='0'/>", "1", "<var\rvalue='1'/>"},
        Change{"TabAfterElementName", "<var\tvalue='0'/>", "1", "<var\tvalue='1'/>"},
        Change{"CarriageReturnAfterEqualSign", "<var value=\r'0'/>", "1", "<var value=\r'1'/>"},
        Change{"CarriageReturnAfterValue", "<var a='b'\rvalue='0'\r/>", "1",
               "<var a='b'\rvalue='1'\r/>"}),
    test_support::case_name);

INSTANTIATE_TEST_SUITE_P(
    Added, XmlChange,
    testing::Values(
        Change{"NoAttributes", "<var/>", "1", "<var value=\"1\"/>"},
        Change{"NoAttributesWithBlank", "<var />", "1", "<var value=\"1\" />"},
        Change{"NoAttributesWithEndTag", "<var></var>", "1", "<var value=\"1\"></var>"},
        Change{"AfterTheLastAttribute", "<var a='/>' b=\">\"/>", "1",
               "<var a='/>' b=\">\" value=\"1\"/>"},
        Change{"NoAttributesWithCarriageReturn", "<var\r/>", "1", "<var value=\"1\"\r/>"},
        Change{"NoAttributesWithTab", "<var\t></var>", "1", "<var value=\"1\"\t></var>"},
        Change{"BeforeBlanks", "<var a='b'\r\n \t>c</var >", "1",
               "<var a='b' value=\"1\"\r\n \t>c</var >"},
        Change{"Empty", "<var/>", "", "<var value=\"\"/>"},
        Change{"Escaped", "<var/>", "\"&'", "<var value=\"&quot;&amp;&apos;\"/>"},
        Change{"SimilarNames", "<var xvalue='1' values='2' VALUE='3' x:value='4'/>", "5",
               "<var xvalue='1' values='2' VALUE='3' x:value='4' value=\"5\"/>"},
        Change{"NameInAValue", "<var a=' value=\"1\" '/>", "2",
               "<var a=' value=\"1\" ' value=\"2\"/>"},
        Change{"ByteOrderMark", "\xEF\xBB\xBF<var/>", "1", "\xEF\xBB\xBF<var value=\"1\"/>"}),
    test_support::case_name);

TEST_F(Xml, ControlCharactersBecomeQuestionMarks) {
  std::string controls;
  for (char c = '\x01'; c < ' '; ++c) controls += c;
  std::string expected(31, '?');
  expected.replace(8, 2, "\t\n");
  expected[12] = '\r';
  std::string escaped = expected;
  escaped.replace(12, 1, "&#13;").replace(8, 2, "&#9;&#10;");
  for (const auto encode : {ascii, utf16le, utf16be, utf32le, utf32be}) {
    ASSERT_TRUE(load(encode("<var value=\"\"/>")));
    document_->root().set_attribute("value", controls.c_str());
    EXPECT_EQ(document_->root().get_attribute("value"), expected);
    EXPECT_TRUE(saved() == encode("<var value=\"" + escaped + "\"/>"));
  }
}

TEST_F(Xml, AnAddedAttributeCanBeChangedAgain) {
  ASSERT_TRUE(load("<a><var/><var name='b'/></a>"));
  const XmlNodeList vars = document_->root().select_nodes("//var");
  for (const char* value : {"1", "22", "", "333"}) {
    for (int i = 0; i < vars.length(); ++i) vars.item(i).set_attribute("value", value);
  }
  vars.item(0).set_attribute("name", "a");
  vars.item(0).set_attribute("value", "4");
  EXPECT_EQ(saved(), "<a><var value=\"4\" name=\"a\"/><var name='b' value=\"333\"/></a>");
}

TEST_F(Xml, ElementsInsideEachOtherChangeInAnyOrder) {
  ASSERT_TRUE(load("<a v='1'><b v='2'><c v='3'/></b><d v='4'/></a>"));
  for (const char* xpath : {"//d", "//b", "/a", "//c", "//a", "//d", "//b", "//c"}) {
    XmlNode node = first(xpath);
    node.set_attribute("v", (node.get_attribute("v") + "," + xpath).c_str());
  }
  EXPECT_EQ(saved(),
            "<a v='1,/a,//a'><b v='2,//b,//b'><c v='3,//c,//c'/></b><d v='4,//d,//d'/></a>");
}

TEST_F(Xml, EveryHandleOfAnElementShowsItsChanges) {
  ASSERT_TRUE(load("<a><var value='1'/></a>"));
  const XmlNodeList vars = document_->root().select_nodes("//var");
  const XmlNode before = vars.item(0);
  XmlNode copy = before;
  copy.set_attribute("value", "2");
  EXPECT_EQ(before.get_attribute("value"), "2");
  EXPECT_EQ(vars.item(0).get_attribute("value"), "2");
  EXPECT_EQ(first("//var[@value = '2']").get_attribute("value"), "2");
}

TEST_F(Xml, AValueThatIsNotUtf8DoesNotSpoilAWideDocument) {
  // Overlong forms of NUL, the quote and `<`, half a pair, too large a number, truncated sequences.
  const std::string hostile =
      "a\xC0\x80"
      "b\xC0\xA2"
      "c\xC0\xBC"
      "d\xED\xA0\x80"
      "e\xF7\xBF\xBF\xBF"
      "f\xFF\x80g\xE2\x82";
  for (const auto encode : {utf16le, utf16be, utf32le, utf32be}) {
    ASSERT_TRUE(load(encode("<a b=''/>")));
    document_->root().set_attribute("b", hostile.c_str());
    const std::string value = document_->root().get_attribute("b");
    EXPECT_EQ(value, "a?b\"c<d?e?fg");
    ASSERT_TRUE(load(saved()));
    EXPECT_EQ(document_->root().get_attribute("b"), value);
  }
}

TEST_F(Xml, AValueInAWideDocumentIsUtf8) {
  ASSERT_TRUE(load(utf16le("<a b=\"") + "\xE9\x00\xAC\x20\x00\xD8\x00\xDC"s + utf16le("\"/>")));
  EXPECT_EQ(document_->root().get_attribute("b"), "\xC3\xA9\xE2\x82\xAC\xF0\x90\x80\x80");
  document_->root().set_attribute("b", "\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
  EXPECT_TRUE(saved() == utf16le("<a b=\"") + "\xFF\xD7\x00\xE0\x00\xD8\x00\xDC\xFF\xDB\xFF\xDF"s +
                             utf16le("\"/>"));
}

// ---- Reading attributes ----

TEST_F(Xml, AnAttributeThatIsNotThereIsEmpty) {
  ASSERT_TRUE(load("<a b='1'/>"));
  EXPECT_EQ(document_->root().get_attribute("c"), "");
  EXPECT_EQ(document_->root().get_attribute("B"), "");
  EXPECT_EQ(document_->root().get_attribute(""), "");
}

TEST_F(Xml, ReferencesInAValueAreResolved) {
  ASSERT_TRUE(load("<a b='&lt;&gt;&amp;&quot;&apos;&#65;&#x42;&#10;&host;&'/>"));
  EXPECT_EQ(document_->root().get_attribute("b"), "<>&\"'AB\n&host;&");
}

TEST_F(Xml, TheFirstOfTwoAttributesOfOneNameCounts) {
  ASSERT_TRUE(load("<a b='1' b='2'/>"));
  EXPECT_EQ(document_->root().get_attribute("b"), "1");
}

TEST_F(Xml, BytesOfAValueAreNotConverted) {
  ASSERT_TRUE(load("<?xml version='1.0' encoding='ISO-8859-1'?><a b='\xE9\xC5\xE4'/>"));
  EXPECT_EQ(document_->root().get_attribute("b"), "\xE9\xC5\xE4");
}

// ---- Selecting ----

TEST_F(Xml, SelectsSettingsAtTheirPlaceOnly) {
  ASSERT_TRUE(
      load("<norvak><var name='a'/><Process><var name='b'/><Data><var name='c'/>"
           "<x><var name='d'/></x><var name='e'><var name='f'/></var></Data><data><var name='g'/>"
           "</data></Process><Data><var name='h'/></Data></norvak>"));
  EXPECT_EQ(names_of(kVars), "c e ");
}

TEST_F(Xml, SelectsBelowANorvakElementAnywhere) {
  ASSERT_TRUE(
      load("<x><y><norvak><Process><Data><var name='a'/></Data></Process></norvak></y>"
           "<norvak><Process><Data><var name='b'/></Data></Process></norvak></x>"));
  EXPECT_EQ(names_of(kVars), "a b ");
}

TEST_F(Xml, ListsInDocumentOrder) {
  ASSERT_TRUE(
      load("<norvak><Process><Data><norvak><Process><Data><var name='a'/></Data></Process>"
           "</norvak><var name='b'/></Data><Data><var name='c'/></Data></Process></norvak>"));
  EXPECT_EQ(names_of(kVars), "a b c ");
  EXPECT_EQ(names_of("//var[@name = 'c'] | //var[@name = 'a']"), "a c ");
  EXPECT_EQ(names_of("//var[@name = 'c']/preceding::var"), "a b ");
}

TEST_F(Xml, AnEmptyDataElementHoldsNoSettings) {
  ASSERT_TRUE(load("<norvak><Process><Data/></Process></norvak>"));
  EXPECT_EQ(document_->root().select_nodes(kVars).length(), 0);
}

TEST_F(Xml, SelectsFromAnElement) {
  ASSERT_TRUE(load("<a><b><c name='1'/></b><c name='2'/></a>"));
  const XmlNode b = first("//b");
  EXPECT_EQ(b.select_nodes("c").item(0).get_attribute("name"), "1");
  EXPECT_EQ(b.select_nodes("c").length(), 1);
  EXPECT_EQ(b.select_nodes("//c").length(), 2);
  EXPECT_EQ(b.select_nodes("..").length(), 1);
}

TEST_F(Xml, SelectsByRemainders) {
  ASSERT_TRUE(load("<a><b name='1'/><b name='2'/><b name='3'/><b name='4'/><b name='5'/></a>"));
  EXPECT_EQ(names_of("//b[@name mod 2 = 1]"), "1 3 5 ");
  EXPECT_EQ(names_of("//b[-@name mod 3 = -2]"), "2 5 ");
}

TEST_F(Xml, OnlyElementsAreListed) {
  ASSERT_TRUE(load("<a name='1'>text<b/><![CDATA[data]]></a>"));
  for (const char* xpath : {"//@name", "//text()", "/", "//comment()"}) {
    EXPECT_EQ(document_->root().select_nodes(xpath).length(), 0) << xpath;
  }
  EXPECT_EQ(document_->root().select_nodes("//node() | //@* | /").length(), 2);
}

TEST_F(Xml, AnExpressionThatSelectsNoNodesGivesAnEmptyList) {
  ASSERT_TRUE(load("<a/>"));
  for (const char* xpath : {"", "//", "///", "a[", "1 + 1", "'text'", "count(//a)", "f()", "$x",
                            "//a[unknown()]", "&", "<a/>"}) {
    EXPECT_EQ(document_->root().select_nodes(xpath).length(), 0) << xpath;
  }
  const std::string deep = std::string(100'000, '(') + "a" + std::string(100'000, ')');
  EXPECT_EQ(document_->root().select_nodes(deep.c_str()).length(), 0);
}

// ---- Handles without an element ----

void expect_harmless(XmlNode node) {
  EXPECT_EQ(node.get_attribute("a"), "");
  node.set_attribute("a", "b");
  EXPECT_EQ(node.get_attribute("a"), "");
  EXPECT_EQ(node.select_nodes("//*").length(), 0);
  EXPECT_EQ(node.select_nodes("[").length(), 0);
}

TEST_F(Xml, ADocumentThatWasNotLoadedHasAHarmlessRoot) {
  expect_harmless(document_->root());
  EXPECT_EQ(document_->root().select_nodes("//*").item(0).get_attribute("a"), "");
}

TEST_F(Xml, ItemsOutOfRangeAreHarmless) {
  ASSERT_TRUE(load("<a/>"));
  const XmlNodeList list = document_->root().select_nodes("//a");
  ASSERT_EQ(list.length(), 1);
  for (const int index : {-1, 1, 2, -2147483647 - 1, 2147483647}) expect_harmless(list.item(index));
  EXPECT_EQ(saved(), "<a/>");
}

TEST_F(Xml, AnEmptyListHasHarmlessItems) {
  ASSERT_TRUE(load("<a/>"));
  expect_harmless(document_->root().select_nodes("//b").item(0));
}

// ---- Loading ----

struct Malformed {
  const char* name;
  std::string text;
};

class MalformedXml : public Xml, public testing::WithParamInterface<Malformed> {};

TEST_P(MalformedXml, IsNotLoaded) {
  EXPECT_FALSE(load(GetParam().text));
  expect_harmless(document_->root());
  ASSERT_TRUE(load("<a/>"));
  EXPECT_FALSE(load(GetParam().text));
  expect_harmless(document_->root());
  EXPECT_EQ(document_->save((scratch_ / "saved.xml").c_str()), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Rejected, MalformedXml,
    testing::Values(
        // No or several roots, text around it.
        Malformed{"Empty", ""}, Malformed{"Blanks", " \r\n\t"}, Malformed{"Text", "text"},
        Malformed{"OneByte", "<"}, Malformed{"OnlyAMark", "\xEF\xBB\xBF"},
        Malformed{"OnlyADeclaration", "<?xml version=\"1.0\"?>\n"},
        Malformed{"OnlyAComment", "<!-- a -->"}, Malformed{"OnlyADoctype", "<!DOCTYPE a>"},
        Malformed{"TwoRoots", "<a/><b/>"}, Malformed{"TwoRootsApart", "<a></a>\n<!-- -->\n<b/>\n"},
        Malformed{"TextBefore", "x<a/>"}, Malformed{"TextAfter", "<a/>\nx\n"},
        Malformed{"OneLetterAfter", "<a/>x"}, Malformed{"TextBetween", "<!-- -->x<a/>"},
        Malformed{"CharacterDataBefore", "<![CDATA[]]><a/>"},
        Malformed{"CharacterDataAfter", "<a/><![CDATA[ ]]>"},
        Malformed{"ReferenceAfter", "<a/>&#32;"}, Malformed{"MarkAfter", "<a/>\xEF\xBB\xBF"},
        // Tags.
        Malformed{"NoEndTag", "<a>"}, Malformed{"CutEndTag", "<a></a"},
        Malformed{"CutTag", "<a b='1'"}, Malformed{"WrongEndTag", "<a></b>"},
        Malformed{"CrossedTags", "<a><b></a></b>"}, Malformed{"EndTagFirst", "</a>"},
        Malformed{"EndTagTwice", "<a></a></a>"}, Malformed{"NoName", "<>"},
        Malformed{"BadName", "<1/>"}, Malformed{"LoneBracket", "<a>1 < 2</a>"},
        Malformed{"BracketAfter", "<a/><"}, Malformed{"LoneSlash", "<a /b/>"},
        // Attributes.
        Malformed{"NoQuotes", "<a b=1/>"}, Malformed{"NoValue", "<a b/>"},
        Malformed{"NoEndQuote", "<a b='1/>"}, Malformed{"WrongEndQuote", "<a b='1\"/>"},
        Malformed{"NoBlankBetween", "<a b='1'c='2'/>"},
        // Comments, instructions, character data, DOCTYPE.
        Malformed{"OpenComment", "<a><!-- </a>"}, Malformed{"OpenInstruction", "<a/><?b "},
        Malformed{"OpenCharacterData", "<a><![CDATA[ </a>"},
        Malformed{"OpenDoctype", "<!DOCTYPE a [ <a/>"},
        Malformed{"DoctypeInside", "<a><!DOCTYPE a></a>"},
        // NULs, which end a C string.
        Malformed{"NulAfter", "<a/>\0"s}, Malformed{"NulBeforeASecondRoot", "<a/>\0<b/>"s},
        Malformed{"NulInside", "<a>\0</a>"s}, Malformed{"NulInAValue", "<a b='\0'/>"s},
        Malformed{"NulFirst", "\0"s}, Malformed{"NulsOnly", std::string(4096, '\0')}),
    test_support::case_name);

INSTANTIATE_TEST_SUITE_P(
    RejectedWide, MalformedXml,
    testing::Values(
        Malformed{"MarkOnly16", "\xFF\xFE"}, Malformed{"MarkOnly32", "\0\0\xFE\xFF"s},
        Malformed{"OddSize16", utf16le("<a/>") + "\n"},
        Malformed{"OddSize32", utf32be("<a/>") + "\0\0\0"s},
        Malformed{"HalfPairFirst", "\xFF\xFE" + utf16le("<a>") + "\x00\xD8"s + utf16le("</a>")},
        Malformed{"HalfPairSecond", "\xFE\xFF" + utf16be("<a>") + "\xDC\x00"s + utf16be("</a>")},
        Malformed{"HalfPairLast", utf16be("<a/>") + "\xD8\x00"s},
        Malformed{"PairReversed", utf16be("<a>") + "\xDC\x00\xD8\x00"s + utf16be("</a>")},
        Malformed{"PairOfSeconds", utf16be("<a>") + "\xDC\x00\xDC\x00"s + utf16be("</a>")},
        Malformed{"PairIn32", utf32be("<a>") + "\0\0\xD8\0\0\0\xDC\0"s + utf32be("</a>")},
        Malformed{"TooLarge", utf32be("<a>") + "\0\x11\0\0"s + utf32be("</a>")},
        Malformed{"FarTooLarge", utf32be("<a>") + "\xFF\xFF\xFF\xFF" + utf32be("</a>")},
        Malformed{"Nul16", utf16le("<a/>\0"s)}, Malformed{"Nul32", utf32le("<a>\0</a>"s)},
        Malformed{"NulBeforeASecondRoot16", utf16be("<a/>\0<b/>"s)},
        Malformed{"TextAfter16", utf16le("<a/>x")}, Malformed{"TwoRoots32", utf32be("<a/><b/>")},
        Malformed{"EmptyElementAsTwoTags", utf16le("<a><b></b></a>")},
        Malformed{"MixedWidths", utf16le("<a>") + "</a>"},
        Malformed{"TwoMarks16", "\xFF\xFE\xFF\xFE" + utf16le("<a/>")},
        Malformed{"TwoMarks32", "\0\0\xFE\xFF\0\0\xFE\xFF"s + utf32be("<a/>")},
        Malformed{"ForeignMark", "\xEF\xBB\xBF" + utf16le("<a/>")}),
    test_support::case_name);

TEST_F(Xml, FilesThatCannotBeReadAreNotLoaded) {
  EXPECT_EQ(document_->load((scratch_ / "missing.xml").c_str()), 0);
  EXPECT_EQ(document_->load((scratch_ / "missing/missing.xml").c_str()), 0);
  EXPECT_EQ(document_->load(scratch_.path().c_str()), 0);
  EXPECT_EQ(document_->load(""), 0);
  expect_harmless(document_->root());
}

TEST_F(Xml, AReadErrorAfterAWellFormedPrefixIsNotTheEndOfTheFile) {
  const std::string document = "<a b='1'/>";
  write_file(path_, document + "<!-- more -->");
  const ScopedFault fault(Fault::kReadFails, document.size());
  EXPECT_EQ(document_->load(path_.c_str()), 0);
  expect_harmless(document_->root());
}

TEST_F(Xml, FilesWithoutASizeAreReadToTheirEnd) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  const std::string text = "<a b='" + std::string(300'000, 'x') + "'/>";
  const pid_t writer = ::fork();
  if (writer == 0) {
    write_file(path_, text);
    ::_exit(0);
  }
  EXPECT_NE(document_->load(path_.c_str()), 0);
  EXPECT_TRUE(saved() == text);
  EXPECT_EQ(::waitpid(writer, nullptr, 0), writer);
}

TEST_F(Xml, ADocumentCanBeLoadedAgain) {
  ASSERT_TRUE(load("\xFF\xFE" + utf16le("<a><b c='1'/></a>")));
  first("//b").set_attribute("c", "a value that moves what follows");
  ASSERT_TRUE(load("<a c='0'><b c='2'/></a>"));
  first("//b").set_attribute("c", "3");
  EXPECT_EQ(saved(), "<a c='0'><b c='3'/></a>");
}

// ---- Saving ----

TEST_F(Xml, SavesWhereItWasLoadedFrom) {
  ASSERT_TRUE(load("<a b='1'/>\n"));
  document_->root().set_attribute("b", "2");
  EXPECT_NE(document_->save(path_.c_str()), 0);
  EXPECT_EQ(read_file(path_), "<a b='2'/>\n");
  document_->root().set_attribute("b", "3");
  EXPECT_NE(document_->save(path_.c_str()), 0);
  EXPECT_EQ(read_file(path_), "<a b='3'/>\n");
  EXPECT_EQ(names_in(scratch_.path()), std::vector<std::string>{"document.xml"});
}

TEST_F(Xml, ADocumentThatWasNotLoadedIsNotSaved) {
  write_file(path_, "kept");
  EXPECT_EQ(document_->save(path_.c_str()), 0);
  EXPECT_EQ(read_file(path_), "kept");
}

TEST_F(Xml, AFailedSaveIsReportedAndCanBeRepeated) {
  ASSERT_TRUE(load("<a b='1'/>"));
  document_->root().set_attribute("b", "2");
  EXPECT_EQ(document_->save((scratch_ / "missing/saved.xml").c_str()), 0);
  EXPECT_EQ(saved(), "<a b='2'/>");
}

// ---- Large documents ----

TEST_F(Xml, AMillionNestedElementsAreNoProblem) {
  constexpr std::size_t kDepth = 1'000'000;
  std::string text;
  for (std::size_t i = 0; i < kDepth; ++i) text += "<norvak>";
  text += "<Process><Data><var name='a' value='1'/></Data></Process>";
  for (std::size_t i = 0; i < kDepth; ++i) text += "</norvak>";
  ASSERT_TRUE(load(text));
  EXPECT_EQ(names_of(kVars), "a ");
  first(kVars).set_attribute("value", "23");
  text.replace(text.find("'1'"), 3, "'23'");
  EXPECT_TRUE(saved() == text);
  EXPECT_FALSE(load(text.substr(0, text.size() / 2)));
}

TEST_F(Xml, MoreThanMemoryCanHoldIsNotLoaded) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "mounts need a private namespace";
  ASSERT_TRUE(load("<a/>"));
  const std::string path = "/var/log/sparse.xml";  // no disk has files of this size, but memory has
  write_file(path, "");
  ASSERT_EQ(::truncate(path.c_str(), std::numeric_limits<off_t>::max()), 0);
  EXPECT_EQ(document_->load(path.c_str()), 0);
  EXPECT_EQ(document_->save(path.c_str()), 0) << "nothing is loaded now";
}

TEST_F(Xml, FiftyMegabytesAreNoProblem) {
  constexpr std::size_t kBytes = 50'000'000;
  const std::string var = "<var name='setting' value='" + std::string(100, 'v') + "'/>\n";
  std::string text = kOpen;
  while (text.size() < kBytes) text += var;
  text += "<var name='version' value='1'/>" + kClose;
  ASSERT_TRUE(load(text));
  const XmlNodeList vars = document_->root().select_nodes(kVars);
  ASSERT_GT(vars.length(), 300'000);
  vars.item(0).set_attribute("value", "first");
  vars.item(vars.length() - 1).set_attribute("value", "last");
  text.replace(text.find(std::string(100, 'v')), 100, "first");
  text.replace(text.rfind("'1'"), 3, "'last'");
  EXPECT_TRUE(saved() == text);
}

}  // namespace
