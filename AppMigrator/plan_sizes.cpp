#include "AppMigrator/plan_sizes.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unordered_set>
#include <vector>

#include "AppMigrator/plan_identity.h"
#include "AppMigrator/plan_keys.h"
#include "platform/tree_walk.h"

namespace pallion {

namespace {

Value number(uint64_t value) { return Value::unsignedInteger(value); }

}  // namespace

TreeSize measureTree(const std::string& path) {
  using Kind = TreeWalkEntry::Kind;
  TreeSize size;
  PlanIdentity identity;
  std::unordered_set<ino_t> linked;
  TreeWalk walk;
  size.incomplete = !walk.open(path);
  while (const TreeWalkEntry* entry = size.incomplete ? nullptr : walk.next()) {
    if (entry->kind == Kind::kDirectoryAfter) continue;
    if (entry->kind == Kind::kError || entry->kind == Kind::kNoStatus ||
        entry->kind == Kind::kUnreadableDirectory) {
      size.incomplete = true;
      if (entry->kind == Kind::kError) break;
      continue;
    }
    const ItemStatus& status = entry->status;
    if (size.entries++ == 0) {
      size.isDirectory = S_ISDIR(status.mode);
      size.isMountRoot = status.isMountRoot;
    }
    identity.add(status);
    const bool seen =
        status.links > 1 && !S_ISDIR(status.mode) && !linked.insert(status.inode).second;
    if (seen) continue;
    size.allocated += static_cast<uint64_t>(status.allocated);
    if (S_ISREG(status.mode)) size.bytes += static_cast<uint64_t>(status.size);
  }
  size.identity = identity.finish();
  return size;
}

PlanVolumes::Place PlanVolumes::placeOf(const URL& url) {
  const std::string path = url.fileSystemRepresentation();
  const auto known = places_.find(path);
  if (known != places_.end()) return known->second;
  Place place;
  struct statx found {};
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &found) == 0) {
    place.device = makedev(found.stx_dev_major, found.stx_dev_minor);
    // Linux 5.8.
    if ((found.stx_mask & STATX_MNT_ID) != 0) place.mount = found.stx_mnt_id;
    const bool isNew = std::none_of(volumes_.begin(), volumes_.end(),
                                    [&](const auto& one) { return one.first == place; });
    if (isNew) volumes_.push_back({place, {path, 0, 0, false}});
  } else if (path != "/" && !path.empty()) {
    place = placeOf(url.deletingLastPathComponent());
  }
  places_.emplace(path, place);
  return place;
}

void PlanVolumes::need(const URL& at, uint64_t bytes, uint64_t files) {
  const Place place = placeOf(at);
  for (auto& [known, volume] : volumes_) {
    if (known != place) continue;
    volume.bytes += bytes;
    volume.files += files;
    volume.isWritten = true;
  }
}

Value::Array PlanVolumes::describe(Value::Array& problems) const {
  Value::Array lines;
  for (const auto& [place, volume] : volumes_) {
    struct statvfs found {};
    if (statvfs(volume.path.c_str(), &found) != 0) continue;
    // With what is reserved for root: a run is root's.
    const uint64_t available = uint64_t{found.f_bfree} * found.f_frsize;
    const bool limited = found.f_files != 0;
    const bool readOnly = (found.f_flag & ST_RDONLY) != 0;
    Dictionary line = {{plan::kPath, Value::string(volume.path)},
                       {plan::kNeeded, number(volume.bytes)},
                       {plan::kAvailable, number(available)},
                       {plan::kFilesNeeded, number(volume.files)}};
    if (limited) line.set(plan::kFilesAvailable, number(found.f_ffree));
    line.set(plan::kReadOnly, Value::boolean(readOnly));
    lines.push_back(Value::dictionary(std::move(line)));
    const char* reason = nullptr;
    if (volume.isWritten && readOnly) {
      reason = "the volume is mounted read-only";
    } else if (volume.bytes > available) {
      reason = "the volume has not enough free space";
    } else if (limited && volume.files > found.f_ffree) {
      reason = "the volume can't hold that many more files";
    }
    if (!reason) continue;
    problems.push_back(Value::dictionary(
        {{plan::kPath, Value::string(volume.path)}, {plan::kReason, Value::string(reason)}}));
  }
  return lines;
}

}  // namespace pallion
