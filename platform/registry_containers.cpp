#include "platform/registry_containers.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/open_unnoticed.h"
#include "platform/directory_reader.h"
#include "platform/make_path.h"
#include "platform/product_log.h"
#include "platform/recursive_remove.h"
#include "platform/set_aside.h"
#include "platform/uuid.h"

namespace pallion {

namespace {

constexpr mode_t kDirectoryMode = 0755;

struct KindNames {
  std::string_view incoming;
  std::string_view place;
};
// In the order of RegistryContainers::Kind.
constexpr std::array<KindNames, 5> kKindNames = {{{"bundle", "Bundle"},
                                                  {"placeholder", "Bundle"},
                                                  {"data", "Data"},
                                                  {"group", "Group"},
                                                  {"copy", ""}}};

const KindNames& namesOf(RegistryContainers::Kind kind) {
  return kKindNames[static_cast<size_t>(kind)];
}

constexpr std::array<const char*, 3> kDataDirectories = {"/Documents", "/Library", "/tmp"};

int makeDirectory(const std::string& path) {
  return MakePath::current().make(path.c_str(), kDirectoryMode);
}

// Never replaces: what stands at a container's place is kept.
int renameItem(const std::string& from, const std::string& to) {
  return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
}

// Moves the bundles of a staging directory up beside its store metadata. Those with `known` names
// first, which may well be all.
int arrangePackage(const std::string& directory, const std::vector<std::string>& known) {
  const std::string payload = directory + "/Payload";
  for (const std::string& name : known) {
    const int failed = renameItem(payload + "/" + name, directory + "/" + name);
    if (failed != 0 && failed != ENOENT) return failed;
  }
  if (!known.empty() && rmdir(payload.c_str()) == 0) return 0;
  const std::optional<std::vector<std::string>> names = namesInDirectory(payload);
  if (!names) return errno == ENOENT ? 0 : errno;
  for (const std::string& name : *names) {
    const int failed = renameItem(payload + "/" + name, directory + "/" + name);
    if (failed != 0) return failed;
  }
  return rmdir(payload.c_str()) == 0 ? 0 : errno;
}

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::optional<std::vector<std::string>> namesIn(int descriptor) {
  if (descriptor < 0) return std::nullopt;
  DirectoryReader reader(descriptor);
  std::vector<std::string> names;
  DirectoryReader::Entry entry;
  while (reader.next(entry)) names.emplace_back(entry.name);
  if (reader.error() != 0) {
    errno = reader.error();
    return std::nullopt;
  }
  return names;
}

}  // namespace

RegistryContainers::RegistryContainers(const URL& root) {
  const std::string base =
      root == URL() ? std::string() : std::string(root.fileSystemRepresentation());
  library_ = base + "/private/var/palliond/Library/Pallion";
  containers_ = base + "/private/var/palliond/Containers";
  applications_ = base + "/Applications";
}

int RegistryContainers::bundleDirectory() {
  if (!bundleDirectory_) {
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;  // may be a link, as for every path
    bundleDirectory_.reset(open((containers_ + "/Bundle").c_str(), kFlags));
  }
  return bundleDirectory_.get();
}

void RegistryContainers::forget() {
  order_ = VolumeOrder();
  settledLast_.clear();
  bundleDirectory_.reset();
}

std::string RegistryContainers::incoming(Kind kind, const std::string& uuid) const {
  return incomingDirectory() + "/" + std::string(namesOf(kind).incoming) + "." + uuid;
}

std::string RegistryContainers::place(Kind kind, const std::string& uuid) const {
  return containers_ + "/" + std::string(namesOf(kind).place) + "/" + uuid;
}

int RegistryContainers::makeDirectories() const {
  for (const char* name : {"/Incoming", "/Bundle", "/Data", "/Group"}) {
    const int failed = makeDirectory(containers_ + name);
    if (failed != 0 && failed != EEXIST) return failed;
  }
  return 0;
}

bool RegistryContainers::anyPlaced() const {
  for (const char* name : {"/Bundle", "/Data", "/Group"}) {
    const std::optional<std::vector<std::string>> names = namesInDirectory(containers_ + name);
    if (names && !names->empty()) return true;
  }
  return false;
}

int RegistryContainers::make(Kind kind, const std::string& uuid) const {
  const std::string path = incoming(kind, uuid);
  int failed = makeDirectory(path);
  if (kind != Kind::kData) return failed;
  for (const char* name : kDataDirectories) {
    if (failed == 0) failed = makeDirectory(path + name);
  }
  return failed;
}

int RegistryContainers::settle(Kind kind, const std::string& uuid,
                               const std::vector<std::string>& bundles) {
  const std::string from = incoming(kind, uuid);
  if (kind == Kind::kBundle) {
    const int failed = arrangePackage(from, bundles);
    if (failed != 0) return failed;
  }
  const int failed = renameItem(from, place(kind, uuid));
  if (failed == 0) settledLast_ = uuid;
  return failed;
}

int RegistryContainers::ensure(Kind kind, const std::string& uuid) {
  if (uuid == settledLast_) return 0;
  struct stat status {};
  if (lstat(place(kind, uuid).c_str(), &status) == 0) return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
  if (errno != ENOENT) return errno;
  int failed = settle(kind, uuid);
  if (failed != ENOENT) return failed;
  failed = make(kind, uuid);
  return failed != 0 ? failed : settle(kind, uuid);
}

std::optional<std::vector<RegistryContainers::IncomingEntry>> RegistryContainers::listIncoming()
    const {
  std::optional<std::vector<std::string>> names = namesInDirectory(incomingDirectory());
  if (!names) return std::nullopt;
  std::vector<IncomingEntry> entries;
  for (std::string& name : *names) {
    IncomingEntry entry{std::move(name), std::nullopt};
    const size_t dot = entry.name.find('.');
    if (dot != std::string::npos && isUUID(std::string_view(entry.name).substr(dot + 1))) {
      const std::string_view prefix = std::string_view(entry.name).substr(0, dot);
      for (size_t i = 0; i < kKindNames.size(); ++i) {
        if (kKindNames[i].incoming == prefix) {
          entry.container = {static_cast<Kind>(i), entry.name.substr(dot + 1)};
        }
      }
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<std::vector<std::string>> namesInDirectory(const std::string& path) {
  return namesIn(openUnnoticed(AT_FDCWD, path.c_str(), kDirectoryFlags));
}

std::optional<std::vector<std::string>> namesInDirectoryWithoutLinks(const std::string& path) {
  return namesIn(openUnnoticedWithoutLinks(AT_FDCWD, path.c_str(), kDirectoryFlags));
}

int removeTree(const std::string& path) {
  const std::unique_ptr<RemovalState> state(RecursiveRemove::current().allocateState());
  if (!state) return ENOMEM;
  state->expect(RemovalState::Expected::kDirectory);
  return removeTree(path, *state);
}

int removeTree(const std::string& path, RemovalState& state) {
  if (RecursiveRemove::current().remove(path.c_str(), state) == 0) return 0;
  return errno == ENOENT ? 0 : errno;
}

int takeAway(const std::string& path, const char* function) {
  std::string aside;
  if (setAside(path.c_str(), aside) != 0) return errno;
  const int failed = removeTree(aside);
  if (failed != 0) {
    LogWrite(kLogError, function, "Failed to remove %s: %s", aside, strerrordesc_np(failed));
  }
  return 0;
}

}  // namespace pallion
