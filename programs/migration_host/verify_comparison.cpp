#include "programs/migration_host/verify_comparison.h"

#include <cstring>
#include <map>
#include <sys/stat.h>
#include <utility>

namespace pallion::host {

namespace {

// What differences are named by, and their texts.
using Fields = std::map<std::string, std::string>;

// Without what is not known of the other.
Fields fieldsOf(const SnapshotEntry& entry, const SnapshotEntry& other) {
  Fields fields = {{"mode", modeText(entry.mode)}, {"modified", timeText(entry.modified)}};
  if (entry.owner && other.owner) fields["owner"] = std::to_string(*entry.owner);
  if (entry.group && other.group) fields["group"] = std::to_string(*entry.group);
  if (S_ISREG(entry.mode)) fields["size"] = std::to_string(entry.size);
  if (S_ISCHR(entry.mode) || S_ISBLK(entry.mode)) fields["device"] = deviceText(entry.represents);
  if (!entry.sameFileAs.empty()) fields["hardLink"] = entry.sameFileAs;
  if (entry.errorNumber != 0 || other.errorNumber != 0) return fields;
  if (S_ISREG(entry.mode)) fields["content"] = hexText(entry.content);
  if (S_ISLNK(entry.mode)) fields["target"] = entry.target;
  for (const EntryAttribute& attribute : entry.attributes) {
    fields["attribute " + attribute.name] = hexText(attribute.value);
  }
  return fields;
}

std::string readingText(int errorNumber) {
  return errorNumber == 0 ? "read" : std::strerror(errorNumber);
}

}  // namespace

bool SnapshotComparison::take(const SnapshotWalk::Found& found) {
  switch (found.kind) {
    case SnapshotWalk::Found::Kind::kItem:
      return beginItem();
    case SnapshotWalk::Found::Kind::kEntry:
      return takeEntry(found.entry);
    case SnapshotWalk::Found::Kind::kProblem:
      takeProblem(found.entry);
      return true;
  }
  return false;
}

bool SnapshotComparison::finish() { return passRest() && type_ == LineType::kTotals; }

bool SnapshotComparison::beginItem() {
  if (!passRest() || type_ != LineType::kItem) return false;
  std::optional<UserDataItem> item = parseItem(line_);
  if (!item) return false;
  item_ = std::move(*item);
  problem_.reset();
  return advance();
}

// To the next line that says what is expected; false when there is none.
bool SnapshotComparison::advance() {
  expected_.reset();
  std::string_view line;
  do {
    if (!lines_.next(line)) return false;
    type_ = lineType(line);
  } while (type_ == LineType::kOther || type_ == LineType::kHeader);
  line_ = line;
  return true;
}

const SnapshotEntry* SnapshotComparison::parsed() {
  if (!expected_) expected_ = parseEntry(line_);
  return expected_ ? &*expected_ : nullptr;
}

// Everything that is expected before `path` is missing.
bool SnapshotComparison::passUpTo(const std::string& path) {
  while (type_ == LineType::kEntry) {
    const SnapshotEntry* expected = parsed();
    if (!expected) return false;
    if (!pathBefore(expected->path, path)) return true;
    reportMissing();
    if (!advance()) return false;
  }
  return true;
}

bool SnapshotComparison::passRest() {
  if (type_ == LineType::kOther && !advance()) return false;  // the first line of all
  while (type_ == LineType::kEntry) {
    if (!parsed()) return false;
    reportMissing();
    if (!advance()) return false;
  }
  return true;
}

bool SnapshotComparison::takeEntry(const SnapshotEntry& entry) {
  foundLine_.clear();
  appendEntryLine(foundLine_, entry);
  // Most often they are the same to the byte, and need not be taken apart. What could not be read
  // is never the same.
  if (entry.errorNumber == 0 && foundLine_ == line_) {
    ++equal_;
    return advance();
  }
  if (!passUpTo(entry.path)) return false;
  if (type_ != LineType::kEntry || expected_->path != entry.path) {
    ++extra_;
    return true;
  }
  compare(*expected_, entry);
  return advance();
}

void SnapshotComparison::takeProblem(const SnapshotEntry& problem) {
  problem_ = problem.path;
  report(problem.path, {{}, "unreadable", "read", std::strerror(problem.errorNumber)});
}

bool SnapshotComparison::isBelowProblem(const std::string& path) const {
  if (!problem_) return false;
  return problem_->empty() || (path.starts_with(*problem_) && path.size() > problem_->size() &&
                               path[problem_->size()] == '/');
}

void SnapshotComparison::reportMissing() {
  const std::string& path = expected_->path;
  if (!isBelowProblem(path)) {
    report(path, {{}, "missing", std::string(kindName(expected_->mode)), ""});
  }
}

void SnapshotComparison::compare(const SnapshotEntry& expected, const SnapshotEntry& found) {
  if ((expected.mode & S_IFMT) != (found.mode & S_IFMT)) {
    report(found.path,
           {{}, "kind", std::string(kindName(expected.mode)), std::string(kindName(found.mode))});
    return;
  }
  const bool isRead = expected.errorNumber == 0 && found.errorNumber == 0;
  if (!isRead) {
    report(found.path,
           {{}, "unreadable", readingText(expected.errorNumber), readingText(found.errorNumber)});
  }
  const Fields before = fieldsOf(expected, found);
  const Fields now = fieldsOf(found, expected);
  bool isEqual = isRead;
  for (const auto& [what, text] : before) {
    const auto other = now.find(what);
    if (other != now.end() && other->second == text) continue;
    isEqual = false;
    report(found.path, {{}, what, text, other == now.end() ? "" : other->second});
  }
  for (const auto& [what, text] : now) {
    if (before.contains(what)) continue;
    isEqual = false;
    report(found.path, {{}, what, "", text});
  }
  equal_ += isEqual;
}

void SnapshotComparison::report(const std::string& path, Difference difference) {
  difference.path = path.empty() ? item_.path : item_.path + "/" + path;
  report_(item_, difference);
}

}  // namespace pallion::host
