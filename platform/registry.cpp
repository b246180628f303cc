#include "platform/registry.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/embedded_registry.h"
#include "platform/make_path.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

constexpr const char* kClose = "-[Registry close]";
constexpr const char* kApplicationIsInstalled = "-[Registry applicationIsInstalled:]";

}  // namespace

std::unique_ptr<Registry> Registry::atRoot(const URL& root, Access access) {
  return std::make_unique<EmbeddedRegistry>(root, access);
}

Registry& defaultRegistry() {
  static EmbeddedRegistry registry(URL(), Registry::Access::kReadWrite);
  return registry;
}

void closeDefaultRegistry() { defaultRegistry().close(); }

EmbeddedRegistry::EmbeddedRegistry(const URL& root, Access access)
    : access_(access), containers_(root), builtIns_(containers_.applicationsDirectory()) {}

EmbeddedRegistry::~EmbeddedRegistry() { closeLocked(); }

void EmbeddedRegistry::close() {
  const std::lock_guard guard(mutex_);
  closeLocked();
}

void EmbeddedRegistry::closeLocked() {
  if (database_ && !removedTrash_.empty()) {
    RegistryChange last = change(kClose);
    Outcome failed = last.begin();
    if (!failed) failed = last.commit();
    if (failed) LogWrite(kLogError, kClose, "%s", failed->text());
  }
  removedTrash_.clear();
  database_.reset();
  containers_.forget();
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

Outcome EmbeddedRegistry::open() {
  if (database_) return std::nullopt;
  Outcome failed = openDatabase();
  if (failed) closeLocked();
  return failed;
}

Outcome EmbeddedRegistry::openForWriting() {
  if (access_ == Access::kReadWrite) return open();
  return Refusal{RegistryErrorCode::kReadOnly, "Registry database " + containers_.databasePath(),
                 EROFS, ""};
}

Outcome EmbeddedRegistry::openDatabase() {
  using IfEmpty = RegistryDatabase::IfEmpty;
  const std::string path = containers_.databasePath();
  Outcome failed;
  if (access_ == Access::kReadOnly) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
      database_ = RegistryDatabase::open(path, RegistryDatabase::Access::kReadOnly,
                                         IfEmpty::kAnswerNull, failed);
    } else if (errno != ENOENT && errno != ENOTDIR) {
      failed = Refusal{RegistryErrorCode::kDatabase, "Registry database " + path, errno, ""};
    }
    return failed;
  }
  for (const std::string& directory :
       {containers_.libraryDirectory(), containers_.incomingDirectory()}) {
    const int made = MakePath::current().make(directory.c_str(), 0755);
    if (made != 0 && made != EEXIST)
      return Refusal{RegistryErrorCode::kDatabase, "Making " + directory, made, ""};
  }
  if ((failed = lockAgainstWriters())) return failed;
  database_ = RegistryDatabase::open(path, RegistryDatabase::Access::kReadWrite,
                                     IfEmpty::kAnswerNull, failed);
  if (!database_ && !failed) {
    if ((failed = judgeEmptyDatabase())) return failed;
    database_ = RegistryDatabase::open(path, RegistryDatabase::Access::kReadWrite,
                                       IfEmpty::kMakeTables, failed);
  }
  if (failed) return failed;
  if (const int made = containers_.makeDirectories(); made != 0) {
    return Refusal{RegistryErrorCode::kDatabase, "Making the directories for containers", made, ""};
  }
  return recover();
}

Outcome EmbeddedRegistry::judgeEmptyDatabase() const {
  if (!containers_.anyPlaced()) return std::nullopt;
  return Refusal{RegistryErrorCode::kDatabase, "Registry database " + containers_.databasePath(), 0,
                 "is empty, but there are containers"};
}

// Recovery takes what another process is just installing for something interrupted, so there is one
// writer. The lock ends with the process, however it ends.
Outcome EmbeddedRegistry::lockAgainstWriters() {
  const std::string path = containers_.incomingDirectory();
  lock_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (lock_ >= 0 && flock(lock_, LOCK_EX | LOCK_NB) == 0) return std::nullopt;
  const int number = errno;
  return Refusal{RegistryErrorCode::kDatabase, "Registry database " + containers_.databasePath(),
                 number, number == EWOULDBLOCK ? "is in use by another process" : ""};
}

bool EmbeddedRegistry::applicationIsInstalled(const std::string& identifier) {
  const std::lock_guard guard(mutex_);
  bool installed = false;
  const Outcome failed =
      isPlainName(identifier) ? isInstalled(identifier, installed) : std::nullopt;
  if (failed) LogWrite(kLogError, kApplicationIsInstalled, "%s", failed->text());
  return !failed && installed;
}

Outcome EmbeddedRegistry::isInstalled(const std::string& identifier, bool& installed) {
  if (Outcome failed = open()) return failed;
  std::optional<BundleRow> row;
  if (database_ && !database_->findBundle(identifier, row)) return database_->failure();
  installed = row && row->hasBundle();
  if (installed) return std::nullopt;
  const BundleFacts* builtIn = nullptr;
  Outcome failed = builtIns_.find(identifier, builtIn);
  installed = builtIn != nullptr;
  return failed;
}

}  // namespace pallion
