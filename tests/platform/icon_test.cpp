#include "platform/icon.h"

#include <filesystem>
#include <fstream>
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
using Bytes = std::vector<uint8_t>;

// Text from a literal that may hold NULs.
template <size_t n>
std::string raw(const char (&literal)[n]) {
  return {literal, n - 1};
}

Image uniform(uint32_t width, uint32_t height, const Bytes& pixel) {
  Image image{width, height, {}};
  for (size_t i = 0; i < size_t{width} * height; ++i) {
    image.pixels.insert(image.pixels.end(), pixel.begin(), pixel.end());
  }
  return image;
}

std::string bluePNG(uint32_t side = 3) { return *encodePNG(uniform(side, side, {0, 0, 255, 200})); }

TEST(PNG, EveryKindOfPixelBecomesRedGreenBlueAlpha) {
  const struct {
    const char* name;
    PNGParts parts;
    Bytes pixels;
  } cases[] = {
      {"RGBA", {2, 1, 8, 6, raw("\0\1\2\3\4\5\6\7\x08")}, {1, 2, 3, 4, 5, 6, 7, 8}},
      {"RGBA 16", {1, 1, 16, 6, raw("\0\1\0\2\0\3\0\xff\xff")}, {1, 2, 3, 255}},
      {"RGB", {1, 1, 8, 2, raw("\0\1\2\3")}, {1, 2, 3, 255}},
      {"RGB with a transparent colour",
       {2, 1, 8, 2, raw("\0\1\2\3\4\5\6"), false, {{"tRNS", raw("\0\4\0\5\0\6")}}},
       {1, 2, 3, 255, 4, 5, 6, 0}},
      {"gray", {1, 2, 8, 0, raw("\0\x80\0\x81")}, {128, 128, 128, 255, 129, 129, 129, 255}},
      {"gray 1 bit", {2, 1, 1, 0, raw("\0\x80")}, {255, 255, 255, 255, 0, 0, 0, 255}},
      {"gray 16", {1, 1, 16, 0, raw("\0\x80\0")}, {128, 128, 128, 255}},
      {"gray and alpha", {1, 1, 8, 4, raw("\0\x80\7")}, {128, 128, 128, 7}},
      {"palette 2 bits with alpha",
       {2, 1, 2, 3, raw("\0\x40"), false, {{"PLTE", raw("\1\2\3\4\5\6")}, {"tRNS", raw("\x09")}}},
       {4, 5, 6, 255, 1, 2, 3, 9}},
      {"interlaced",
       {2, 2, 8, 2, raw("\0\1\1\1\0\2\2\2\0\3\3\3\4\4\4"), true},
       {1, 1, 1, 255, 2, 2, 2, 255, 3, 3, 3, 255, 4, 4, 4, 255}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto image = decodePNG(pngBytes(c.parts));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, c.parts.width);
    EXPECT_EQ(image->height, c.parts.height);
    EXPECT_EQ(image->pixels, c.pixels);
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
  const struct {
    const char* name;
    PNGParts parts;
  } cases[] = {
      {"no pixels", {0, 0, 8, 6, ""}},
      {"fewer rows than it says", {1, 2, 8, 6, raw("\0\1\2\3\4")}},
      {"a filter that does not exist", {1, 1, 8, 6, raw("\7\1\2\3\4")}},
      {"a palette image without palette", {1, 1, 8, 3, raw("\0\0")}},
      {"a depth that does not exist", {1, 1, 3, 0, raw("\0\0")}},
      {"too wide", {kIconMaximumSide + 1, 1, 8, 0, std::string(kIconMaximumSide + 2, '\0')}},
      {"too high", {1, kIconMaximumSide + 1, 8, 0, std::string(2 * (kIconMaximumSide + 1), '\0')}},
      {"gigantic", {0x7FFFFFFF, 0x7FFFFFFF, 16, 6, raw("\0")}},
      {"negative", {0xFFFFFFFF, 0xFFFFFFFF, 16, 6, raw("\0")}},
  };
  for (const auto& c : cases) EXPECT_FALSE(decodePNG(pngBytes(c.parts))) << c.name;
}

// Peak memory of this process since the last reset, in KiB.
size_t peakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stoul(line.substr(6));
  }
  return 0;
}

