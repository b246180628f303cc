#include "programs/migration_host/json_output.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "platform/text_escape.h"

namespace pallion::host {

namespace {

using Json = nlohmann::ordered_json;

Json text(std::string_view bytes) { return validUTF8(bytes); }

template <class T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

Json path(const std::optional<URL>& url) {
  return url ? text(url->fileSystemRepresentation()) : Json();
}

Json containerEntry(const ContainerRecord& container) {
  return {{"identifier", text(container.identifier)},
          {"path", text(container.path)},
          {"result", container.result}};
}

Json applicationEntry(const BundleProxy& application) {
  Json groups;
  if (application.groupContainerURLs()) {
    groups = Json::object();
    for (const auto& [identifier, url] : *application.groupContainerURLs()) {
      groups[validUTF8(identifier)] = path(url);
    }
  }
  const std::string& version = application.version();
  return {{"identifier", text(application.bundleIdentifier())},
          {"type", text(application.bundleType())},
          {"placeholder", application.isPlaceholder()},
          {"builtIn", application.isBuiltIn()},
          {"version", version.empty() ? Json() : text(version)},
          {"bundleURL", path(application.bundleURL())},
          {"bundleContainerURL", path(application.bundleContainerURL())},
          {"dataContainerURL", path(application.dataContainerURL())},
          {"groupContainerURLs", std::move(groups)}};
}

}  // namespace

std::string containerJSON(const ContainerRecord& container) {
  Json line = {{"type", "container"}};
  line.update(containerEntry(container));
  line["reason"] = container.reason.empty() ? Json() : text(container.reason);
  return line.dump() + "\n";
}

std::string summaryJSON(const RunRecord& record, int exitStatus) {
  Json line = {{"type", "summary"}, {"exitStatus", exitStatus}};
  line["dataClassName"] = record.dataClassName ? text(*record.dataClassName) : Json();
  line["estimatedDuration"] = orNull(record.estimatedDuration);
  line["items"] = record.containers.size();
  line["result"] = orNull(record.result);
  line["progress"] = orNull(record.progress);
  // To the millisecond.
  line["seconds"] = record.seconds ? Json(std::round(*record.seconds * 1000) / 1000) : Json();
  line["containers"] = Json::array();
  for (const ContainerRecord& container : record.containers) {
    line["containers"].push_back(containerEntry(container));
  }
  return line.dump() + "\n";
}

std::string appsJSON(const std::vector<BundleProxy>& applications,
                     const std::vector<SafeHarborRecord>& harbors) {
  Json document = {{"applications", Json::array()}, {"safeHarbors", Json::array()}};
  for (const BundleProxy& application : applications) {
    document["applications"].push_back(applicationEntry(application));
  }
  for (const SafeHarborRecord& harbor : harbors) {
    document["safeHarbors"].push_back(
        {{"identifier", text(harbor.identifier)},
         {"path", path(URL::fileURL(harbor.path, URL::Kind::kDirectory))},
         {"containerType", harbor.containerType}});
  }
  return document.dump(2) + "\n";
}

}  // namespace pallion::host
