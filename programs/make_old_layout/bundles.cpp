#include "programs/make_old_layout/bundles.h"

#include <cerrno>
#include <utility>

#include "foundation/property_list.h"
#include "platform/bundle.h"
#include "platform/extended_attributes.h"
#include "platform/icon.h"

namespace pallion {

namespace {

constexpr char kIconName[] = "Icon.png";
constexpr uint64_t kPictureCount = 12;

// A disc on a slanting gradient, with a transparent border.
Image drawPicture(uint32_t side, SeededRandom& random) {
  Image image{side, side, std::vector<uint8_t>(size_t{side} * side * 4)};
  const uint64_t from = random.next();
  const uint64_t to = random.next();
  const uint32_t radius = side / 4 + static_cast<uint32_t>(random.below(side / 8));
  const uint32_t border = side / 16;
  for (uint32_t y = 0; y < side; ++y) {
    for (uint32_t x = 0; x < side; ++x) {
      uint8_t* pixel = &image.pixels[(size_t{y} * side + x) * 4];
      const int64_t dx = int64_t{2} * x - side;
      const int64_t dy = int64_t{2} * y - side;
      const bool disc = dx * dx + dy * dy < int64_t{4} * radius * radius;
      const bool outside = x < border || y < border || x + border >= side || y + border >= side;
      for (uint32_t channel = 0; channel < 3; ++channel) {
        const uint64_t a = (from >> (8 * channel)) & 0xFF;
        const uint64_t b = (to >> (8 * channel)) & 0xFF;
        const uint64_t mixed = (a * (2 * side - x - y) + b * (x + y)) / (uint64_t{2} * side);
        pixel[channel] = static_cast<uint8_t>(disc ? 255 - mixed : mixed);
      }
      pixel[3] = outside ? 0 : 255;
    }
  }
  return image;
}

// The part of an identifier behind its last separator, as a file name.
std::string lastPart(const std::string& identifier) {
  return identifier.substr(identifier.find_last_of("./") + 1);
}

void writeExecutable(Directory& bundle, const std::string& name) {
  bundle.file(name, "#!/bin/sh\nexec echo '" + name + "'\n", 0755);
}

}  // namespace

const std::string& Pictures::picture(uint64_t index, SeededRandom& random) {
  static constexpr uint32_t kSides[] = {57, 120, 114, 180, 60, 256};
  while (encoded_.size() < kPictureCount) {
    std::string bytes;
    const uint32_t side = kSides[encoded_.size() % std::size(kSides)];
    if (const auto encoder = ImageEncoder::createWithData(bytes, "public.png", 1)) {
      encoder->addImage(drawPicture(side, random));
      encoder->finalize();
    }
    encoded_.push_back(std::move(bytes));
  }
  return encoded_[index % kPictureCount];
}

void writeList(Directory& directory, const std::string& name, const Dictionary& list,
               ListFormat format) {
  const std::optional<std::string> bytes = writePropertyList(
      Value::dictionary(list),
      format == ListFormat::kXML ? PropertyListFormat::kXML : PropertyListFormat::kBinary);
  if (!bytes) return directory.writer().fail(directory.path() + "/" + name, EILSEQ);
  directory.file(name, *bytes);
}

Dictionary infoDictionary(const Bundle& bundle) {
  Dictionary info{{kQXBundleIdentifier, Value::string(bundle.identifier)},
                  {kQXBundleDisplayName, Value::string(bundle.name)},
                  {kQXBundleExecutable, Value::string(lastPart(bundle.identifier))},
                  {kQXBundleVersion, Value::string(bundle.version)},
                  {kQXBundleShortVersionString, Value::string(bundle.version + " (old)")}};
  if (!bundle.groups.empty()) {
    Value::Array groups;
    for (const std::string& group : bundle.groups) groups.push_back(Value::string(group));
    info.set(kQXApplicationGroups, Value::array(std::move(groups)));
  }
  return info;
}

void writeApplication(Directory& container, const Bundle& bundle, Pictures& pictures) {
  Directory app = container.directory(bundle.name + ".app");
  SeededRandom& random = app.writer().random;
  const uint64_t variant = random.next();
  Dictionary info = infoDictionary(bundle);
  // Both spellings of an icon's name are in use.
  info.set(kQXBundleIconFile, Value::string(variant % 2 == 0 ? "Icon" : kIconName));
  writeList(app, "Info.plist", info, variant % 3 == 0 ? ListFormat::kXML : ListFormat::kBinary);
  writeExecutable(app, lastPart(bundle.identifier));
  app.file(kIconName, pictures.picture(variant, random));
  app.randomFile("Assets.dat", 512 + random.below(4096));
  Directory strings = app.directory("texts");
  strings.file("english", "\"title\" = \"" + bundle.name + "\";\n");
}

void writePlaceholder(Directory& container, const Bundle& bundle) {
  const std::string name = bundle.name + ".app";
  {
    Directory app = container.directory(name);
    writeList(app, "Info.plist", infoDictionary(bundle), ListFormat::kBinary);
  }
  if (container.writer().failed()) return;
  // The number 1 in 32 bits, least byte first.
  constexpr char kMark[4] = {1, 0, 0, 0};
  const std::string path = container.path() + "/" + name;
  if (ExtendedAttributes::current().set(path.c_str(), "com.orlix.palliond.placeholder", kMark,
                                        sizeof kMark) == 0) {
    return;
  }
  if (errno != ENOTSUP) return container.writer().fail(path, errno);
  container.writer().leaveOut(
      "the marks of placeholders, for which the file system has no attributes");
}

void writePlugin(Directory& container, const Bundle& bundle) {
  Directory plugin = container.directory(bundle.name + ".vpnplugin");
  writeList(plugin, "Info.plist", infoDictionary(bundle), ListFormat::kXML);
  writeExecutable(plugin, lastPart(bundle.identifier));
}

void writeStoreMetadata(Directory& container, const Bundle& bundle, uint64_t index,
                        Pictures& pictures) {
  SeededRandom& random = container.writer().random;
  writeList(container, "BriscaMetadata.plist",
            {{"itemName", Value::string(bundle.name)},
             {"itemId", Value::unsignedInteger(random.below(1'000'000'000))},
             {"softwareVersionBundleId", Value::string(bundle.identifier)}},
            ListFormat::kBinary);
  container.file("BriscaArtwork", pictures.picture(index, random));
  writeList(container, "Manifest.plist", {{"bundleVersion", Value::string(bundle.version)}},
            ListFormat::kXML);
  if (index % 4 == 0) {
    container.file("GeoJSON", "{\"type\": \"FeatureCollection\", \"features\": []}\n");
  }
}

}  // namespace pallion
