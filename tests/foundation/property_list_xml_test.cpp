#include <gtest/gtest.h>

#include "foundation/format.h"
#include "foundation/property_list.h"

namespace pallion {
namespace {

std::string plist(const std::string& content) {
  return "<plist version=\"1.0\">" + content + "</plist>";
}

TEST(XMLPropertyList, ReadsTexts) {
  const std::pair<std::string, const char*> kCases[] = {
      {"<string> a\r\nb </string>", " a\nb "},
      {"<string>a&amp;b&#x20ac;<![CDATA[<c>]]><!-- no -->d</string>", "a&b\u20ac<c>d"},
      {"<integer>-9223372036854775808</integer>", "-9223372036854775808"},
      {"<integer> 18446744073709551615\n</integer>", "18446744073709551615"},
      {"<integer>+7</integer>", "7"},
      {"<integer>0xFFFFFFFFFFFFFFFF</integer>", "18446744073709551615"},
      {"<integer>-0x10</integer>", "-16"},
      {"<real>-1.5e3</real>", "-1500"},
      {"<real>-Infinity</real>", "-inf"},
      {"<false> </false>", "0"},
      {"<date> 2004-02-29T23:59:59Z </date>", "2004-02-29T23:59:59Z"},
      {"<date>0001-01-01T00:00:00Z</date>", "0001-01-01T00:00:00Z"},
      {"<date>9999-12-31T23:59:59Z</date>", "9999-12-31T23:59:59Z"},
      {"<data>\n\tAf4A\n\t/w==\n</data>", "<01fe00ff>"},
      {"<array> <string>a</string>\n<array/></array>", "(a, ())"},
      {"<dict><key>b</key><true/>\n<key>a</key><dict/><key>b</key><false/></dict>",
       "{b = 0; a = {}}"}};
  for (const auto& [content, text] : kCases) {
    const Value value = readPropertyList(plist(content));
    EXPECT_TRUE(value) << content;
    EXPECT_EQ(text, description(value)) << content;
  }
  EXPECT_EQ(86401, readPropertyList(plist("<date>2001-01-02T00:00:01Z</date>")).asDate());
  std::string utf16("\xfe\xff", 2);
  for (const char c : plist("<string>a</string>")) utf16.append(1, '\0').append(1, c);
  const std::pair<std::string, const char*> kDocuments[] = {
      {utf16, "a"},
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + plist("<string>\xe9</string>"),
       "\u00e9"},
      {"\xef\xbb\xbf<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"-//X//DTD\" "
       "\"http://example.invalid/a.dtd\">\n" +
           plist("<string>a</string>") + "\n<!-- end -->",
       "a"},
      {"<!DOCTYPE plist SYSTEM \"/dev/zero\">" + plist("<string>a</string>"), "a"}};
  for (const auto& [bytes, text] : kDocuments)
    EXPECT_EQ(Value::string(text), readPropertyList(bytes)) << bytes;
}

TEST(XMLPropertyList, RefusesDamage) {
  const std::string kDocuments[] = {
      "",
      "text",
      "<plist>",
      "<plist/>",
      "<dict/>",
      "<plist><true/></plist><plist/>",
      "<plist><true/></plist>x",
      "<plist><true></plist>",
      "<plist><plist><true/></plist></plist>",
      "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>x</string></plist>",
      "<!DOCTYPE plist [<!ENTITY a SYSTEM \"/etc/passwd\">]><plist><string>&a;</string></plist>",
      "<!DOCTYPE plist [<!ENTITY % a SYSTEM \"/etc/passwd\"> %a;]><plist><true/></plist>",
      "<!DOCTYPE plist SYSTEM \"x.dtd\"><plist><string>a&unknown;b</string></plist>",
      "<?xml version=\"1.0\" encoding=\"unheard-of\"?><plist><true/></plist>",
      "<plist><string>\xff</string></plist>",
      "<plist><string>&#0;</string></plist>",
      std::string("<plist><string>\0</string></plist>", 34)};
  for (const std::string& bytes : kDocuments) EXPECT_FALSE(readPropertyList(bytes)) << bytes;
  const std::pair<const char*, std::vector<const char*>> kContents[] = {
      {"", {"<true/><true/>", "x<true/>", "<key>a</key>", "<set/>", "<String/>"}},
      {"true", {"x", "<true/>"}},
      {"string", {"<b/>"}},
      {"array", {"x", "<key>a</key>"}},
      {"dict",
       {"<true/>", "<key>a</key>", "<key>a</key><key>b</key>", "<key>a</key>x<true/>",
        "<key>a</key><true/><true/>"}},
      {"integer",
       {"", "x", "1 2", "--1", "1.5", "0x", "18446744073709551616", "-9223372036854775809",
        "0x10000000000000000"}},
      {"real", {"", "x", "+-1", "nan(1)", "0x1p3", "1e999"}},
      {"date",
       {"", "2001-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2001-13-01T00:00:00Z",
        "2001-00-01T00:00:00Z", "2001-01-00T00:00:00Z", "2001-04-31T00:00:00Z",
        "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z", "2001-01-01T00:00:60Z",
        "0000-01-01T00:00:00Z", "2001-01-01T00:00:00", "2001-01-01 00:00:00Z", "2001-1-1T00:00:00Z",
        "2001-+1-01T00:00:00Z", "20x1-01-01T00:00:00Z"}},
      {"data", {"A", "AA", "AA=", "A===", "AAA=A", "AA=A", "AA==AAAA", "AA*A", "====", "AAAA="}}};
  for (const auto& [name, texts] : kContents) {
    for (const std::string text : texts) {
      const std::string element = std::string("<") + name + ">" + text + "</" + name + ">";
      EXPECT_FALSE(readPropertyList(plist(*name ? element : text))) << element;
    }
  }
}

TEST(XMLPropertyList, WritesThisText) {
  const Value value = Value::dictionary(
      {{"a<b", Value::array({Value::real(0.1), Value::integer(-1), Value::boolean(true)})},
       {"c", Value::string("x\r\n&>")},
       {"d", Value::data("hello")},
       {"e", Value::date(1.75)},
       {"f", Value::dictionary({})}});
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n\t"
      "<key>a&lt;b</key>\n\t<array>\n\t\t<real>0.1</real>\n\t\t<integer>-1</integer>\n\t\t<true/>\n"
      "\t</array>\n\t<key>c</key>\n\t<string>x&#13;\n&amp;&gt;</string>\n\t<key>d</key>\n\t"
      "<data>aGVsbG8=</data>\n\t<key>e</key>\n\t<date>2001-01-01T00:00:01Z</date>\n\t"
      "<key>f</key>\n\t<dict>\n\t</dict>\n</dict>\n</plist>\n",
      writePropertyList(value, PropertyListFormat::kXML));
}

}  // namespace
}  // namespace pallion
