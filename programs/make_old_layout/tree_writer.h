#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "programs/make_old_layout/seeded_random.h"

namespace pallion {

// What all directories of one tree share: the random numbers that decide contents and times, the
// counts, and the first failure. After a failure every further operation does nothing.
class TreeWriter {
 public:
  explicit TreeWriter(uint64_t seed) : random(seed) {}

  [[nodiscard]] bool failed() const { return errorNumber_ != 0; }
  // Of the first failure.
  [[nodiscard]] const std::string& failedPath() const { return failedPath_; }
  [[nodiscard]] int errorNumber() const { return errorNumber_; }
  void fail(std::string path, int number);
  // Says on standard error, once for each text, that something is left out.
  void leaveOut(const std::string& what);

  SeededRandom random;
  uint64_t files = 0;  // of any kind but directories
  uint64_t bytes = 0;

 private:
  std::string failedPath_;
  int errorNumber_ = 0;
  std::set<std::string> leftOut_;
};

enum class Owner { kSystem, kUser };

// A directory that is being filled, through its descriptor. Everything made in it gets its owner
// (where the process is root) and times drawn from the writer; the directory itself gets its own
// when the object ends, so what is made below it has to end before. All names are single
// components.
class Directory {
 public:
  // The directory at a path of the caller's; made when missing.
  static Directory top(TreeWriter& writer, const std::string& path);

  Directory(Directory&& other) noexcept;
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory();

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] TreeWriter& writer() { return *writer_; }
  [[nodiscard]] bool has(const std::string& name) const;  // an item of any kind
  // Below this one; one that stands already is used as it is. The owner is inherited unless given.
  Directory directory(const std::string& name, mode_t mode = 0755);
  Directory directory(const std::string& name, mode_t mode, Owner owner);

  void file(const std::string& name, std::string_view content, mode_t mode = 0644);
  void randomFile(const std::string& name, uint64_t size, mode_t mode = 0644);
  // A hole of `size` bytes with a few bytes of data behind it.
  void sparseFile(const std::string& name, uint64_t size);
  void symbolicLink(const std::string& name, const std::string& target);
  void hardLink(const std::string& name, const std::string& existing);
  void fifo(const std::string& name);
  // Sets the attribute of a file or directory in here, under the name that Linux knows it by.
  void attribute(const std::string& item, const char* name, std::string_view value);

 private:
  Directory(TreeWriter& writer, int descriptor, std::string path, Owner owner, bool made);

  int create(const std::string& name, mode_t mode);
  bool write(int file, const std::string& name, std::string_view content);
  void finish(int file, const std::string& name, mode_t mode);
  void dress(const std::string& name);
  void fail(const std::string& name, int number);

  TreeWriter* writer_;
  int descriptor_;  // -1 after a failure
  std::string path_;
  Owner owner_;
  bool made_;
};

}  // namespace pallion
