#include "tests/helpers/tree_snapshot.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <linux/limits.h>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "platform/sha256.h"

namespace pallion::test {

namespace {

std::string printable(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char escape[5];
    std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(byte));
    const bool plain = byte >= ' ' && byte < 0x7f && byte != '\\';
    text += plain ? std::string(1, byte) : escape;
  }
  return text;
}

std::string errorText(const char* what) {
  return std::string(" ") + what + "=error:" + std::strerror(errno);
}

// O_NOATIME is for the owner and the privileged.
int openQuietly(const std::string& path, int flags) {
  int descriptor = open(path.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME);
  if (descriptor < 0 && errno == EPERM) {
    descriptor = open(path.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  }
  return descriptor;
}

std::string contentDigest(const std::string& path) {
  const UniqueDescriptor file(openQuietly(path, O_NONBLOCK));
  if (!file) return errorText("content");
  SHA256Digest digest;
  std::vector<char> buffer(size_t{1} << 18);
  ssize_t count = 0;
  while ((count = read(file.get(), buffer.data(), buffer.size())) > 0)
    digest.update(buffer.data(), static_cast<size_t>(count));
  if (count < 0) return errorText("content");
  const SHA256Digest::Bytes bytes = digest.finish();
  return " content=" + printable({bytes.begin(), bytes.end()});
}

std::string attributes(const std::string& path) {
  std::string names(XATTR_LIST_MAX, '\0');
  const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
  if (size < 0) return errno == ENOTSUP ? "" : errorText("attributes");
  std::set<std::string> sorted;
  for (size_t begin = 0; begin < static_cast<size_t>(size);
       begin += std::strlen(&names[begin]) + 1) {
    sorted.insert(&names[begin]);
  }
  std::string text;
  for (const std::string& name : sorted) {
    std::string value(XATTR_SIZE_MAX, '\0');
    ssize_t length = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (length < 0) return text + errorText(name.c_str());
    value.resize(static_cast<size_t>(length));
    text += " " + printable(name) + "=\"" + printable(value) + "\"";
  }
  return text;
}

std::string timeText(const char* name, const timespec& time) {
  char text[64];
  std::snprintf(text, sizeof text, " %s=%jd.%09ld", name, intmax_t{time.tv_sec}, time.tv_nsec);
  return text;
}

class Walk {
 public:
  explicit Walk(const SnapshotOptions& options) : options_(options) {}

  void visit(const std::string& path, const std::string& relative) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
      lines_[relative] = "unknown" + errorText("status");
      return;
    }
    std::string& line = lines_[relative];
    line = describe(path, status);
    if (!S_ISDIR(status.st_mode)) {
      if (status.st_nlink > 1) inodes_[{status.st_dev, status.st_ino}].insert(relative);
      return;
    }
    int descriptor = openQuietly(path, O_DIRECTORY);
    DIR* directory = descriptor < 0 ? nullptr : fdopendir(descriptor);
    if (!directory) {
      line += errorText("entries");
      return;
    }
    std::set<std::string> names;
    while (dirent* entry = readdir(directory)) names.insert(entry->d_name);
    closedir(directory);
    for (const std::string& name : names) {
      if (name == "." || name == "..") continue;
      visit(path + "/" + name, relative == "." ? name : relative + "/" + name);
    }
  }

  TreeSnapshot result() {
    for (const auto& [inode, paths] : inodes_) {
      if (paths.size() < 2) continue;  // the other names are outside
      for (const std::string& path : paths)
        lines_[path] += " same-as=\"" + printable(*paths.begin()) + "\"";
    }
    return std::move(lines_);
  }

 private:
  std::string describe(const std::string& path, const struct stat& status) const {
    char text[64];
    // With the kind of the item, as S_IFMT has it, before its mode.
    std::snprintf(text, sizeof text, "%06o %u:%u", status.st_mode, status.st_uid, status.st_gid);
    std::string line = text;
    const bool directory = S_ISDIR(status.st_mode);
    if (!options_.ignoreTimes && !(directory && options_.ignoreDirectoryTimes)) {
      line += timeText("modified", status.st_mtim);
      if (options_.accessTimes) line += timeText("accessed", status.st_atim);
    }
    if (options_.changeTimes) line += timeText("changed", status.st_ctim);
    if (S_ISREG(status.st_mode)) {
      line += " size=" + std::to_string(status.st_size) + contentDigest(path);
      // Under a page, file systems may keep the content inside the inode.
      if (status.st_size >= 4096 && status.st_blocks * 512 < status.st_size) line += " holes";
    } else if (S_ISLNK(status.st_mode)) {
      std::error_code error;
      const auto target = std::filesystem::read_symlink(path, error);
      line += error ? " target=error:" + error.message() : " target=" + printable(target);
    } else if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) {
      line += " device=" + std::to_string(major(status.st_rdev)) + ":" +
              std::to_string(minor(status.st_rdev));
    }
    return line + attributes(path);
  }

  SnapshotOptions options_;
  TreeSnapshot lines_;
  std::map<std::pair<dev_t, ino_t>, std::set<std::string>> inodes_;
};

}  // namespace

TreeSnapshot snapshotTree(const std::string& path, const SnapshotOptions& options) {
  Walk walk(options);
  walk.visit(path, ".");
  return walk.result();
}

std::string difference(const TreeSnapshot& expected, const TreeSnapshot& actual) {
  constexpr int kMostLines = 20;
  std::string text;
  int lines = 0;
  auto add = [&](const std::string& line) {
    if (++lines <= kMostLines) text += line + "\n";
  };
  for (const auto& [path, line] : expected) {
    auto found = actual.find(path);
    if (found == actual.end()) {
      add("missing: " + printable(path) + ": " + line);
    } else if (found->second != line) {
      add("different: " + printable(path) + "\n  expected " + line + "\n  actual   " +
          found->second);
    }
  }
  for (const auto& [path, line] : actual) {
    if (!expected.contains(path)) add("unexpected: " + printable(path) + ": " + line);
  }
  if (lines > kMostLines) text += "and " + std::to_string(lines - kMostLines) + " more\n";
  return text;
}

}  // namespace pallion::test
