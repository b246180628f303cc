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

// To the millisecond.
Json rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

template <class T>
Json roundedOrNull(const std::optional<T>& value) {
  return value ? rounded(*value) : Json();
}

Json textOrNull(const std::string& bytes) { return bytes.empty() ? Json() : text(bytes); }

Json recordOf(const char* type) { return {{"version", 1}, {"type", type}}; }

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

std::string itemJSON(const ContainerRecord& container) {
  Json line = recordOf("item");
  line.update(containerEntry(container));
  line["reason"] = textOrNull(container.reason);
  line["step"] = container.steps.empty() ? Json() : text(container.steps.back().name);
  line["steps"] = Json::array();
  for (const StepRecord& step : container.steps)
    line["steps"].push_back({{"name", text(step.name)}, {"seconds", rounded(step.seconds)}});
  line["entries"] = container.entries;
  line["bytes"] = container.bytes;
  line["seconds"] = rounded(container.seconds);
  return line.dump() + "\n";
}

std::string progressJSON(const ProgressMoment& moment) {
  const ProgressSample& sample = moment.sample;
  Json line = recordOf("progress");
  line["progress"] =
      moment.progress < 0 ? Json() : Json(std::round(moment.progress * 10000) / 10000);
  line["identifier"] = textOrNull(sample.identifier);
  line["step"] = textOrNull(sample.step);
  line["finished"] = sample.finished;
  line["failed"] = sample.failed;
  line["bytes"] = sample.bytes;
  line["bytesPerSecond"] = roundedOrNull(moment.bytesPerSecond);
  line["itemsPerSecond"] = rounded(moment.itemsPerSecond);
  line["seconds"] = rounded(sample.seconds);
  line["secondsLeft"] = roundedOrNull(moment.secondsLeft);
  return line.dump() + "\n";
}

std::string errorJSON(const char* log, std::string_view message, const std::string* container) {
  Json line = recordOf("error");
  line["log"] = log;
  line["message"] = text(message);
  line["container"] = container ? text(*container) : Json();
  return line.dump() + "\n";
}

std::string summaryJSON(const RunRecord& record, int exitStatus) {
  Json line = recordOf("summary");
  line["exitStatus"] = exitStatus;
  line["dataClassName"] = record.dataClassName ? text(*record.dataClassName) : Json();
  line["estimatedDuration"] = orNull(record.estimatedDuration);
  line["items"] = record.containers.size();
  line["result"] = orNull(record.result);
  line["progress"] = orNull(record.progress);
  line["seconds"] = roundedOrNull(record.seconds);
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
