#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/value.h"

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
  // The item in hand enters a step of its migration; the one before is over. The name is the
  // plug-in's own, short, for people.
  virtual void stepStarted(std::string_view step) = 0;
  // Something of the item in hand, the name of an entry or a path, has its new place.
  virtual void entryMoved(std::string_view name) = 0;
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
  // What performMigration would do now, as a property list whose keys the plug-in documents. Asked
  // instead of performMigration: needs no `init`, has none of its effects, changes nothing. None
  // when this plug-in can't tell.
  virtual std::optional<Dictionary> migrationPlan();

  // Not owned; null for none.
  void setObserver(MigrationObserver* observer) { observer_ = observer; }

 protected:
  void itemStarted(std::string_view identifier, std::string_view path);
  void stepStarted(std::string_view step);
  void entryMoved(std::string_view name);
  void itemFinished(bool result);

 private:
  MigrationObserver* observer_ = nullptr;
};

// Raised with every change of MigrationPluginBase or MigrationPluginDescriptor.
inline constexpr uint32_t kMigrationPluginABIVersion = 2;

struct MigrationPluginDescriptor {
  uint32_t abiVersion;
  MigrationPluginBase* (*create)();
  void (*destroy)(MigrationPluginBase* plugin);
};

// Every module exports `extern "C" const MigrationPluginDescriptor* PallionMigrationPlugin()`.
using MigrationPluginEntry = const MigrationPluginDescriptor* (*)();
inline constexpr const char* kMigrationPluginEntryName = "PallionMigrationPlugin";

}  // namespace pallion
