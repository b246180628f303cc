#include <gtest/gtest.h>

#include "foundation/error.h"
#include "foundation/format.h"
#include "foundation/url.h"

namespace pallion {
namespace {

TEST(Format, WritesMessages) {
  const char* const kNoText = nullptr;
  const std::vector<URL> urls = {URL::fileURL("/a"), URL::fileURL("/b/")};
  const struct {
    std::string actual;
    const char* expected;
  } kCases[] = {
      {format("plain"), "plain"},
      {format(""), ""},
      {format("100%%"), "100%"},
      {format("%%%d%%%%", 5), "%5%%"},
      {format("%s|%s|%s", "a", std::string("b"), kNoText), "a|b|(null)"},
      {format("%d %u %ld %lu", INT32_MIN, UINT32_MAX, LONG_MIN, ULONG_MAX),
       "-2147483648 4294967295 -9223372036854775808 18446744073709551615"},
      {format("%lld %zd %zu", -5LL, ssize_t{-6}, size_t{7}), "-5 -6 7"},
      {format("%08X%08X", 0xABCU, UINT32_MAX), "00000ABCFFFFFFFF"},
      {format("%@", std::optional<std::string>()), "(null)"},
      {format("%@", std::optional<URL>(URL::fileURL("/a b"))), "file:///a%20b"},
      {format("%@ %@", std::vector<std::string>{}, std::vector<std::string>{"a", "b"}),
       "() (a, b)"},
      {format("%@", urls), "(file:///a, file:///b/)"},
      {format(
           "%@ %@", Value(),
           Value::dictionary({{"k", Value::array({Value::boolean(true), Value::data("\x0f")})}})),
       "(null) {k = (1, <0f>)}"},
      {format("%@", std::string("50%d%%")), "50%d%%"},
      {format("%@", Error("POSIX", 5)), "POSIX 5"},
  };
  for (const auto& test : kCases) EXPECT_EQ(test.expected, test.actual);
}

TEST(Error, DescribesItselfWithWhatIsBelow) {
  ErrorDetails details;
  details.set(kLocalizedDescriptionKey, Value::string("wrong"));
  details.set(kUnderlyingErrorKey, Error(kPOSIXErrorDomain, 28));
  details.set("Path", URL::fileURL("/a/"));
  details.set(kLocalizedDescriptionKey, Value::string("cause"));
  const Error error("Domain", -3, details);
  EXPECT_EQ("Domain -3: cause (POSIX 28)", description(error));
  EXPECT_EQ("{LocalizedDescription = cause; UnderlyingError = POSIX 28; Path = file:///a/}",
            description(error.details()));
  EXPECT_TRUE(error.underlyingError().isPOSIX(28));
  EXPECT_FALSE(error.isPOSIX(-3));
  EXPECT_FALSE(Error().isPOSIX(0));
  EXPECT_EQ("(null)", description(Error()));
  EXPECT_FALSE(error.underlyingError().underlyingError());
}

TEST(URL, TakesPathsApart) {
  const struct {
    const char* given;
    const char* path;
    const char* representation;
    const char* name;
    const char* extension;
    const char* parent;
    const char* text;
  } kCases[] = {
      {"/", "/", "/", "/", "", "/", "file:///"},
      {"///", "/", "/", "/", "", "/", "file:///"},
      {"/a", "/a", "/a", "a", "", "/", "file:///a"},
      {"/a//", "/a/", "/a", "a", "", "/", "file:///a/"},
      {"/x/a.b.app/", "/x/a.b.app/", "/x/a.b.app", "a.b.app", "app", "/x/", "file:///x/a.b.app/"},
      {"/x/.app", "/x/.app", "/x/.app", ".app", "", "/x/", "file:///x/.app"},
      {"/x/a.", "/x/a.", "/x/a.", "a.", "", "/x/", "file:///x/a."},
      {"/x.y/a", "/x.y/a", "/x.y/a", "a", "", "/x.y/", "file:///x.y/a"},
      {"/a//b", "/a//b", "/a//b", "b", "", "/a/", "file:///a//b"},
      {"/a b%?#[\u00e9", "/a b%?#[\u00e9", "/a b%?#[\u00e9", "a b%?#[\u00e9", "", "/",
       "file:///a%20b%25%3F%23%5B%C3%A9"},
      {"/a-._~!$&'()*+,;=:@", "/a-._~!$&'()*+,;=:@", "/a-._~!$&'()*+,;=:@", "a-._~!$&'()*+,;=:@",
       "_~!$&'()*+,;=:@", "/", "file:///a-._~!$&'()*+,;=:@"},
      {"a/b", "a/b", "", "b", "", "a/", "file://a/b"},
      {"", "", "", "", "", "", "file://"},
  };
  for (const auto& test : kCases) {
    const URL url = URL::fileURL(test.given);
    EXPECT_EQ(test.path, url.path()) << test.given;
    EXPECT_STREQ(test.representation, url.fileSystemRepresentation()) << test.given;
    EXPECT_EQ(test.name, url.lastPathComponent()) << test.given;
    EXPECT_EQ(test.extension, url.pathExtension()) << test.given;
    EXPECT_EQ(test.parent, url.deletingLastPathComponent().path()) << test.given;
    EXPECT_EQ(test.text, url.absoluteString()) << test.given;
  }
}

TEST(URL, JoinsPaths) {
  using enum URL::Kind;
  const URL directory = URL::fileURL("/d/");
  EXPECT_EQ("/d/a", directory.appending("a", kFile).path());
  EXPECT_EQ("/d/a/b/", directory.appending("/a/b/", kDirectory).path());
  EXPECT_EQ("/d/a", directory.appending("a/", kFile).path());
  EXPECT_EQ("/a", URL().appending("a", kFile).path());
  EXPECT_EQ("/d.app/", directory.appendingPathExtension("app").path());
  EXPECT_EQ("/f.app", URL::fileURL("/f").appendingPathExtension("app").path());
  EXPECT_FALSE(URL::fileURL("/d") == directory);
  EXPECT_TRUE(URL::fileURL("/d", kDirectory) == directory);
}

TEST(URL, NeverNamesAnotherItem) {
  using namespace std::string_view_literals;
  const URL directory = URL::fileURL("/d/");
  const struct {
    const char* name;
    URL url;
  } kCases[] = {
      {"NUL", URL::fileURL("/a\0b"sv)},
      {"NUL at the end", URL::fileURL("/a\0"sv)},
      {"NUL in a joined name", directory.appending("a\0b"sv, URL::Kind::kFile)},
      {"NUL in an extension", directory.appendingPathExtension("a\0b"sv)},
      {"relative", URL::fileURL("a")},
      {"below a relative one", URL::fileURL("").appending("etc", URL::Kind::kFile)},
      {"below one with a NUL", URL::fileURL("/a\0b"sv).appending("c", URL::Kind::kFile)},
      {"extension of a relative one", URL::fileURL("a").appendingPathExtension("b")},
      {"parent of one with a NUL", URL::fileURL("/a\0b/c"sv).deletingLastPathComponent()},
  };
  for (const auto& test : kCases)
    EXPECT_STREQ("", test.url.fileSystemRepresentation()) << test.name;
  // With a slash at the end the kernel would follow a link there.
  EXPECT_STREQ("/d.x", directory.appendingPathExtension("x/").fileSystemRepresentation());
}

TEST(URL, TellsPlainNames) {
  const std::string longest(255, 'x');
  for (const std::string& name :
       {std::string("a"), std::string("..."), std::string(".a"), std::string("\xff"), longest}) {
    EXPECT_TRUE(isPlainName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("a\n"),
        std::string("\x7f"), std::string(1, '\0'), longest + "x"}) {
    EXPECT_FALSE(isPlainName(name)) << name;
  }
}

}  // namespace
}  // namespace pallion
