#include "configuration/global_configuration.h"
#include "file_operations/file_manager.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

constexpr int32_t kNoClass = -1;
constexpr int32_t kWorkingDirectoryClass = 4;

// Makes a working directory where it is missing; a failure is only logged, with the location and
// the record.
void create(const URL& url, int32_t protectionClass, const char* function,
            FormatString<URL, Error> failure) {
  Error error;
  if (!PLFileManager::defaultManager().createDirectoryAtURL(url, true, 0755, protectionClass,
                                                            &error)) {
    LogWrite<URL, Error>(kLogError, function, failure, url, error);
  }
}

}  // namespace

URL PLGlobalConfiguration::carrierBundlesDirectory() {
  const std::lock_guard lock(lock_);
  if (!carrierBundlesDir_) {
    carrierBundlesDir_ = mobilePath_.appending("Library/Carrier Bundles", URL::Kind::kDirectory);
  }
  create(*carrierBundlesDir_, kNoClass, "-[PLGlobalConfiguration carrierBundlesDirectory]",
         "Failed to create carrier bundles directory at \"%@\": %@");
  return *carrierBundlesDir_;
}

URL PLGlobalConfiguration::cachesDirectory() {
  const std::lock_guard lock(lock_);
  if (!cachesDir_) cachesDir_ = palliondPath_.appending("Library/Caches", URL::Kind::kDirectory);
  create(*cachesDir_, kNoClass, "-[PLGlobalConfiguration cachesDirectory]",
         "Failed to create data dir at \"%@\": %@");
  return *cachesDir_;
}

URL PLGlobalConfiguration::stagingRoot() {
  const std::lock_guard lock(lock_);
  if (!stagingRoot_) {
    stagingRoot_ =
        cachesDirectory().appending("com.orlix.mobile.palliond.staging", URL::Kind::kDirectory);
  }
  create(*stagingRoot_, kWorkingDirectoryClass, "-[PLGlobalConfiguration stagingRoot]",
         "Failed to create staging root at \"%@\": %@");
  return *stagingRoot_;
}

URL PLGlobalConfiguration::dataDirectory() {
  const std::lock_guard lock(lock_);
  if (!dataDir_) dataDir_ = dataDirectoryPath();
  create(*dataDir_, kWorkingDirectoryClass, "-[PLGlobalConfiguration dataDirectory]",
         "Failed to create data dir at \"%@\": %@");
  return *dataDir_;
}

URL PLGlobalConfiguration::logDirectory() const {
  URL directory = palliondPath_.appending("Library/Logs/Pallion", URL::Kind::kDirectory);
  create(directory, kWorkingDirectoryClass, "-[PLGlobalConfiguration logDirectory]",
         "Failed to create log directory at \"%@\": %@");
  return directory;
}

URL PLGlobalConfiguration::fixedDirectory(std::optional<URL>& cache, std::string_view relative) {
  const std::lock_guard lock(lock_);
  if (!cache) cache = rootPath_.appending(relative, URL::Kind::kDirectory);
  return *cache;
}

URL PLGlobalConfiguration::baseweaveDirectory() {
  return fixedDirectory(baseweaveDir_, "System/Library/Baseweave");
}
URL PLGlobalConfiguration::systemAppsDirectory() {
  return fixedDirectory(systemAppsDir_, "Applications");
}
URL PLGlobalConfiguration::internalAppsDirectory() {
  return fixedDirectory(internalAppsDir_, "OrlixInternal/Applications");
}
URL PLGlobalConfiguration::developerAppsDirectory() {
  return fixedDirectory(developerAppsDir_, "Developer/Applications");
}
URL PLGlobalConfiguration::factoryMountDirectory() {
  return fixedDirectory(factoryMountDir_, "private/var/factory_mount/");
}
URL PLGlobalConfiguration::systemFrameworksRootDirectory() {
  return fixedDirectory(systemFrameworksRootDirectory_, "System/Library");
}
URL PLGlobalConfiguration::internalFrameworksRootDirectory() {
  return fixedDirectory(internalFrameworksRootDirectory_, "OrlixInternal");
}
URL PLGlobalConfiguration::developerFrameworksRootDirectory() {
  return fixedDirectory(developerFrameworksRootDirectory_, "Developer");
}

std::vector<URL> PLGlobalConfiguration::allFrameworksDirectories() {
  const std::lock_guard lock(lock_);
  if (!allFrameworksDirectories_) {
    allFrameworksDirectories_.emplace();
    for (const URL& root : {systemFrameworksRootDirectory(), internalFrameworksRootDirectory()}) {
      for (const char* name : {"Frameworks", "PrivateFrameworks"}) {
        allFrameworksDirectories_->push_back(root.appending(name, URL::Kind::kDirectory));
      }
    }
  }
  return *allFrameworksDirectories_;
}

}  // namespace pallion
