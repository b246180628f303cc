// bench-least ROOT: makes the calls of benchmarks/least_calls for every container of the old layout
// below ROOT, and nothing else: no list is parsed, no icon scaled, nothing judged, logged or
// reported. What no migration of this kind can be faster than.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "foundation/open_restricted.h"

namespace {

using pallion::openRestricted;

constexpr const char* kOld = "private/var/mobile/Applications";
constexpr const char* kNew = "private/var/palliond/Containers";
constexpr size_t kPage = 4096;
const std::string kBytes(8 * 1024, 'x');  // an icon of the home screen's size takes about as much

// The first failure ends the program: a figure of less than all calls would be none.
void must(bool done, const std::string& what) {
  if (done) return;
  std::perror(what.c_str());
  _exit(1);
}

std::string place(const char* kind, const std::string& name) {
  return std::string(kNew) + "/" + kind + "/" + name;
}

void make(const std::string& path) { must(mkdir(path.c_str(), 0755) == 0, path); }
void move(const std::string& from, const std::string& to) {
  must(rename(from.c_str(), to.c_str()) == 0, from);
}
void settle(const std::string& from, const std::string& to) {
  must(renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0, from);
}
void mark(const std::string& path) {
  must(lsetxattr(path.c_str(), "user.least", "\6\0\0\0\0\0\0", 8, 0) == 0, path);
}

std::vector<std::string> list(const std::string& path) {
  std::vector<std::string> names;
  DIR* const directory = opendir(path.c_str());
  must(directory != nullptr, path);
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(directory);
  return names;
}

void readIt(int file, const std::string& path) {
  struct stat status {};
  must(file >= 0 && fstat(file, &status) == 0, path);
  std::string bytes(static_cast<size_t>(status.st_size) + 1, '\0');
  must(read(file, bytes.data(), bytes.size()) == status.st_size && close(file) == 0, path);
}
void readFile(const std::string& path) {
  readIt(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC), path);
}
void readInfo(const std::string& bundle) {
  const std::string path = bundle + "/Info.plist";
  readIt(openRestricted(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC, RESOLVE_NO_SYMLINKS), path);
}

void writeOut(int file, size_t size, const std::string& path) {
  constexpr unsigned kAll =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  must(file >= 0 && write(file, kBytes.data(), size) == static_cast<ssize_t>(size) &&
           sync_file_range(file, 0, 0, kAll) == 0,
       path);
}
void writeFile(const std::string& path, size_t size) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  writeOut(file, size, path);
  close(file);
}
void writeMarker(const std::string& container) {
  const int file = open(container.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0644);
  writeOut(file, 600, container);
  must(linkat(file, "", AT_FDCWD, (container + "/marker").c_str(), AT_EMPTY_PATH) == 0, container);
  close(file);
}

// A commit of the registry: two pages of its log with their heads, under the writer's lock.
class Log {
 public:
  void commit() {
    lock(F_WRLCK);
    for (int page = 0; page < 2; ++page) {
      for (const size_t size : {size_t{24}, kPage}) {
        must(pwrite(file_, kBytes.data(), size, end_) == static_cast<ssize_t>(size), "log");
        end_ += static_cast<off_t>(size);
      }
    }
    must(fdatasync(file_) == 0, "log");
    lock(F_UNLCK);
  }

