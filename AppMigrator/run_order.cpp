#include "AppMigrator/run_order.h"

#include <utility>

#include "AppMigrator/container_info.h"

namespace pallion {

namespace {

constexpr std::string_view kApplicationsLocationNote = "WhereDidMyApplicationsGo.txt";

// Whether `path` names `directory`, or with `below` an item directly in it, letter for letter.
bool isPlace(std::string_view path, const URL& directory, bool below) {
  const auto withoutSlash = [](std::string_view text) {
    return text.ends_with('/') ? text.substr(0, text.size() - 1) : text;
  };
  path = withoutSlash(path);
  if (below) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return false;
    path = path.substr(0, slash);
  }
  return path == withoutSlash(directory.fileSystemRepresentation());
}

// A marker may say anything. What speaks of another place than the container in which it lies is
// not acted on: it would move or remove what belongs to somebody else.
bool speaksOf(const Dictionary& info, const URL& container) {
  const std::string* second = info.getString(kSecondBundlePathKey);
  return isPlace(*info.getString(kContainerPathKey), container, false) &&
         isPlace(*info.getString(kBundlePathKey), container, true) &&
         (!second || isPlace(*second, container, true));
}

}  // namespace

void enqueueContainer(ContainerQueue& queue, QueuedContainer container, bool early) {
  if (early) {
    queue.push_front(std::move(container));
  } else {
    queue.push_back(std::move(container));
  }
}

bool isApplicationsLocationNote(const URL& item) {
  return item.lastPathComponent() == kApplicationsLocationNote;
}

Objection objectionTo(const QueuedContainer& container, std::set<std::string>& begun) {
  if (!speaksOf(container.info, container.url)) return Objection::kSpeaksOfAnotherPlace;
  const bool isFirst = begun.insert(*container.info.getString(kBundleIdentifierKey)).second;
  return isFirst ? Objection::kNone : Objection::kAnotherOfItWasBegun;
}

}  // namespace pallion
