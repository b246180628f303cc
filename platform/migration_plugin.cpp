#include "platform/migration_plugin.h"

namespace pallion {

MigrationPluginBase::~MigrationPluginBase() = default;

bool MigrationPluginBase::init() { return true; }

std::string MigrationPluginBase::dataClassName() { return {}; }

// A plug-in that migrates nothing has migrated nothing.
bool MigrationPluginBase::performMigration() { return false; }

float MigrationPluginBase::estimatedDuration() { return 0; }

float MigrationPluginBase::migrationProgress() { return -1; }

std::optional<Dictionary> MigrationPluginBase::migrationPlan() { return std::nullopt; }

void MigrationPluginBase::itemStarted(std::string_view identifier, std::string_view path) {
  if (observer_) observer_->itemStarted(identifier, path);
}

void MigrationPluginBase::stepStarted(std::string_view step) {
  if (observer_) observer_->stepStarted(step);
}

void MigrationPluginBase::entryMoved(std::string_view name) {
  if (observer_) observer_->entryMoved(name);
}

void MigrationPluginBase::itemFinished(bool result) {
  if (observer_) observer_->itemFinished(result);
}

}  // namespace pallion
