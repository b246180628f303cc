#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/registry_files.h"
#include "platform/registry_refusal.h"

struct sqlite3;
struct sqlite3_stmt;

namespace pallion {

// One bundle of the registry, or an identifier that only has its data container.
struct BundleRow {
  std::string identifier;
  std::string type;       // "App" or "VPNBundle"
  std::string data;       // UUID of the data container; never empty
  std::string container;  // UUID of the bundle container; empty without a bundle
  std::string bundle;     // name of the bundle directory in it
  bool placeholder = false;
  std::string version;

  [[nodiscard]] bool hasBundle() const { return !container.empty(); }
  [[nodiscard]] bool isReal() const { return hasBundle() && !placeholder; }
};

struct GroupRow {
  std::string identifier;
  std::string container;  // UUID
};

// A directory that was replaced and is to be removed.
struct TrashRow {
  enum class Kind { kBundleContainer = 1, kHarbor = 2 };
  std::string uuid;
  Kind kind = Kind::kBundleContainer;
  std::string successor;  // UUID of the bundle container that inherits store metadata; may be empty
};

struct HarborRow {
  std::string uuid;
  std::string identifier;
  std::string source;  // where it was registered from
  int type = 0;
};

// The registry's SQLite database: all of its SQL and durability settings. A committed transaction
// survives power loss, at the price of one fdatasync. Every operation answers false when it failed,
// also for a record whose directories have no plain names; failure() then tells why. One thread at
// a time.
//
// The write-ahead log is emptied only by truncation, so that a commit always makes the file longer.
// On ext4 and XFS, syncing a file whose size changed writes the journal out, and with it every
// rename that was made before the commit.
class RegistryDatabase {
 public:
  enum class Access { kReadWrite, kReadOnly };

  // What to do with a database that holds nothing: one that was never written.
  enum class IfEmpty { kAnswerNull, kMakeTables };

  // Opens the database (kReadWrite makes a missing file) and checks its structure. Null on failure,
  // with the reason in `failure`, and, without a reason, for an empty one when asked to.
  static std::unique_ptr<RegistryDatabase> open(const std::string& path, Access access,
                                                IfEmpty ifEmpty, Outcome& failure);
  RegistryDatabase(const RegistryDatabase&) = delete;
  RegistryDatabase& operator=(const RegistryDatabase&) = delete;
  // Puts the log into the database file and leaves only that.
  ~RegistryDatabase();

  [[nodiscard]] const Refusal& failure() const { return failure_; }

  // Everything that is read in its scope is of one state, and takes one reader's locks and looks at
  // the files. `database` may be null.
  class OneState {
   public:
    explicit OneState(RegistryDatabase* database);
    OneState(const OneState&) = delete;
    OneState& operator=(const OneState&) = delete;
    ~OneState();

   private:
    RegistryDatabase* database_;
  };

  bool begin();
  bool commit();
  void rollback();
  // Empties the log when it has grown large. Between transactions.
  void checkpointIfLarge();

  bool findBundle(const std::string& identifier, std::optional<BundleRow>& row);
  bool allBundles(std::vector<BundleRow>& rows);  // sorted by identifier
  bool storeBundle(const BundleRow& row);
  bool isBundleContainerUsed(const std::string& uuid, bool& used);

  bool findGroup(const std::string& identifier, std::optional<std::string>& container);
  bool allGroups(std::vector<GroupRow>& rows);
  bool storeGroup(const GroupRow& row);
  // The groups that a bundle names, sorted by identifier.
  bool groupsOfBundle(const std::string& bundle, std::vector<GroupRow>& rows);
  bool storeGroupsOfBundle(const std::string& bundle, const std::vector<std::string>& groups);

  bool allTrash(std::vector<TrashRow>& rows);
  bool storeTrash(const TrashRow& row);
  bool removeTrash(const std::string& uuid);

  bool findHarbor(const std::string& identifier, std::optional<HarborRow>& row);
  bool allHarbors(std::vector<HarborRow>& rows);  // sorted by identifier
  bool storeHarbor(const HarborRow& row);
  bool allPendingHarbors(std::vector<HarborRow>& rows);
  bool storePendingHarbor(const HarborRow& row);
  bool removePendingHarbor(const std::string& uuid);

 private:
  class Run;
  explicit RegistryDatabase(std::string path) : path_(std::move(path)) {}

  bool connect(int flags, const char* parameters);
  bool connectToRead(RegistryFiles files, bool& empty);
  bool examine(bool& empty);
  bool prepareToWrite();
  bool makeTables();
  sqlite3_stmt* prepared(const char* sql);
  bool execute(const char* sql);
  // Of a prepared statement that answers no rows.
  bool step(const char* sql);
  // Sees that a reader's locks are held, where this connection may write or reads in one state.
  bool hold();
  void letGo();
  bool queryInteger(const char* sql, int64_t& number);
  bool fail();  // with the connection's last error
  bool fail(const std::string& cause);
  static BundleRow bundleRow(const std::string& identifier, Run& run, int column);
  bool readHarbors(const char* sql, std::vector<HarborRow>& rows);

  std::string path_;
  sqlite3* handle_ = nullptr;
  bool writes_ = false;
  bool inOneState_ = false;
  bool holds_ = false;  // a reader's locks
  int logPages_ = 0;    // in the log after the last commit
  int checkpointAt_ = 0;
  std::unordered_map<const char*, sqlite3_stmt*> statements_;  // by the address of their text
  Refusal failure_;
};

}  // namespace pallion
