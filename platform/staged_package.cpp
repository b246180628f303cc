#include "platform/staged_package.h"

#include <cerrno>
#include <sys/stat.h>

#include "foundation/url.h"
#include "platform/extended_attributes.h"
#include "platform/registry_containers.h"

namespace pallion {

namespace {

Refusal inspectionFailed(const std::string& description, int errorNumber,
                         const std::string& detail) {
  return {RegistryErrorCode::kPackageInspection, description, errorNumber, detail};
}

// Reads a bundle of `payload` into the slot that its kind has.
Outcome inspectBundle(const std::string& payload, const std::string& name,
                      const std::string& directory, std::optional<BundleFacts>& slot) {
  if (slot) return inspectionFailed(payload, 0, "holds more than one bundle of a kind");
  slot.emplace();
  if (Outcome refused = readBundleFacts(payload, name, *slot)) return refused;
  if (directory.empty()) return std::nullopt;
  struct stat status {};
  const std::string place = directory + "/" + name;
  if (lstat(place.c_str(), &status) == 0)
    return inspectionFailed(place, 0, "stands where the bundle would go");
  if (errno != ENOENT) return inspectionFailed(place, errno, "");
  return std::nullopt;
}

int setAttribute(const std::string& path, const char* name, const void* value, size_t size) {
  if (ExtendedAttributes::current().set(path.c_str(), name, value, size) == 0) return 0;
  return errno == ENOTSUP ? 0 : errno;
}

}  // namespace

const char* bundleTypeOf(const std::string& name) {
  const std::string extension = URL::fileURL("/" + name).pathExtension();
  if (extension == "app") return "App";
  return extension == "vpnplugin" ? "VPNBundle" : nullptr;
}

Outcome inspectPackage(const std::string& directory, StagedPackage& package) {
  const std::string payload = directory + "/Payload";
  // A way without links shows that the staging directory is none either.
  std::optional<std::vector<std::string>> names = namesInDirectoryWithoutLinks(payload);
  if (!names) {
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0)
      return inspectionFailed("Staging directory " + directory, errno, "");
    if (!S_ISDIR(status.st_mode))
      return inspectionFailed("Staging directory " + directory, ENOTDIR, "");
    names = namesInDirectory(payload);
    if (!names && errno != ENOENT) return inspectionFailed("Listing " + payload, errno, "");
  }
  BundlePlaces bundles;
  for (const std::string& name : names ? *names : std::vector<std::string>())
    bundles.emplace_back(payload, name);
  return inspectBundles(bundles, directory, package);
}

Outcome inspectBundles(const BundlePlaces& bundles, const std::string& directory,
                       StagedPackage& package) {
  package = StagedPackage();
  for (const auto& [parent, name] : bundles) {
    const char* type = isPlainName(name) ? bundleTypeOf(name) : nullptr;
    if (!type)
      return inspectionFailed(parent + "/" + name, 0, "is neither an application nor a plug-in");
    const bool isApplication = *type == 'A';
    Outcome refused =
        inspectBundle(parent, name, directory, isApplication ? package.main : package.plugin);
    if (refused) return refused;
    if (isApplication || !package.main) package.mainPath = parent + "/" + name;
  }
  if (!package.main) package.main.swap(package.plugin);
  return std::nullopt;
}

bool hasRecordOfItsOwn(const StagedPackage& package) {
  const std::string& identifier = package.plugin->identifier;
  return !identifier.empty() && identifier != package.main->identifier;
}

Outcome checkExecutable(const std::string& bundlePath, const BundleFacts& facts) {
  if (!facts.executable) return std::nullopt;
  Refusal refusal{RegistryErrorCode::kMissingExecutable, "Executable of " + bundlePath, 0,
                  "has no plain name"};
  if (facts.executable->empty()) return refusal;
  refusal.description = bundlePath + "/" + *facts.executable;
  refusal.detail.clear();
  struct stat status {};
  if (lstat(refusal.description.c_str(), &status) != 0) {
    refusal.errorNumber = errno;
    return refusal;
  }
  if (S_ISREG(status.st_mode)) return std::nullopt;
  refusal.detail = "is no regular file";
  return refusal;
}

int markAsPlaceholder(const std::string& bundlePath) {
  const int32_t mark = 1;
  return setAttribute(bundlePath, kPlaceholderAttribute, &mark, sizeof mark);
}

int setInstallType(const std::string& bundlePath, uint64_t installType) {
  return setAttribute(bundlePath, kInstallTypeAttribute, &installType, sizeof installType);
}

Outcome setInstallTypes(const std::string& directory, const StagedPackage& package,
                        uint64_t installType) {
  for (const std::optional<BundleFacts>* facts : {&package.main, &package.plugin}) {
    if (!*facts) continue;
    const std::string path = directory + "/Payload/" + (*facts)->name;
    const int failed = setInstallType(path, installType);
    // A read-only volume is copied from; the copy then gets the attribute.
    if (failed != 0 && failed != EROFS) {
      return Refusal{RegistryErrorCode::kInstallation, "Setting the install type of " + path,
                     failed, ""};
    }
  }
  return std::nullopt;
}

}  // namespace pallion
