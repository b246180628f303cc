#include "platform/built_in_applications.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/url.h"
#include "platform/bundle.h"
#include "platform/registry_containers.h"

namespace pallion {

namespace {

// The digits at the start of the next number of a version, without zeros before them; takes the
// number and its dot off the version.
std::string_view takeNumber(std::string_view& version) {
  const std::string_view number = version.substr(0, version.find('.'));
  version.remove_prefix(std::min(number.size() + 1, version.size()));
  const size_t begin = std::min(number.find_first_not_of('0'), number.size());
  const size_t end = std::min(number.find_first_not_of("0123456789", begin), number.size());
  return number.substr(begin, end - begin);
}

std::vector<std::string> groupsOf(const Value& list) {
  std::vector<std::string> groups;
  const Value::Array* members = list.asArray();
  if (!members) return groups;
  for (const Value& member : *members) {
    const std::string* group = member.asString();
    if (group && isPlainName(*group)) groups.push_back(*group);
  }
  return groups;
}

}  // namespace

int compareVersions(std::string_view a, std::string_view b) {
  while (!a.empty() || !b.empty()) {
    const std::string_view x = takeNumber(a);
    const std::string_view y = takeNumber(b);
    // Numbers of any length: the longer one is larger, among equally long ones the text decides.
    if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
    if (const int order = x.compare(y); order != 0) return order;
  }
  return 0;
}

Outcome readBundleFacts(const std::string& directory, const std::string& name, BundleFacts& facts) {
  facts = BundleFacts{name, {}, {}, {}, {}};
  const std::string path = directory + "/" + name;
  const std::unique_ptr<QXBundle> bundle =
      QXBundle::bundleWithURL(URL::fileURL(path, URL::Kind::kDirectory));
  if (!bundle) return Refusal{RegistryErrorCode::kPackageInspection, path, 0, "not a directory"};
  if (bundle->infoState() == QXBundle::InfoState::kUnreadable) {
    return Refusal{RegistryErrorCode::kPackageInspection, "Reading Info.plist of " + path,
                   bundle->infoErrorNumber(), ""};
  }
  const Dictionary* info = bundle->infoDictionary();
  if (!info) return std::nullopt;
  const std::string* identifier = info->getString(kQXBundleIdentifier);
  if (identifier && isPlainName(*identifier)) facts.identifier = *identifier;
  if (const std::string* version = info->getString(kQXBundleVersion)) facts.version = *version;
  facts.groups = groupsOf(info->get(kQXApplicationGroups));
  if (info->get(kQXBundleExecutable)) {
    const std::string* executable = info->getString(kQXBundleExecutable);
    facts.executable = executable && isPlainName(*executable) ? *executable : std::string();
  }
  return std::nullopt;
}

Outcome BuiltInApplications::read() {
  if (complete_) return std::nullopt;
  applications_.clear();
  // With "/." a link at the directory itself is followed, which is the system's own affair.
  const std::optional<std::vector<std::string>> names = namesInDirectory(directory_ + "/.");
  if (!names && errno != ENOENT && errno != ENOTDIR) {
    return Refusal{RegistryErrorCode::kBuiltInUnreadable, "Listing " + directory_, errno, ""};
  }
  Outcome unreadable;
  for (const std::string& name : names ? *names : std::vector<std::string>()) {
    if (URL::fileURL("/" + name).pathExtension() != "app") continue;
    BundleFacts facts;
    if (Outcome failed = readBundleFacts(directory_, name, facts)) {
      // A file or a link of such a name is no application.
      if (failed->errorNumber == 0) continue;
      failed->code = RegistryErrorCode::kBuiltInUnreadable;
      unreadable = std::move(failed);
    } else if (!facts.identifier.empty()) {
      std::string identifier = facts.identifier;
      applications_.emplace(std::move(identifier), std::move(facts));
    }
  }
  complete_ = !unreadable;
  return unreadable;
}

Outcome BuiltInApplications::find(const std::string& identifier, const BundleFacts*& application) {
  Outcome unreadable = read();
  const auto found = applications_.find(identifier);
  application = found == applications_.end() ? nullptr : &found->second;
  return application ? std::nullopt : std::move(unreadable);
}

Outcome BuiltInApplications::all(const std::map<std::string, BundleFacts>*& applications) {
  applications = &applications_;
  return read();
}

}  // namespace pallion
