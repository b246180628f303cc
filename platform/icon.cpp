#include "platform/icon.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "foundation/file_contents.h"
#include "platform/image_scaling.h"
#include "platform/png_codec.h"
#include "platform/replaceable.h"

namespace pallion {

namespace {

class PNGIconRenderer final : public IconRenderer {
 public:
  std::optional<Image> render(QXBundle& bundle) override {
    const Dictionary* info = bundle.infoDictionary();
    const std::string* name = info ? info->getString(kQXBundleIconFile) : nullptr;
    if (!name || !isPlainName(*name)) return std::nullopt;
    const URL file = bundle.bundleURL().appending(*name, URL::Kind::kFile);
    int errorNumber = 0;
    std::optional<std::string> bytes =
        readFile(file, &errorNumber, FileCache::kUse, kIconMaximumFileSize);
    if (!bytes && errorNumber == ENOENT && file.pathExtension() != "png") {
      bytes = readFile(file.appendingPathExtension("png"), &errorNumber, FileCache::kUse,
                       kIconMaximumFileSize);
    }
    if (!bytes) return std::nullopt;
    const std::optional<Image> image = decodePNG(*bytes);
    if (!image) return std::nullopt;
    return scaledImage(*image, kHomeScreenIconSize, kHomeScreenIconSize);
  }
};

class PNGEncoder final : public ImageEncoder {
 public:
  explicit PNGEncoder(std::string& buffer) : buffer_(buffer) {}

  void addImage(const Image& image) override { image_ = image; }

  bool finalize() override {
    if (!image_) return false;
    std::optional<std::string> bytes = encodePNG(*image_);
    if (!bytes) return false;
    buffer_ = std::move(*bytes);
    return true;
  }

 private:
  std::string& buffer_;
  std::optional<Image> image_;
};

std::unique_ptr<ImageEncoder> makePNGEncoder(std::string& buffer, const std::string& type,
                                             size_t count) {
  if (type != "public.png" || count != 1) return nullptr;
  return std::make_unique<PNGEncoder>(buffer);
}

std::atomic<ImageEncoder::Factory> gEncoderFactory{makePNGEncoder};
using Renderer = Replaceable<IconRenderer, PNGIconRenderer>;

}  // namespace

IconRenderer& IconRenderer::system() { return Renderer::system(); }
IconRenderer& IconRenderer::current() { return Renderer::current(); }
IconRenderer* IconRenderer::replace(IconRenderer* replacement) {
  return Renderer::replace(replacement);
}

std::optional<Image> CreateHomeScreenIconImageFromBundle(QXBundle& bundle) {
  return IconRenderer::current().render(bundle);
}

std::unique_ptr<ImageEncoder> ImageEncoder::createWithData(std::string& buffer,
                                                           const std::string& type, size_t count) {
  return gEncoderFactory.load()(buffer, type, count);
}

ImageEncoder::Factory ImageEncoder::replace(Factory factory) {
  return gEncoderFactory.exchange(factory ? factory : makePNGEncoder);
}

}  // namespace pallion
