#include <cerrno>
#include <cstring>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/install_options.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "foundation/property_list.h"
#include "platform/app_workspace.h"
#include "platform/icon.h"
#include "platform/store_metadata.h"
#include "platform/temporary_directory.h"

namespace pallion {

namespace {

constexpr char kPlaceholderFunction[] =
    "-[PLAppMigrator _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:]";
constexpr std::string_view kIconName = "Icon.png";

// The whole file; nothing, and silence, when there is none.
std::optional<std::string> readStoreMetadata(const URL& url) {
  int errorNumber = 0;
  std::optional<std::string> bytes = readFile(url, &errorNumber, FileCache::kBypass);
  if (!bytes && errorNumber != ENOENT) {
    logError(kPlaceholderFunction, "PLAppMigrator: Failed to read %@ : %@", url.path(),
             _CreateError(kPlaceholderFunction, __LINE__, kPOSIXErrorDomain, errorNumber, "%s",
                          std::strerror(errorNumber)));
  }
  return bytes;
}

Dictionary placeholderInfo(const Dictionary& bundleInfo) {
  Dictionary info;
  for (const std::string_view key : {kQXBundleIdentifier, kQXBundleDisplayName, kQXBundleExecutable,
                                     kQXBundleVersion, kQXBundleShortVersionString}) {
    if (Value value = bundleInfo.get(key)) info.set(key, std::move(value));
  }
  return info;
}

}  // namespace

bool PLAppMigrator::_stageAndInstallPlaceholderForBundleAtURL(const URL& bundle,
                                                              const std::string& identifier,
                                                              const URL& container) {
  const PLFileManager& files = PLFileManager::defaultManager();
  const URL parent =
      temporaryDirectory().appending("com.orlix.pallion.migrator", URL::Kind::kDirectory);
  const URL placeholder =
      parent.appending(identifier, URL::Kind::kDirectory).appendingPathExtension("app");
  // The identifier comes from a file of the application; only as a plain name it stays below the
  // parent.
  const bool plain = isPlainName(identifier);
  Error error;
  if (!plain) {
    error = _CreateError(kPlaceholderFunction, __LINE__, kPOSIXErrorDomain, EINVAL,
                         "\"%@\" is no plain name", identifier);
  }
  if (!plain || !files.createDirectoryAtURL(placeholder, true, 0755, &error)) {
    logError(kPlaceholderFunction,
             "PLAppMigrator: Failed to create staged placeholder directory at %@ : %@",
             placeholder.path(), error);
    if (plain) files.removeItemAtURL(placeholder, nullptr);
    return false;
  }
  const bool installed = buildAndInstallPlaceholder(placeholder, bundle, identifier, container);
  files.removeItemAtURL(placeholder, nullptr);
  return installed;
}

bool PLAppMigrator::buildAndInstallPlaceholder(const URL& placeholder, const URL& bundle,
                                               const std::string& identifier,
                                               const URL& container) {
  std::optional<std::string> metadata =
      readStoreMetadata(container.appending(kBriscaMetadataName, URL::Kind::kFile));
  const std::unique_ptr<QXBundle> object = QXBundle::bundleWithURL(bundle);
  if (!object) {
    logError(kPlaceholderFunction, "PLAppMigrator: Failed to create QXBundle for %@",
             bundle.path());
    return false;
  }
  const Dictionary* bundleInfo = object->infoDictionary();
  if (!bundleInfo) {
    logError(kPlaceholderFunction,
             "PLAppMigrator: Failed to get bundle info dictionary for bundle %@", bundle.path());
    return false;
  }
  Dictionary info = placeholderInfo(*bundleInfo);
  const URL icon = placeholder.appending(kIconName, URL::Kind::kFile);
  if (_writeIconForBundle(*object, icon)) {
    info.set(kQXBundleIconFile, Value::string(std::string(kIconName)));
  } else {
    logError(kPlaceholderFunction,
             "PLAppMigrator: Writing placeholder icon for app %@ to %@ failed", identifier, icon);
  }
  const URL infoURL = placeholder.appending("Info.plist", URL::Kind::kFile);
  const std::optional<std::string> list =
      writePropertyList(Value::dictionary(std::move(info)), PropertyListFormat::kBinary);
  if (!list || writeFileInOwnDirectory(infoURL, *list, temporaryVolume_) != 0) {
    logError(kPlaceholderFunction, "PLAppMigrator: Failed to write placeholder Info.plist to %@",
             infoURL);
    return false;
  }

  logNotice(kPlaceholderFunction, "PLAppMigrator: Installing placeholder for %@", identifier);
  Error error;
  if (AppWorkspace::defaultWorkspace().installApplication(
          placeholder, placeholderInstallOptions(identifier, std::move(metadata)), &error)) {
    return true;
  }
  logError(kPlaceholderFunction, "PLAppMigrator: Failed to install placeholder for %@: %@",
           identifier, error.details());
  return false;
}

bool PLAppMigrator::_writeIconForBundle(QXBundle& bundle, const URL& toURL) {
  constexpr char kFunction[] = "-[PLAppMigrator _writeIconForBundle:toURL:]";
  const std::optional<Image> image = CreateHomeScreenIconImageFromBundle(bundle);
  if (!image) {
    logError(kFunction, "PLAppMigrator: Failed to create icon from bundle %@", bundle);
    return false;
  }
  std::string buffer;
  const std::unique_ptr<ImageEncoder> encoder =
      ImageEncoder::createWithData(buffer, "public.png", 1);
  if (!encoder) {
    logError(kFunction,
             "PLAppMigrator: ZTImageDestinationCreateWithData returned NULL ztImage from bundle %@",
             bundle);
    return false;
  }
  encoder->addImage(*image);
  if (!encoder->finalize()) {
    logError(kFunction, "PLAppMigrator: ZTImageDestinationFinalize failed for icon from bundle %@",
             bundle);
    return false;
  }
  if (const int number = writeFileInOwnDirectory(toURL, buffer, temporaryVolume_); number != 0) {
    logError(
        kFunction, "PLAppMigrator: Failed to write image data to %@ : %@", toURL,
        _CreateError(kFunction, __LINE__, kPOSIXErrorDomain, number, "%s", std::strerror(number)));
    return false;
  }
  return true;
}

}  // namespace pallion
