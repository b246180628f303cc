#include "support/bundle_metadata.h"

#include <memory>
#include <mutex>

#include "file_operations/file_manager.h"
#include "platform/bundle.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

constexpr char kFunction[] = "PLLoadInfoPlist";

std::optional<Dictionary> readFiltered(QXBundle& bundle, const Value& keys) {
  std::vector<std::string> names;
  for (const Value& key : *keys.asSet()) {
    if (key.asString()) names.push_back(*key.asString());
  }
  const Value read = bundle.filteredInfoDictionary(names);
  if (!read) {
    LogWrite(kLogError, kFunction, "Failed to get filtered Info.plist with keys %@ from bundle %@",
             keys, bundle);
    return std::nullopt;
  }
  if (!read.asDictionary()) {
    LogWrite(
        kLogError, kFunction,
        "Object returned from _QXBundleCreateFilteredInfoPlist was not a dictionary, was type %@",
        nameOfClass(read.valueClass()));
    return std::nullopt;
  }
  return *read.asDictionary();
}

std::optional<Dictionary> readWhole(QXBundle& bundle) {
  const Dictionary* info = bundle.infoDictionary();
  if (!info) {
    LogWrite(kLogError, kFunction, "QXBundleGetInfoDictionary failed for bundle %@",
             bundle.bundleURL());
    return std::nullopt;
  }
  Dictionary result = *info;
  result.remove(kQXBundleInfoPlistURL);
  return result;
}

}  // namespace

std::optional<Dictionary> PLLoadInfoPlist(const URL& bundle, const Value& keys) {
  const URL info = bundle.appending("Info.plist", URL::Kind::kFile);
  if (PLFileManager::defaultManager().itemDoesNotExistAtURL(info)) {
    LogWrite(kLogDebug, kFunction, "Missing Info.plist at %@", info);
    return std::nullopt;
  }
  static std::mutex oneRead;
  const std::lock_guard lock(oneRead);
  const std::unique_ptr<QXBundle> object = QXBundle::bundleWithURL(bundle);
  if (!object) {
    LogWrite(kLogError, kFunction, "Failed to create QXBundle from URL %@", bundle);
    return std::nullopt;
  }
  return keys.asSet() ? readFiltered(*object, keys) : readWhole(*object);
}

}  // namespace pallion
