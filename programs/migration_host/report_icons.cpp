#include "programs/migration_host/report_icons.h"

#include <algorithm>
#include <chrono>
#include <map>

#include "platform/bundle.h"
#include "platform/icon.h"
#include "platform/image_scaling.h"
#include "platform/registry.h"
#include "programs/common/base64.h"

namespace pallion::host {

namespace {

constexpr uint32_t kSide = 32;  // pixels
// A part of what the run took, and what even the shortest may add to itself.
constexpr double kPartOfRun = 0.01;
constexpr double kLeastSeconds = 0.1;

std::string iconURL(const URL& bundleURL) {
  const std::unique_ptr<QXBundle> bundle = QXBundle::bundleWithURL(bundleURL);
  const std::optional<Image> image =
      bundle ? CreateHomeScreenIconImageFromBundle(*bundle) : std::nullopt;
  if (!image) return {};
  std::string bytes;
  const auto encoder = ImageEncoder::createWithData(bytes, "public.png", 1);
  if (!encoder) return {};
  encoder->addImage(scaledImage(*image, kSide, kSide));
  return encoder->finalize() ? "data:image/png;base64," + base64(bytes) : std::string();
}

}  // namespace

std::vector<std::string> containerIcons(const RunRecord& record) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(std::max(
                                      kLeastSeconds, record.seconds.value_or(0) * kPartOfRun));
  std::vector<std::string> icons(record.containers.size());
  if (icons.empty()) return icons;
  Error ignored;
  const auto proxies = Registry::atRoot(URL(), Registry::Access::kReadOnly)->allProxies(&ignored);
  if (!proxies) return icons;
  std::map<std::string_view, const URL*> bundles;
  for (const BundleProxy& proxy : *proxies) {
    if (proxy.bundleURL()) bundles.emplace(proxy.bundleIdentifier(), &*proxy.bundleURL());
  }
  size_t room = kIconsMaximumBytes;
  for (size_t i = 0; i < icons.size(); ++i) {
    const auto bundle = bundles.find(record.containers[i].identifier);
    if (bundle == bundles.end()) continue;
    std::string icon = iconURL(*bundle->second);
    if (icon.size() > room) break;
    room -= icon.size();
    icons[i] = std::move(icon);
    if (Clock::now() >= end) break;
  }
  return icons;
}

}  // namespace pallion::host
