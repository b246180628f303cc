#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// Settings as property-list values by domain, in the scope of the current user and the current
// host. Any thread may call any operation.
class Preferences {
 public:
  Preferences() = default;
  Preferences(const Preferences&) = delete;
  Preferences& operator=(const Preferences&) = delete;
  virtual ~Preferences() = default;

  // None when the key is absent, and when the store can't be read.
  virtual Value value(std::string_view key, std::string_view domain) = 0;
  // Seen at once in this process, by others after `synchronize`. None removes the key.
  virtual void setValue(std::string_view key, Value value, std::string_view domain) = 0;
  // Puts what was set into permanent storage. False when that failed; then it is kept for the next
  // time.
  virtual bool synchronize(std::string_view domain) = 0;
  // The string value of a user-defaults suite, which does not depend on the host; nothing when
  // there is no such string.
  virtual std::optional<std::string> suiteString(std::string_view suite, std::string_view key) = 0;

  // The seam; see RecursiveRemove. At first the store of the running system.
  static Preferences& current();
  static Preferences* replace(Preferences* replacement);
};

// A store of property-list files below a directory:
//   <directory>/ByHost/<domain>.<user>.<host>.plist   domains; <user> is the number of the
//   effective user, <host> the machine's
//                                                     identifier (/etc/machine-id), or its name
//                                                     where it has none
//   <directory>/<suite>.plist                         suites
// A file is read anew for every question, so that what another process stored is seen; one that is
// damaged reads as if every key were absent, and is left alone until something is set, which
// replaces it.
class FilePreferences : public Preferences {
 public:
  explicit FilePreferences(const URL& directory) : directory_(directory) {}
  Value value(std::string_view key, std::string_view domain) override;
  void setValue(std::string_view key, Value value, std::string_view domain) override;
  bool synchronize(std::string_view domain) override;
  std::optional<std::string> suiteString(std::string_view suite, std::string_view key) override;

 private:
  [[nodiscard]] std::optional<URL> domainFile(std::string_view domain) const;

  URL directory_;
  std::mutex mutex_;
  std::map<std::string, Dictionary, std::less<>>
      pending_;  // by domain: values to be stored; none removes
};

}  // namespace pallion
