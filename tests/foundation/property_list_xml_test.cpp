#include <gtest/gtest.h>

#include "foundation/format.h"
#include "foundation/property_list.h"

namespace pallion {
namespace {

std::string plist(const std::string& content) {
  return "<plist version=\"1.0\">" + content + "</plist>";
}

TEST(XMLPropertyList, ReadsTexts) {
  const struct {
    std::string content;
    const char* description;
  } kCases[] = {
      {"<string/>", ""},
      {"<string> a\r\nb </string>", " a\nb "},
      {"<string>a&amp;b&#x20ac;<![CDATA[<c>]]><!-- no -->d</string>", "a&b\u20ac<c>d"},
      {"<integer>-9223372036854775808</integer>", "-9223372036854775808"},
      {"<integer> 18446744073709551615\n</integer>", "18446744073709551615"},
      {"<integer>+7</integer>", "7"},
      {"<integer>0xFFFFFFFFFFFFFFFF</integer>", "18446744073709551615"},
      {"<integer>-0x10</integer>", "-16"},
      {"<integer>007</integer>", "7"},
      {"<real>-1.5e3</real>", "-1500"},
      {"<real>+inf</real>", "inf"},
      {"<real>-Infinity</real>", "-inf"},
      {"<real>nan</real>", "nan"},
      {"<true/>", "1"},
      {"<false> </false>", "0"},
      {"<date>2001-01-01T00:00:00Z</date>", "2001-01-01T00:00:00Z"},
      {"<date> 2004-02-29T23:59:59Z </date>", "2004-02-29T23:59:59Z"},
      {"<date>0001-01-01T00:00:00Z</date>", "0001-01-01T00:00:00Z"},
      {"<date>9999-12-31T23:59:59Z</date>", "9999-12-31T23:59:59Z"},
      {"<date>1900-03-01T00:00:00Z</date>", "1900-03-01T00:00:00Z"},
      {"<data>\n\tAf4A\n\t/w==\n</data>", "<01fe00ff>"},
      {"<data/>", "<>"},
      {"<array> <string>a</string>\n<array/></array>", "(a, ())"},
      {"<dict><key>b</key><true/>\n<key>a</key><dict/><key>b</key><false/></dict>",
       "{b = 0; a = {}}"},
  };
  for (const auto& test : kCases) {
    const Value value = readPropertyList(plist(test.content));
    EXPECT_TRUE(value) << test.content;
    EXPECT_EQ(test.description, description(value)) << test.content;
  }
  const Value date = readPropertyList(plist("<date>2001-01-02T00:00:01Z</date>"));
  EXPECT_EQ(86401, date.asDate());
}

TEST(XMLPropertyList, ReadsEncodingsAndProlog) {
  const std::string utf16 = [] {
    std::string bytes("\xfe\xff", 2);
    for (const char c : std::string("<plist><string>a</string></plist>"))
      bytes.append(1, '\0').append(1, c);
    return bytes;
  }();
  const struct {
    std::string bytes;
    const char* text;
  } kCases[] = {
      {utf16, "a"},
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>\xe9</string></plist>",
       "\u00e9"},
      {"\xef\xbb\xbf<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"-//X//DTD\" "
       "\"http://example.invalid/a.dtd\">\n"
       "<plist version=\"1.0\"><string>a</string></plist>\n<!-- end -->",
       "a"},
      {"<!DOCTYPE plist SYSTEM \"/dev/zero\"><plist><string>a</string></plist>", "a"},
  };
  for (const auto& test : kCases) {
    const Value value = readPropertyList(test.bytes);
    ASSERT_TRUE(value.asString()) << test.bytes;
    EXPECT_EQ(test.text, *value.asString());
  }
}

TEST(XMLPropertyList, RefusesDamage) {
  const std::string kWhole[] = {
      "",
      " ",
      "text",
      "<plist>",
      "<plist/>",
      "<dict/>",
      "<plist><true/></plist><plist/>",
      "<plist><true/></plist>x",
      "<plist><true></plist>",
      "<plist><plist><true/></plist></plist>",
      "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>x</string></plist>",
      "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
      "\"&a;&a;&a;&a;\">]><plist><string>&b;</string></plist>",
      "<!DOCTYPE plist [<!ENTITY a SYSTEM \"/etc/passwd\">]><plist><string>&a;</string></plist>",
      "<!DOCTYPE plist [<!ENTITY % a SYSTEM \"/etc/passwd\"> %a;]><plist><true/></plist>",
      "<!DOCTYPE plist SYSTEM \"x.dtd\"><plist><string>a&unknown;b</string></plist>",
      "<?xml version=\"1.0\" encoding=\"unheard-of\"?><plist><true/></plist>",
      "<plist><string>\xff</string></plist>",
      "<plist><string>&#0;</string></plist>",
      std::string("<plist><string>\0</string></plist>", 34),
  };
  for (const std::string& bytes : kWhole) EXPECT_FALSE(readPropertyList(bytes)) << bytes;
  const char* const kContents[] = {
      "<true/><true/>",
      "text<true/>",
      "<key>a</key>",
      "<set/>",
      "<String/>",
      "<true>x</true>",
      "<true><true/></true>",
      "<string><b/></string>",
      "<array>x</array>",
      "<array><key>a</key></array>",
      "<dict><true/></dict>",
      "<dict><key>a</key></dict>",
      "<dict><key>a</key><key>b</key></dict>",
      "<dict><key>a</key>x<true/></dict>",
      "<dict><key>a</key><true/><true/></dict>",
      "<integer/>",
      "<integer>x</integer>",
      "<integer>1 2</integer>",
      "<integer>--1</integer>",
      "<integer>1.5</integer>",
      "<integer>0x</integer>",
      "<integer>18446744073709551616</integer>",
      "<integer>-9223372036854775809</integer>",
      "<integer>0x10000000000000000</integer>",
      "<real/>",
      "<real>x</real>",
      "<real>+-1</real>",
      "<real>nan(1)</real>",
      "<real>0x1p3</real>",
      "<real>1e999</real>",
      "<date/>",
      "<date>2001-02-29T00:00:00Z</date>",
      "<date>1900-02-29T00:00:00Z</date>",
      "<date>2001-13-01T00:00:00Z</date>",
      "<date>2001-00-01T00:00:00Z</date>",
      "<date>2001-01-00T00:00:00Z</date>",
      "<date>2001-04-31T00:00:00Z</date>",
      "<date>2001-01-01T24:00:00Z</date>",
      "<date>2001-01-01T00:60:00Z</date>",
      "<date>2001-01-01T00:00:60Z</date>",
      "<date>0000-01-01T00:00:00Z</date>",
      "<date>2001-01-01T00:00:00</date>",
      "<date>2001-01-01 00:00:00Z</date>",
      "<date>2001-1-1T00:00:00Z</date>",
      "<date>2001-+1-01T00:00:00Z</date>",
      "<date>20x1-01-01T00:00:00Z</date>",
      "<data>A</data>",
      "<data>AA</data>",
      "<data>AA=</data>",
      "<data>A===</data>",
      "<data>AAA=A</data>",
      "<data>AA=A</data>",
      "<data>AA==AAAA</data>",
      "<data>AA*A</data>",
      "<data>====</data>",
      "<data>AAAA=</data>",
  };
  for (const char* const content : kContents)
    EXPECT_FALSE(readPropertyList(plist(content))) << content;
}

TEST(XMLPropertyList, BoundsDepth) {
  const auto nested = [](int depth, const std::string& inner) {
    std::string bytes = "<plist>";
    for (int i = 0; i < depth; ++i) bytes += "<array>";
    bytes += inner;
    for (int i = 0; i < depth; ++i) bytes += "</array>";
    return bytes + "</plist>";
  };
  EXPECT_TRUE(readPropertyList(nested(kPropertyListMaximumDepth, "<string>x</string>")));
  EXPECT_FALSE(readPropertyList(nested(kPropertyListMaximumDepth + 1, "")));
  EXPECT_FALSE(readPropertyList(nested(500000, "")));
}

// Larger than the pieces that the parser is fed with.
TEST(XMLPropertyList, JoinsPieces) {
  std::string text;
  while (text.size() < 1000000) text += "line \u20ac & " + std::to_string(text.size()) + "\n";
  Value::Array members(3, Value::string(text));
  members.push_back(Value::data(text));
  const std::string bytes = *writePropertyList(Value::array(members), PropertyListFormat::kXML);
  EXPECT_EQ(Value::array(members), readPropertyList(bytes));
  EXPECT_FALSE(readPropertyList(std::string_view(bytes).substr(0, bytes.size() - 2)));
}

TEST(XMLPropertyList, WritesThisText) {
  const Value value = Value::dictionary(
      {{"a<b", Value::array({Value::real(0.1), Value::integer(-1), Value::boolean(true)})},
       {"c", Value::string("x\r\n&>")},
       {"d", Value::data("hello")},
       {"e", Value::date(1.75)},
       {"f", Value::dictionary({})}});
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "\t<key>a&lt;b</key>\n\t<array>\n\t\t<real>0.1</real>\n\t\t<integer>-1</integer>\n\t\t<true/"
      ">\n\t</array>\n"
      "\t<key>c</key>\n\t<string>x&#13;\n&amp;&gt;</string>\n\t<key>d</key>\n\t<data>aGVsbG8=</"
      "data>\n"
      "\t<key>e</key>\n\t<date>2001-01-01T00:00:01Z</date>\n\t<key>f</key>\n\t<dict>\n\t</dict>\n</"
      "dict>\n</plist>\n",
      writePropertyList(value, PropertyListFormat::kXML));
}

}  // namespace
}  // namespace pallion