 private:
  void lock(short type) const {
    struct flock range {};
    range.l_type = type;
    range.l_len = 1;
    must(fcntl(file_, F_SETLK, &range) == 0, "log");
  }
  int file_ = open("log", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  off_t end_ = 0;
};

bool isData(std::string_view name) {
  return name == "Documents" || name == "Library" || name == "tmp" || name == "Tillbox";
}
bool isBundle(std::string_view name) { return name.ends_with(".app"); }

void look(const std::string& container) {
  for (const std::string& name : list(container)) {
    struct stat status {};
    const std::string path = container + "/" + name;
    must(lstat(path.c_str(), &status) == 0, path);
    if (isBundle(name)) readInfo(path);
  }
}

void installPlaceholder(const std::string& container, const std::string& name, bool hasMetadata,
                        Log& log) {
  if (hasMetadata) readFile(container + "/BriscaMetadata.plist");
  const std::string placeholder = place("Incoming", "placeholder." + name);
  make(placeholder);
  const std::string bundle = placeholder + "/x.app";
  make(bundle);
  writeFile(bundle + "/Icon.png", kBytes.size());
  writeFile(bundle + "/Info.plist", 300);
  if (hasMetadata) writeFile(placeholder + "/BriscaMetadata.plist", 140);
  mark(bundle);
  mark(bundle);
  const std::string data = place("Incoming", "data." + name);
  for (const char* directory : {"", "/Documents", "/Library", "/tmp"}) make(data + directory);
  log.commit();
  settle(placeholder, place("Bundle", "placeholder." + name));
  settle(data, place("Data", name));
}

void installBundle(const std::string& container, const std::string& name,
                   const std::vector<std::string>& items, Log& log) {
  const std::string staging = container + "/Staging";
  make(staging);
  make(staging + "/Payload");
  std::string bundle;
  for (const std::string& item : items) {
    if (isBundle(item)) bundle = item;
    if (!isData(item))
      move(container + "/" + item, staging + (isBundle(item) ? "/Payload/" : "/") + item);
  }
  list(staging + "/Payload");
  readInfo(staging + "/Payload/" + bundle);
  mark(staging + "/Payload/" + bundle);
  const std::string incoming = place("Incoming", "bundle." + name);
  move(staging, incoming);
  log.commit();
  settle(incoming + "/Payload/" + bundle, incoming + "/" + bundle);
  must(rmdir((incoming + "/Payload").c_str()) == 0, incoming);
  settle(incoming, place("Bundle", name));
}

void removePlaceholder(const std::string& name) {
  const std::string placeholder = place("Bundle", "placeholder." + name);
  const std::string bundle = placeholder + "/x.app";
  for (const std::string& directory : {bundle, placeholder}) {
    for (const std::string& item : list(directory)) {
      if (item != "x.app") must(unlink((directory + "/" + item).c_str()) == 0, item);
    }
    must(rmdir(directory.c_str()) == 0, directory);
  }
}

void migrate(const std::string& name, Log& log) {
  const std::string container = std::string(kOld) + "/" + name;
  const std::vector<std::string> items = list(container);
  writeMarker(container);
  const bool hasMetadata =
      std::find(items.begin(), items.end(), "BriscaMetadata.plist") != items.end();
  installPlaceholder(container, name, hasMetadata, log);
  for (const std::string& item : items) {
    if (isData(item)) move(container + "/" + item, place("Data", name) + "/" + item);
  }
  installBundle(container, name, items, log);
  removePlaceholder(name);
  must(unlink((container + "/marker").c_str()) == 0, container);
  must(rmdir(container.c_str()) == 0, container);
}

void protect(const std::string& name) {
  const std::string data = place("Data", name);
  const int directory = open(data.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  must(directory >= 0 && fsetxattr(directory, "user.least", "\4\0\0", 4, 0) == 0, data);
  close(directory);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench-least ROOT\n");
    return 2;
  }
  must(chdir(argv[1]) == 0, argv[1]);
  for (const char* directory : {"private/var/palliond", kNew}) mkdir(directory, 0755);
  for (const char* kind : {"Incoming", "Bundle", "Data"}) make(place(kind, ""));
  Log log;
  const std::vector<std::string> names = list(kOld);
  for (const std::string& name : names) look(std::string(kOld) + "/" + name);
  for (const std::string& name : names) migrate(name, log);
  for (const std::string& name : names) protect(name);
  must(rmdir(kOld) == 0, kOld);
  return 0;
}