TEST(PNG, ChunksThatUnfoldWithoutEndTakeLittleMemory) {
  constexpr size_t kUnfolded = size_t{128} << 20;
  const std::string bomb = test::zlibBomb(kUnfolded);
  const PNGParts parts{1, 1, 8, 0, raw("\0\x80"), false, {{"zTXt", raw("Comment\0\0") + bomb}}};
  const std::string bytes = pngBytes(parts);
  std::ofstream("/proc/self/clear_refs") << "5";
  const size_t before = peakMemory();
  const auto image = decodePNG(bytes);
  EXPECT_LT(peakMemory() - before, size_t{16} << 10);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->pixels, (Bytes{128, 128, 128, 255}));
}

TEST(Scaling, AveragesAreasAndInterpolates) {
  const struct {
    const char* name;
    Image image;
    uint32_t width, height;
    Bytes pixels;
  } cases[] = {
      {"two to one", {2, 1, {0, 10, 20, 255, 100, 20, 40, 255}}, 1, 1, {50, 15, 30, 255}},
      {"transparent pixels lend no colour",
       {2, 1, {255, 0, 0, 0, 10, 20, 30, 254}},
       1,
       1,
       {10, 20, 30, 127}},
      {"all transparent", {1, 2, {9, 9, 9, 0, 9, 9, 9, 0}}, 1, 1, {0, 0, 0, 0}},
      {"three to two",
       {3, 1, {0, 0, 0, 255, 90, 90, 90, 255, 240, 240, 240, 255}},
       2,
       1,
       {30, 30, 30, 255, 190, 190, 190, 255}},
      {"two to four",
       {2, 1, {0, 0, 0, 255, 200, 200, 200, 255}},
       4,
       1,
       {0, 0, 0, 255, 50, 50, 50, 255, 150, 150, 150, 255, 200, 200, 200, 255}},
      {"narrower and higher",
       {2, 1, {0, 0, 0, 100, 0, 0, 0, 200}},
       1,
       2,
       {0, 0, 0, 150, 0, 0, 0, 150}},
      {"same size keeps hidden colours", {1, 1, {1, 2, 3, 0}}, 1, 1, {1, 2, 3, 0}},
  };
  for (const auto& c : cases) {
    const Image scaled = scaledImage(c.image, c.width, c.height);
    EXPECT_EQ(scaled.width, c.width) << c.name;
    EXPECT_EQ(scaled.height, c.height) << c.name;
    EXPECT_EQ(scaled.pixels, c.pixels) << c.name;
  }
}

TEST(Scaling, OneColourStaysOneColourAtEverySize) {
  const Bytes pixel{250, 128, 3, 77};
  for (const uint32_t side : {1U, 7U, 57U, 119U, 121U, 180U, 311U}) {
    EXPECT_EQ(scaledImage(uniform(side, 2 * side, pixel), 120, 120).pixels,
              uniform(120, 120, pixel).pixels)
        << side;
  }
}

