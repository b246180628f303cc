#include "programs/migration_host/plugin_module.h"

#include <climits>
#include <dlfcn.h>
#include <unistd.h>

namespace pallion::host {

namespace {

std::string modulePathFromProgram() {
  char program[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof program);
  std::string directory(program, length > 0 ? static_cast<size_t>(length) : 0);
  directory.erase(directory.rfind('/') == std::string::npos ? 0 : directory.rfind('/'));
  return directory + "/" PALLION_MODULE_DIRECTORY "/PLAppMigrator.so";
}

}  // namespace

bool PluginModule::load(const std::string& path, std::string& explanation) {
  path_ = path.empty() ? modulePathFromProgram() : path;
  // The loader would look for a name without a slash in the system's library directories.
  if (path_.find('/') == std::string::npos) path_.insert(0, "./");
  // Everything is bound now: nothing can be loaded any more once the root has changed.
  void* const handle = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    // The loader's text begins with the path.
    explanation = dlerror();
    return false;
  }
  void* const symbol = dlsym(handle, kMigrationPluginEntryName);
  if (!symbol) {
    explanation = path_ + ": no migration plug-in (it has no " + kMigrationPluginEntryName + ")";
    return false;
  }
  const auto entry = reinterpret_cast<MigrationPluginEntry>(symbol);
  const MigrationPluginDescriptor* const descriptor = entry();
  if (!descriptor || descriptor->abiVersion != kMigrationPluginABIVersion) {
    explanation = path_ + ": plug-in interface " +
                  (descriptor ? std::to_string(descriptor->abiVersion) : "missing") +
                  ", needed is " + std::to_string(kMigrationPluginABIVersion);
    return false;
  }
  descriptor_ = descriptor;
  return true;
}

Plugin PluginModule::createPlugin() const { return {descriptor_->create(), descriptor_->destroy}; }

Plugin PluginModule::makePlugin() const {
  Plugin plugin = createPlugin();
  if (plugin && !plugin->init()) plugin.reset();
  return plugin;
}

}  // namespace pallion::host
