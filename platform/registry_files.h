#pragma once

namespace pallion {

// What SQLite may do to the registry's files. It opens the log and its index for a reader, too, as
// if they were to be written, and makes what is missing of them.
enum class RegistryFiles {
  kWritten,
  kRead,
  kReadWithOwnIndex,  // as above, with an index made in memory, and a log where it is lost
};

// What holds on this thread while this object lives, and kWritten after it. SQLite opens files only
// while a connection is made and first used.
class RegistryFilesScope {
 public:
  explicit RegistryFilesScope(RegistryFiles files);
  RegistryFilesScope(const RegistryFilesScope&) = delete;
  RegistryFilesScope& operator=(const RegistryFilesScope&) = delete;
  ~RegistryFilesScope();
};

}  // namespace pallion
