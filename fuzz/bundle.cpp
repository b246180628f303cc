#include "platform/bundle.h"

#include <algorithm>

#include "foundation/format.h"
#include "fuzz/fuzz_target.h"
#include "platform/icon.h"
#include "tests/helpers/png_bytes.h"
#include "tests/helpers/temporary_root.h"

// A bundle whose Info.plist is the input; an icon stands in it, and another one beside it.

namespace pallion::fuzz {

namespace {

struct Device {
  test::TemporaryRoot root;
  std::string bundle = root.makeDirectory("Foo.app");
  Device() {
    const std::string png = test::pngBytes({.width = 1, .height = 1, .rows = std::string(5, '\0')});
    root.makeFile("Foo.app/icon.png", png);
    root.makeFile("Foo.app/in/icon.png", png);
    root.makeFile("outside.png", png);
    root.makeLink("Foo.app/link.png", "../outside.png");
  }
};

}  // namespace

void runInput(std::string_view input) {
  static const Device device;
  writeFile(device.bundle + "/Info.plist", input);
  const std::unique_ptr<QXBundle> bundle =
      QXBundle::bundleWithURL(URL::fileURL(device.bundle, URL::Kind::kDirectory));
  require(bundle != nullptr, "a directory is a bundle");
  require(bundle->infoState() != QXBundle::InfoState::kUnreadable, "damage is no read failure");
  const Dictionary* info = bundle->infoDictionary();
  require((info != nullptr) == (bundle->infoState() == QXBundle::InfoState::kRead), "state fits");
  const std::optional<std::string> identifier = bundle->identifier();
  const Value filtered =
      bundle->filteredInfoDictionary({"QXBundleIdentifier", "QXBundleInfoPlistURL"});
  require(info || !filtered.asDictionary(), "nothing comes out of a list that can't be used");
  require(!identifier || *identifier == *filtered.asDictionary()->getString("QXBundleIdentifier"),
          "both readings give one identifier");
  const std::optional<Image> image = CreateHomeScreenIconImageFromBundle(*bundle);
  if (!image) return;
  const std::string name = *info->getString(kQXBundleIconFile);
  require(name == "icon" || name == "icon.png", "only the icon inside the bundle is rendered");
  require(image->pixels.size() == size_t{4} * kHomeScreenIconSize * kHomeScreenIconSize,
          "an icon has its size");
}

}  // namespace pallion::fuzz
