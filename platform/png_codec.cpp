#include "platform/png_codec.h"

#include <csetjmp>
#include <cstring>
#include <png.h>

// libpng leaves a failing call by longjmp to the setjmp in readHeader, readRows or writeRows.
// Objects with destructors are therefore declared only in the callers of these three and in write
// callbacks that have returned; what they allocate is theirs to free.

namespace pallion {

namespace {

constexpr size_t kBytesPerPixel = 4;

[[noreturn]] void fail(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void ignoreWarning(png_structp, png_const_charp) {}

void readFromView(png_structp png, png_bytep out, size_t count) {
  auto& rest = *static_cast<std::string_view*>(png_get_io_ptr(png));
  if (count > rest.size()) fail(png, "");
  std::memcpy(out, rest.data(), count);
  rest.remove_prefix(count);
}

void appendToString(png_structp png, png_bytep bytes, size_t count) {
  static_cast<std::string*>(png_get_io_ptr(png))
      ->append(reinterpret_cast<const char*>(bytes), count);
}

void ignoreFlush(png_structp) {}

struct Reader {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, fail, ignoreWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() { png_destroy_read_struct(&png, &info, nullptr); }
};

struct Writer {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, fail, ignoreWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  Writer() = default;
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() { png_destroy_write_struct(&png, &info); }
};

// Everything before the pixels; afterwards rows come as red, green, blue and alpha of 8 bits each.
bool readHeader(png_structp png, png_infop info, std::string_view* rest) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_user_limits(png, kIconMaximumSide, kIconMaximumSide);
  // Colour profiles, texts and all else that the pixels can do without: libpng would take as much
  // memory for such a chunk as its length claims, and then unfold it.
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
  png_set_read_fn(png, rest, readFromView);
  png_read_info(png, info);
  png_set_expand(png);  // palettes, fewer than 8 bits, and the transparent colour
  png_set_scale_16(png);
  png_set_gray_to_rgb(png);
  png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  return true;
}

bool readRows(png_structp png, uint8_t* pixels, uint32_t height, size_t rowSize, bool interlaced) {
  if (setjmp(png_jmpbuf(png))) return false;
  const int passes = interlaced ? PNG_INTERLACE_ADAM7_PASSES : 1;
  for (int pass = 0; pass < passes; ++pass) {
    for (uint32_t row = 0; row < height; ++row) png_read_row(png, pixels + row * rowSize, nullptr);
  }
  png_read_end(png, nullptr);
  return true;
}

bool writeRows(png_structp png, png_infop info, const Image& image, std::string* out) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_write_fn(png, out, appendToString, ignoreFlush);
  png_set_IHDR(png, info, image.width, image.height, 8, PNG_COLOR_TYPE_RGB_ALPHA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // Trying all filters and looking long for the best match takes five times as long, and saves a
  // kilobyte or two of an icon.
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_set_compression_level(png, 1);
  png_write_info(png, info);
  for (uint32_t row = 0; row < image.height; ++row) {
    png_write_row(png, image.pixels.data() + size_t{row} * image.width * kBytesPerPixel);
  }
  png_write_end(png, info);
  return true;
}

}  // namespace

std::optional<Image> decodePNG(std::string_view bytes) {
  Reader reader;
  std::string_view rest = bytes;
  if (!reader.info || !readHeader(reader.png, reader.info, &rest)) return std::nullopt;
  Image image;
  image.width = png_get_image_width(reader.png, reader.info);
  image.height = png_get_image_height(reader.png, reader.info);
  const size_t rowSize = image.width * kBytesPerPixel;
  if (png_get_rowbytes(reader.png, reader.info) != rowSize) return std::nullopt;
  image.pixels.resize(image.height * rowSize);
  const bool interlaced = png_get_interlace_type(reader.png, reader.info) != PNG_INTERLACE_NONE;
  if (!readRows(reader.png, image.pixels.data(), image.height, rowSize, interlaced))
    return std::nullopt;
  return image;
}

std::optional<std::string> encodePNG(const Image& image) {
  if (image.width == 0 || image.height == 0 || image.width > kIconMaximumSide ||
      image.height > kIconMaximumSide ||
      image.pixels.size() != size_t{image.width} * image.height * kBytesPerPixel) {
    return std::nullopt;
  }
  Writer writer;
  std::string bytes;
  if (!writer.info || !writeRows(writer.png, writer.info, image, &bytes)) return std::nullopt;
  return bytes;
}

}  // namespace pallion
