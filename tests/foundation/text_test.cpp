#include <gtest/gtest.h>

#include "foundation/error.h"
#include "foundation/format.h"
#include "foundation/url.h"

namespace pallion {
namespace {

TEST(Format, WritesMessages) {
  const char* const kNoText = nullptr;
  const std::pair<std::string, const char*> kCases[] = {
      {format("%%%d%%%%", 5), "%5%%"},
      {format("%s|%s|%s", "a", std::string("b"), kNoText), "a|b|(null)"},
      {format("%d %u %ld %lu", INT32_MIN, UINT32_MAX, LONG_MIN, ULONG_MAX),
       "-2147483648 4294967295 -9223372036854775808 18446744073709551615"},
      {format("%lld %zd %zu", -5LL, ssize_t{-6}, size_t{7}), "-5 -6 7"},
      {format("%08X%08X", 0xABCU, UINT32_MAX), "00000ABCFFFFFFFF"},
      {format("%@", std::optional<std::string>()), "(null)"},
      {format("%@", std::optional<URL>(URL::fileURL("/a b"))), "file:///a%20b"},
      {format("%@", std::vector<URL>{URL::fileURL("/a"), URL::fileURL("/b/")}),
       "(file:///a, file:///b/)"},
      {format("%@", Value::dictionary(
                        {{"k", Value::array({Value::boolean(true), Value::data("\x0f")})}})),
       "{k = (1, <0f>)}"},
      {format("%@ %@", Error("POSIX", 5), Error()), "POSIX 5 (null)"}};
  for (const auto& [actual, expected] : kCases) EXPECT_EQ(expected, actual);
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
  EXPECT_FALSE(error.isPOSIX(-3) || Error().isPOSIX(0));
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
      {"///", "/", "/", "/", "", "/", "file:///"},
      {"/a//", "/a/", "/a", "a", "", "/", "file:///a/"},
      {"/x/a.b.app/", "/x/a.b.app/", "/x/a.b.app", "a.b.app", "app", "/x/", "file:///x/a.b.app/"},
      {"/x/.app", "/x/.app", "/x/.app", ".app", "", "/x/", "file:///x/.app"},
      {"/x.y/a", "/x.y/a", "/x.y/a", "a", "", "/x.y/", "file:///x.y/a"},
      {"/a b%?#[\u00e9", "/a b%?#[\u00e9", "/a b%?#[\u00e9", "a b%?#[\u00e9", "", "/",
       "file:///a%20b%25%3F%23%5B%C3%A9"},
      {"/a-._~!$&'()*+,;=:@", "/a-._~!$&'()*+,;=:@", "/a-._~!$&'()*+,;=:@", "a-._~!$&'()*+,;=:@",
       "_~!$&'()*+,;=:@", "/", "file:///a-._~!$&'()*+,;=:@"},
      {"a/b", "a/b", "", "b", "", "a/", "file://a/b"},
      {"", "", "", "", "", "", "file://"}};
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

TEST(URL, JoinsPathsAndNeverNamesAnotherItem) {
  using namespace std::string_view_literals;
  using enum URL::Kind;
  const URL directory = URL::fileURL("/d/");
  const std::pair<URL, const char*> kJoined[] = {
      {directory.appending("a", kFile), "/d/a"},
      {directory.appending("/a/b/", kDirectory), "/d/a/b/"},
      {directory.appending("a/", kFile), "/d/a"},
      {URL().appending("a", kFile), "/a"},
      {directory.appendingPathExtension("x"), "/d.x/"},
      // A slash there would make the kernel follow a link.
      {directory.appendingPathExtension("x/"), "/d.x/"}};
  for (const auto& [url, path] : kJoined) EXPECT_EQ(path, url.path());
  const URL nowhere[] = {URL::fileURL("/a\0b"sv),
                         directory.appending("a\0b"sv, kFile),
                         directory.appendingPathExtension("a\0b"sv),
                         URL::fileURL("").appending("etc", kFile),
                         URL::fileURL("/a\0b"sv).appending("c", kFile),
                         URL::fileURL("a").appendingPathExtension("b"),
                         URL::fileURL("/a\0b/c"sv).deletingLastPathComponent()};
  for (const URL& url : nowhere) EXPECT_STREQ("", url.fileSystemRepresentation()) << url.path();
}

TEST(URL, TellsPlainNames) {
  const std::string longest(255, 'x');
  for (const std::string& name : {std::string("..."), std::string("\xff"), longest})
    EXPECT_TRUE(isPlainName(name)) << name;
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("a\n"),
        std::string("\x7f"), std::string(1, '\0'), longest + "x"})
    EXPECT_FALSE(isPlainName(name)) << name;
}

}  // namespace
}  // namespace pallion
