#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "platform/embedded_registry.h"
#include "platform/make_path.h"
#include "platform/product_log.h"
#include "platform/tree_copy.h"
#include "platform/uuid.h"

// Safe harbors. What is being moved is recorded as pending first, so that a directory in the harbor
// store always has its record.

namespace pallion {

namespace {

constexpr const char* kRegister = "PallionRegisterSafeHarborForContainerType";

Refusal notTaken(const std::string& path, int errorNumber) {
  return {RegistryErrorCode::kInstallation, "Taking over the safe harbor " + path, errorNumber, ""};
}

// Where a copy from another volume grows.
std::string copyPath(const std::string& store, const std::string& uuid) {
  return store + "/copy." + uuid;
}

// Puts a durable copy of `source` at `place` in `store`. 0 or an errno; then nothing is left of it.
int copyHarbor(const std::string& source, const std::string& store, const std::string& uuid) {
  const std::string copy = copyPath(store, uuid);
  const std::string place = store + "/" + uuid;
  TreeCopy& copier = TreeCopy::current();
  if (copier.copy(source.c_str(), copy.c_str()) == 0 && copier.syncVolume(copy.c_str()) == 0 &&
      rename(copy.c_str(), place.c_str()) == 0) {
    return 0;
  }
  const int failed = errno;
  removeTree(copy);
  return failed;
}

}  // namespace

Outcome judgeHarborIdentifier(const std::string& path, const std::string& identifier) {
  if (isPlainName(identifier)) return std::nullopt;
  return Refusal{RegistryErrorCode::kOptions, "Safe harbor " + path, 0,
                 "its identifier is no plain name"};
}

bool EmbeddedRegistry::registerSafeHarbor(const std::string& path, const std::string& identifier,
                                          int containerType, void* /*reserved*/) {
  const std::lock_guard guard(mutex_);
  Outcome refused = judgeHarborIdentifier(path, identifier);
  if (!refused && !(refused = openForWriting())) {
    // Without the slashes at the end, with which a link would be followed; empty for a path that is
    // not absolute.
    refused = takeHarbor(URL::fileURL(path).fileSystemRepresentation(), identifier, containerType);
  }
  if (refused) LogWrite(kLogError, kRegister, "%s", refused->text());
  return !refused;
}

Outcome EmbeddedRegistry::takeHarbor(const std::string& source, const std::string& identifier,
                                     int containerType) {
  const std::string store = containers_.harborDirectory();
  bool taken = false;
  if (Outcome refused = judgeHarbor(source, identifier, taken)) return refused;
  if (taken) return std::nullopt;
  const int made = MakePath::current().make(store.c_str(), 0755);
  if (made != 0 && made != EEXIST) return notTaken(source, made);

  const HarborRow row{makeUUID(), identifier, source, containerType};
  RegistryChange pending = change(kRegister);
  if (Outcome failed = pending.begin()) return failed;
  if (!database_->storePendingHarbor(row)) return database_->failure();
  if (Outcome failed = pending.commit()) return failed;

  const std::string place = store + "/" + row.uuid;
  int number = rename(source.c_str(), place.c_str()) == 0 ? 0 : errno;
  const bool copied = number == EXDEV;
  if (copied) number = copyHarbor(source, store, row.uuid);
  if (number != 0) {
    forgetPendingHarbor(row.uuid);
    return notTaken(source, number);
  }
  if (Outcome failed = recordHarbor(row)) {
    // Not recorded, so not taken: a later registration must not be overtaken by this one when the
    // registry is next opened.
    const std::string back = copied ? copyPath(store, row.uuid) : source;
    if (renameat2(AT_FDCWD, place.c_str(), AT_FDCWD, back.c_str(), RENAME_NOREPLACE) != 0) {
      LogWrite(kLogError, kRegister, "Failed to move %s back to %s: %s", place, back,
               strerrordesc_np(errno));
    } else if (copied) {
      removeTree(back);
    }
    return failed;
  }
  if (copied) {
    number = takeAway(source, kRegister);
    if (number != 0)
      LogWrite(kLogError, kRegister, "Failed to remove %s: %s", source, strerrordesc_np(number));
  }
  return std::nullopt;
}

// Looks at what is to be taken. `taken` becomes true for what a former registration has taken.
Outcome EmbeddedRegistry::judgeHarbor(const std::string& source, const std::string& identifier,
                                      bool& taken) {
  struct stat status {};
  if (lstat(source.c_str(), &status) == 0) {
    return S_ISDIR(status.st_mode) ? std::nullopt : Outcome(notTaken(source, ENOTDIR));
  }
  const Refusal missing = notTaken(source, errno);
  if (missing.errorNumber != ENOENT || source.empty()) return missing;
  std::optional<HarborRow> row;
  if (database_ && !database_->findHarbor(identifier, row)) return database_->failure();
  taken = row && row->source == source &&
          lstat((containers_.harborDirectory() + "/" + row->uuid).c_str(), &status) == 0;
  return taken ? std::nullopt : Outcome(missing);
}

// For a harbor that stands in the store.
Outcome EmbeddedRegistry::recordHarbor(const HarborRow& row) {
  RegistryChange recording = change(kRegister);
  if (Outcome failed = recording.begin()) return failed;
  std::optional<HarborRow> before;
  if (!database_->findHarbor(row.identifier, before) || !database_->storeHarbor(row) ||
      !database_->removePendingHarbor(row.uuid)) {
    return database_->failure();
  }
  if (before) {
    if (Outcome failed = recording.storeTrash({before->uuid, TrashRow::Kind::kHarbor, ""}))
      return failed;
  }
  return recording.commit();
}

// For a harbor that never came.
Outcome EmbeddedRegistry::forgetPendingHarbor(const std::string& uuid) {
  const int number = removeTree(copyPath(containers_.harborDirectory(), uuid));
  if (number != 0)
    return Refusal{RegistryErrorCode::kDatabase, copyPath(containers_.harborDirectory(), uuid),
                   number, ""};
  RegistryChange forgetting = change(kRegister);
  if (Outcome failed = forgetting.begin()) return failed;
  if (!database_->removePendingHarbor(uuid)) return database_->failure();
  return forgetting.commit();
}

// What was moved before the process died has its record only once somebody may write.
bool EmbeddedRegistry::addMovedHarbors(std::vector<HarborRow>& rows) {
  std::vector<HarborRow> pending;
  if (!database_->allPendingHarbors(pending)) return false;
  for (HarborRow& row : pending) {
    struct stat status {};
    if (lstat((containers_.harborDirectory() + "/" + row.uuid).c_str(), &status) != 0) continue;
    const auto place = std::lower_bound(
        rows.begin(), rows.end(), row.identifier,
        [](const HarborRow& other, const std::string& name) { return other.identifier < name; });
    if (place != rows.end() && place->identifier == row.identifier) {
      *place = std::move(row);
    } else {
      rows.insert(place, std::move(row));
    }
  }
  return true;
}

std::optional<std::vector<SafeHarborRecord>> EmbeddedRegistry::allSafeHarbors(Error* error) {
  const std::lock_guard guard(mutex_);
  Outcome failed = open();
  std::vector<HarborRow> rows;
  if (!failed && database_ &&
      !(database_->allHarbors(rows) && (access_ == Access::kReadWrite || addMovedHarbors(rows)))) {
    failed = database_->failure();
  }
  if (failed) {
    LogWrite(kLogError, "-[Registry allSafeHarbors:]", "%s", failed->text());
    if (error) *error = failed->error();
    return std::nullopt;
  }
  std::vector<SafeHarborRecord> records;
  records.reserve(rows.size());
  for (HarborRow& row : rows) {
    records.push_back(
        {std::move(row.identifier), containers_.harborDirectory() + "/" + row.uuid, row.type});
  }
  return records;
}

}  // namespace pallion