TEST(IconRenderer, FindsTheNamedPNGDirectlyInsideTheBundle) {
  const struct {
    const char* name;
    std::string iconFile;
    std::function<void(const TemporaryRoot&)> make;
    bool rendered;
  } cases[] = {
      {"whole name", "Icon.png",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Icon.png", bluePNG()); }, true},
      {"without extension", "Icon",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Icon.png", bluePNG()); }, true},
      {"no extension on disk", "Icon",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Icon", bluePNG()); }, true},
      {"a dot in the name", "Icon.2",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Icon.2.png", bluePNG()); }, true},
      {"missing", "Icon.png", [](const TemporaryRoot&) {}, false},
      {"no PNG", "Icon.png", [](const TemporaryRoot& r) { r.makeFile("A.app/Icon.png", "GIF89a"); },
       false},
      {"outside", "../x", [](const TemporaryRoot& r) { r.makeFile("x", bluePNG()); }, false},
      {"deeper", "sub/Icon.png",
       [](const TemporaryRoot& r) { r.makeFile("A.app/sub/Icon.png", bluePNG()); }, false},
      {"parent", "..", [](const TemporaryRoot&) {}, false},
      {"empty", "", [](const TemporaryRoot& r) { r.makeFile("A.app/.png", bluePNG()); }, false},
      {"directory", "Icon.png", [](const TemporaryRoot& r) { r.makeDirectory("A.app/Icon.png"); },
       false},
      {"symbolic link", "Icon.png",
       [](const TemporaryRoot& r) { r.makeLink("A.app/Icon.png", r.makeFile("x.png", bluePNG())); },
       false},
      {"FIFO", "Icon.png",
       [](const TemporaryRoot& r) { ASSERT_EQ(mkfifo((r / "A.app/Icon.png").c_str(), 0644), 0); },
       false},
      {"file too large", "Icon.png",
       [](const TemporaryRoot& r) {
         std::filesystem::resize_file(r.makeFile("A.app/Icon.png", bluePNG()),
                                      kIconMaximumFileSize + 1);
       },
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TemporaryRoot root;
    root.makeFile("A.app/Info.plist",
                  "<plist version=\"1.0\"><dict><key>QXBundleIconFile</key><string>" + c.iconFile +
                      "</string></dict></plist>");
    c.make(root);
    const auto bundle = QXBundle::bundleWithURL(URL::fileURL(root / "A.app/"));
    ASSERT_NE(bundle, nullptr);
    const auto image = CreateHomeScreenIconImageFromBundle(*bundle);
    ASSERT_EQ(image.has_value(), c.rendered);
    if (image) {
      EXPECT_EQ(image->pixels,
                uniform(kHomeScreenIconSize, kHomeScreenIconSize, {0, 0, 255, 200}).pixels);
    }
  }
}

TEST(IconRenderer, WithoutANameThereIsNoIcon) {
  const TemporaryRoot root;
  root.makeFile(
      "A.app/Info.plist",
      "<plist "
      "version=\"1.0\"><dict><key>QXBundleIconFile</key><integer>1</integer></dict></plist>");
  root.makeDirectory("B.app");
  for (const char* name : {"A.app/", "B.app/"}) {
    EXPECT_FALSE(
        CreateHomeScreenIconImageFromBundle(*QXBundle::bundleWithURL(URL::fileURL(root / name))));
  }
}

TEST(ImageEncoder, WritesOnePNG) {
  const Image image{2, 1, {1, 2, 3, 0, 4, 5, 6, 128}};
  std::string buffer;
  const auto encoder = ImageEncoder::createWithData(buffer, "public.png", 1);
  ASSERT_NE(encoder, nullptr);
  EXPECT_FALSE(encoder->finalize()) << "without an image";
  encoder->addImage({2, 2, image.pixels});
  EXPECT_FALSE(encoder->finalize()) << "fewer pixels than the size says";
  encoder->addImage(image);
  ASSERT_TRUE(encoder->finalize());
  const auto decoded = decodePNG(buffer);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->pixels, image.pixels);

  EXPECT_EQ(ImageEncoder::createWithData(buffer, "public.jpeg", 1), nullptr);
  EXPECT_EQ(ImageEncoder::createWithData(buffer, "public.png", 2), nullptr);
  EXPECT_FALSE(encodePNG({0, 0, {}}));
}

TEST(Icon, SeamsCanBeReplaced) {
  class NoIcon : public IconRenderer {
    std::optional<Image> render(QXBundle&) override { return Image{1, 1, {7, 7, 7, 7}}; }
  } replacement;
  const TemporaryRoot root;
  const auto bundle = QXBundle::bundleWithURL(root.url());
  IconRenderer* before = IconRenderer::replace(&replacement);
  EXPECT_TRUE(CreateHomeScreenIconImageFromBundle(*bundle));
  IconRenderer::replace(before);
  EXPECT_FALSE(CreateHomeScreenIconImageFromBundle(*bundle));

  std::string buffer;
  ImageEncoder::replace(
      [](std::string&, const std::string&, size_t) { return std::unique_ptr<ImageEncoder>(); });
  EXPECT_EQ(ImageEncoder::createWithData(buffer, "public.png", 1), nullptr);
  ImageEncoder::replace(nullptr);
  EXPECT_NE(ImageEncoder::createWithData(buffer, "public.png", 1), nullptr);
}

}  // namespace
}  // namespace pallion
