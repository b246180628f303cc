#include <set>

#include "configuration/global_configuration.h"
#include "foundation/format.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/common/text_table.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/failure.h"
#include "programs/palliontool/value_json.h"

namespace pallion::tool {

namespace {

Value valueOf(const URL& url) { return Value::string(url.path()); }
Value valueOf(const std::string& text) { return Value::string(text); }
Value valueOf(const Dictionary& dictionary) { return Value::dictionary(dictionary); }

template <class T>
Value valueOf(const std::optional<T>& value) {
  return value ? valueOf(*value) : Value();
}

template <class Container>
Value listOf(const Container& members) {
  Value::Array list;
  for (const auto& member : members) list.push_back(valueOf(member));
  return Value::array(std::move(list));
}

std::string cell(const Value& value) {
  if (!value) return "-";
  if (const auto truth = value.asBoolean()) return *truth ? "true" : "false";
  return description(value);
}

// A list has a row for each of its members, a map one for each identifier.
void addRows(TextTable& table, const std::string& name, const Value& value) {
  const Value::Array* const members = value.asArray() ? value.asArray() : value.asSet();
  if (members) {
    for (const Value& member : *members) table.addRow({name, cell(member)});
    if (members->empty()) table.addRow({name, "-"});
  } else if (const Dictionary* const map = value.asDictionary()) {
    for (const auto& [identifier, info] : *map) {
      const Dictionary* const entries = info.asDictionary();
      table.addRow({name, cell(identifier),
                    cell(entries->get(PLGlobalConfiguration::kBundleURLKey)),
                    cell(entries->get("QXBundleVersion"))});
    }
    if (map->empty()) table.addRow({name, "-"});
  } else {
    table.addRow({name, cell(value)});
  }
}

int show(const Entries& entries, const Options& options) {
  if (options.json) {
    const JSONDocument document = jsonOf(entries);
    if (document.text.empty()) complain("JSON can't hold it: " + document.reason);
    return !document.text.empty() && print(document.text) ? kExitSuccess : kExitFailure;
  }
  TextTable table;
  for (const auto& [name, value] : entries) addRows(table, std::string(name), value);
  return print(table.text()) ? kExitSuccess : kExitFailure;
}

}  // namespace

int showConfiguration(const Options& options) {
  PLGlobalConfiguration& c = PLGlobalConfiguration::sharedInstance();
  return show(
      {
          {"palliondPath", valueOf(c.palliondPath())},
          {"mobilePath", valueOf(c.mobilePath())},
          {"rootPath", valueOf(c.rootPath())},
          {"uid", Value::integer(c.uid())},
          {"gid", Value::integer(c.gid())},
          {"oldContainerPath", valueOf(c.oldContainerPath())},
          {"oldInstallMapPath", valueOf(c.oldInstallMapPath())},
          {"oldDataDirectoryPath", valueOf(c.oldDataDirectoryPath())},
          {"oldLoggingPath", valueOf(c.oldLoggingPath())},
          {"oldArchiveDirectory", valueOf(c.oldArchiveDirectory())},
          {"dataDirectoryPath", valueOf(c.dataDirectoryPath())},
          {"roleUserMigrationMarkerFilePath", valueOf(c.roleUserMigrationMarkerFilePath())},
          {"carrierBundlesDirectory", valueOf(c.carrierBundlesDirectory())},
          {"cachesDirectory", valueOf(c.cachesDirectory())},
          {"stagingRoot", valueOf(c.stagingRoot())},
          {"dataDirectory", valueOf(c.dataDirectory())},
          {"logDirectory", valueOf(c.logDirectory())},
          {"baseweaveDirectory", valueOf(c.baseweaveDirectory())},
          {"systemAppsDirectory", valueOf(c.systemAppsDirectory())},
          {"internalAppsDirectory", valueOf(c.internalAppsDirectory())},
          {"developerAppsDirectory", valueOf(c.developerAppsDirectory())},
          {"factoryMountDirectory", valueOf(c.factoryMountDirectory())},
          {"systemFrameworksRootDirectory", valueOf(c.systemFrameworksRootDirectory())},
          {"internalFrameworksRootDirectory", valueOf(c.internalFrameworksRootDirectory())},
          {"developerFrameworksRootDirectory", valueOf(c.developerFrameworksRootDirectory())},
          {"allFrameworksDirectories", listOf(c.allFrameworksDirectories())},
          {"appBundleMetadataItemNames", listOf(c.appBundleMetadataItemNames())},
          {"appUserDataItemNames", listOf(c.appUserDataItemNames())},
          {"installationBlacklist", c.installationBlacklist()},
          {"lowerInstallPriority", Value::boolean(c.lowerInstallPriority())},
          {"skipDeviceFamilyCheck", Value::boolean(c.skipDeviceFamilyCheck())},
          {"skipThinningCheck", Value::boolean(c.skipThinningCheck())},
          {"nSimultaneousInstallations", Value::integer(c.nSimultaneousInstallations())},
          {"haveUpdatedPluginContainersWithParentID",
           Value::boolean(c.haveUpdatedPluginContainersWithParentID())},
          {"alternateThinningModelIdentifier", valueOf(c.alternateThinningModelIdentifier())},
      },
      options);
}

int showBuiltIn(const Options& options) {
  PLGlobalConfiguration& c = PLGlobalConfiguration::sharedInstance();
  const int status = show(
      {
          {"systemAppBundleIDToInfoMap", valueOf(c.systemAppBundleIDToInfoMap())},
          {"baseweaveAppBundleIDToInfoMap", valueOf(c.baseweaveAppBundleIDToInfoMap())},
          {"internalAppBundleIDToInfoMap", valueOf(c.internalAppBundleIDToInfoMap())},
          {"diskImageAppBundleIDToInfoMap", valueOf(c.diskImageAppBundleIDToInfoMap())},
          {"builtInApplicationBundleIDs", listOf(c.builtInApplicationBundleIDs())},
          {"builtInFrameworkBundleIDs", listOf(c.builtInFrameworkBundleIDs())},
          {"diskImageMountPoints", listOf(c.diskImageMountPoints())},
          {"diskImageApplicationsDirectories", listOf(c.diskImageApplicationsDirectories())},
      },
      options);
  // A directory that could not be looked at has no map, although it may hold bundles.
  return tellLoggedErrors() ? kExitFailure : status;
}

}  // namespace pallion::tool
