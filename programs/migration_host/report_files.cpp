#include "programs/migration_host/report_files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "foundation/file_contents.h"
#include "foundation/unique_descriptor.h"
#include "programs/migration_host/host_logs.h"

namespace pallion::host {

namespace {

const char* nameOf(ReportFile file) {
  return file == ReportFile::kData ? "migration-report.json" : "migration-report.html";
}

// No report is as large: it grows by less than a kilobyte a container.
constexpr uint64_t kMaximumSize = uint64_t{256} << 20;

// The folder, component by component, each made when it is missing. A symbolic link at any of them
// is refused (ELOOP, or ENOTDIR for one opened as a directory).
int openFolder(UniqueDescriptor& folder) {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  folder.reset(open("/", kFlags));
  size_t begin = 1;
  while (folder && begin < kProductLogFolder.size()) {
    const size_t end = kProductLogFolder.find('/', begin);
    const std::string name(kProductLogFolder.substr(begin, end - begin));
    int next = openat(folder.get(), name.c_str(), kFlags);
    if (next < 0 && errno == ENOENT &&
        (mkdirat(folder.get(), name.c_str(), 0755) == 0 || errno == EEXIST)) {
      next = openat(folder.get(), name.c_str(), kFlags);
    }
    folder.reset(next);
    begin = end + 1;
  }
  return folder ? 0 : errno;
}

}  // namespace

std::string reportPath(ReportFile file) { return std::string(kProductLogFolder) + nameOf(file); }

int writeReportFile(ReportFile file, std::string_view bytes) {
  UniqueDescriptor folder;
  if (const int error = openFolder(folder)) return error;
  return writeFileAtomicallyAt(folder.get(), nameOf(file), bytes, Durability::kSynced);
}

std::optional<std::string> readReportFile(int* errorNumber) {
  const URL file = URL::fileURL(reportPath(ReportFile::kData));
  return readFile(file, errorNumber, FileCache::kUse, kMaximumSize);
}

}  // namespace pallion::host
