#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What a plug-in of the host's data-migration framework derives from, and how the host finds it in
// a module.

namespace pallion {

// Hears what a plug-in is about, on the thread that runs performMigration. For display only.
class MigrationObserver {
 public:
  MigrationObserver() = default;
  MigrationObserver(const MigrationObserver&) = delete;
  MigrationObserver& operator=(const MigrationObserver&) = delete;
  virtual ~MigrationObserver() = default;
  virtual void itemStarted(std::string_view identifier, std::string_view path) = 0;
  virtual void itemFinished(bool result) = 0;
};

// The host creates one, calls `init`, and throws it away when that answers false (the plug-in
// yields no migrator). It then asks `dataClassName` and `estimatedDuration` and calls
// `performMigration` once. `migrationProgress` and `estimatedDuration` may be asked from another
// thread meanwhile; everything else belongs to one thread.
class MigrationPluginBase {
 public:
  MigrationPluginBase() = default;
  MigrationPluginBase(const MigrationPluginBase&) = delete;
  MigrationPluginBase& operator=(const MigrationPluginBase&) = delete;
  virtual ~MigrationPluginBase();

  virtual bool init();
  virtual std::string dataClassName();
  virtual bool performMigration();
  // In the host's units (seconds, as the host shows them).
  virtual float estimatedDuration();
  // 0 to 1; negative when there is nothing to tell.
  virtual float migrationProgress();

  // Not owned; null for none.
  void setObserver(MigrationObserver* observer) { observer_ = observer; }

 protected:
  void itemStarted(std::string_view identifier, std::string_view path);
  void itemFinished(bool result);

 private:
  MigrationObserver* observer_ = nullptr;
};

// Raised with every change of MigrationPluginBase or MigrationPluginDescriptor.
inline constexpr uint32_t kMigrationPluginABIVersion = 1;

struct MigrationPluginDescriptor {
  uint32_t abiVersion;
  MigrationPluginBase* (*create)();
  void (*destroy)(MigrationPluginBase* plugin);
};

// Every module exports `extern "C" const MigrationPluginDescriptor* PallionMigrationPlugin()`.
using MigrationPluginEntry = const MigrationPluginDescriptor* (*)();
inline constexpr const char* kMigrationPluginEntryName = "PallionMigrationPlugin";

}  // namespace pallion
