#include "platform/icon.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/image_scaling.h"
#include "platform/png_codec.h"
#include "tests/helpers/png_bytes.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::pngBytes;
using test::PNGParts;
using test::TemporaryRoot;
using namespace std::string_literals;
using Bytes = std::vector<uint8_t>;

Image uniform(uint32_t width, uint32_t height, const Bytes& pixel) {
  Image image{width, height, {}};
  for (size_t i = 0; i < size_t{width} * height; ++i)
    image.pixels.insert(image.pixels.end(), pixel.begin(), pixel.end());
  return image;
}

std::string bluePNG(uint32_t side = 3) { return *encodePNG(uniform(side, side, {0, 0, 255, 200})); }

TEST(PNG, EveryKindOfPixelBecomesRedGreenBlueAlpha) {
  const struct {
    const char* name;
    PNGParts parts;
    Bytes pixels;
  } cases[] = {{"RGBA", {2, 1, 8, 6, "\0\1\2\3\4\5\6\7\x08"s}, {1, 2, 3, 4, 5, 6, 7, 8}},
               {"RGB with a transparent colour",
                {2, 1, 8, 2, "\0\1\2\3\4\5\6"s, false, {{"tRNS", "\0\4\0\5\0\6"s}}},
                {1, 2, 3, 255, 4, 5, 6, 0}},
               {"gray and alpha", {1, 1, 8, 4, "\0\x80\7"s}, {128, 128, 128, 7}},
               {"palette 2 bits with alpha",
                {2, 1, 2, 3, "\0\x40"s, false, {{"PLTE", "\1\2\3\4\5\6"s}, {"tRNS", "\x09"s}}},
                {4, 5, 6, 255, 1, 2, 3, 9}},
               {"interlaced",
                {2, 2, 8, 2, "\0\1\1\1\0\2\2\2\0\3\3\3\4\4\4"s, true},
                {1, 1, 1, 255, 2, 2, 2, 255, 3, 3, 3, 255, 4, 4, 4, 255}}};
  for (const auto& c : cases) {
    const auto image = decodePNG(pngBytes(c.parts));
    ASSERT_TRUE(image) << c.name;
    EXPECT_EQ(image->width, c.parts.width) << c.name;
    EXPECT_EQ(image->pixels, c.pixels) << c.name;
  }
}

TEST(PNG, DamageGivesNone) {
  const std::string whole = bluePNG(20);
  ASSERT_TRUE(decodePNG(whole));
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(decodePNG(std::string_view(whole).substr(0, length))) << "cut off at " << length;
  }
  for (size_t position = 0; position < whole.size() * 8; ++position) {
    std::string flipped = whole;
    flipped[position / 8] = static_cast<char>(flipped[position / 8] ^ (1 << (position % 8)));
    EXPECT_FALSE(decodePNG(flipped)) << "bit " << position;
  }
  const std::pair<const char*, PNGParts> cases[] = {
      {"no pixels", {0, 0, 8, 6, ""}},
      {"fewer rows than it says", {1, 2, 8, 6, "\0\1\2\3\4"s}},
      {"a palette image without palette", {1, 1, 8, 3, "\0\0"s}},
      {"too high", {1, kIconMaximumSide + 1, 8, 0, std::string(2 * (kIconMaximumSide + 1), '\0')}},
      {"gigantic", {0x7FFFFFFF, 0x7FFFFFFF, 16, 6, "\0"s}},
      {"negative", {0xFFFFFFFF, 0xFFFFFFFF, 16, 6, "\0"s}}};
  for (const auto& [name, parts] : cases) EXPECT_FALSE(decodePNG(pngBytes(parts))) << name;
}

TEST(Scaling, AveragesAreasAndInterpolates) {
  const struct {
    Image image;
    uint32_t width;
    Bytes pixels;
  } cases[] = {{{2, 1, {0, 10, 20, 255, 100, 20, 40, 255}}, 1, {50, 15, 30, 255}},
               // Transparent pixels lend no colour.
               {{2, 1, {255, 0, 0, 0, 10, 20, 30, 254}}, 1, {10, 20, 30, 127}},
               {{2, 1, {0, 0, 0, 255, 200, 200, 200, 255}},
                4,
                {0, 0, 0, 255, 50, 50, 50, 255, 150, 150, 150, 255, 200, 200, 200, 255}}};
  for (const auto& c : cases) EXPECT_EQ(scaledImage(c.image, c.width, 1).pixels, c.pixels);
  const Bytes pixel{250, 128, 3, 77};
  for (const uint32_t side : {1U, 119U, 121U, 311U}) {
    const Image scaled = scaledImage(uniform(side, 2 * side, pixel), 120, 120);
    EXPECT_EQ(scaled.pixels, uniform(120, 120, pixel).pixels) << side;
  }
}

TEST(IconRenderer, FindsTheNamedPNGDirectlyInsideTheBundle) {
  const std::string whole = "A.app/Icon.png";
  const struct {
    std::string iconFile;
    std::string made;  // as a file; none when empty
    bool rendered;
    std::function<void(const TemporaryRoot&)> make = [](const TemporaryRoot&) {};
  } cases[] = {
      {"Icon.png", whole, true},
      {"Icon", whole, true},
      {"Icon", "A.app/Icon", true},
      {"Icon.png", "", false},
      {"../x", "x", false},
      {"sub/Icon.png", "A.app/sub/Icon.png", false},
      {"", "A.app/.png", false},
      {"Icon.png", "", false, [&](const TemporaryRoot& r) { r.makeFile(whole, "GIF89a"); }},
      {"Icon.png", "", false, [&](const TemporaryRoot& r) { r.makeDirectory(whole); }},
      {"Icon.png", "x.png", false, [&](const TemporaryRoot& r) { r.makeLink(whole, r / "x.png"); }},
      {"Icon.png", "", false, [&](const TemporaryRoot& r) { mkfifo((r / whole).c_str(), 0644); }},
      {"Icon.png", whole, false, [&](const TemporaryRoot& r) {
         std::filesystem::resize_file(r / whole, kIconMaximumFileSize + 1);
       }}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    root.makeFile("A.app/Info.plist", "<plist><dict><key>QXBundleIconFile</key><string>" +
                                          c.iconFile + "</string></dict></plist>");
    if (!c.made.empty()) root.makeFile(c.made, bluePNG());
    c.make(root);
    const auto bundle = QXBundle::bundleWithURL(URL::fileURL(root / "A.app/"));
    const auto image = CreateHomeScreenIconImageFromBundle(*bundle);
    ASSERT_EQ(image.has_value(), c.rendered) << c.iconFile << " " << c.made;
    if (!image) continue;
    EXPECT_EQ(image->pixels,
              uniform(kHomeScreenIconSize, kHomeScreenIconSize, {0, 0, 255, 200}).pixels);
  }
}

}  // namespace
}  // namespace pallion
