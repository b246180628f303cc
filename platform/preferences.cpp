#include "platform/preferences.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

#include "foundation/property_list.h"
#include "foundation/unique_descriptor.h"
#include "platform/make_path.h"
#include "platform/replaceable.h"

namespace pallion {

namespace {

// The store of the running system.
class SystemPreferences : public FilePreferences {
 public:
  SystemPreferences()
      : FilePreferences(
            URL::fileURL("/private/var/mobile/Library/Preferences/", URL::Kind::kDirectory)) {}
};

using Seam = Replaceable<Preferences, SystemPreferences>;

// Nothing when it can't be told just now: under another name there would be another store.
std::optional<std::string> hostIdentifier() {
  constexpr uint64_t kMaximumSize = 256;
  int number = 0;
  if (auto text =
          readFile(URL::fileURL("/etc/machine-id"), &number, FileCache::kUse, kMaximumSize)) {
    text->erase(text->find_last_not_of(" \n") + 1);
    if (isPlainName(*text)) return *text;
  } else if (isReadFailure(number)) {
    return std::nullopt;
  }
  utsname names{};
  if (uname(&names) == 0 && isPlainName(names.nodename)) return names.nodename;
  return "localhost";
}

// Stands for a key to be removed among the values to be stored, which can't be none.
const Value& removal() {
  static const Value kRemoval = Value::set({});
  return kRemoval;
}

void apply(const Dictionary& pending, Dictionary& content) {
  for (const auto& [key, value] : pending) {
    if (value.isIdenticalTo(removal())) {
      content.remove(key);
    } else {
      content.set(key, value);
    }
  }
}

}  // namespace

Preferences& Preferences::current() { return Seam::current(); }
Preferences* Preferences::replace(Preferences* replacement) { return Seam::replace(replacement); }

std::optional<URL> FilePreferences::domainFile(std::string_view domain) const {
  if (!isPlainName(domain)) return std::nullopt;
  const std::optional<std::string> host = hostIdentifier();
  if (!host) return std::nullopt;
  const std::string name =
      std::string(domain) + "." + std::to_string(geteuid()) + "." + *host + ".plist";
  return directory_.appending("ByHost", URL::Kind::kDirectory).appending(name, URL::Kind::kFile);
}

Value FilePreferences::value(std::string_view key, std::string_view domain) {
  const std::lock_guard lock(mutex_);
  if (const auto pending = pending_.find(domain); pending != pending_.end()) {
    if (Value set = pending->second.get(key)) return set.isIdenticalTo(removal()) ? Value() : set;
  }
  const std::optional<URL> file = domainFile(domain);
  const std::optional<Dictionary> content = file ? readDictionaryFile(*file) : std::nullopt;
  return content ? content->get(key) : Value();
}

void FilePreferences::setValue(std::string_view key, Value value, std::string_view domain) {
  const std::lock_guard lock(mutex_);
  if (!value) value = removal();
  pending_[std::string(domain)].set(key, std::move(value));
}

bool FilePreferences::synchronize(std::string_view domain) {
  const std::lock_guard lock(mutex_);
  const auto pending = pending_.find(domain);
  if (pending == pending_.end()) return true;
  const std::optional<URL> file = domainFile(domain);
  if (!file) return false;
  const URL directory = file->deletingLastPathComponent();
  MakePath::current().make(directory.fileSystemRepresentation(), 0755);
  const UniqueDescriptor store(
      open(directory.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // From reading to writing nobody else may write, or what they stored would be lost.
  if (!store || flock(store.get(), LOCK_EX) != 0) return false;
  int number = 0;
  std::optional<Dictionary> content = readDictionaryFile(*file, &number);
  // What can't be read just now must not be replaced by less.
  if (!content && isReadFailure(number)) return false;
  if (!content) content.emplace();
  apply(pending->second, *content);
  if (writePropertyListFile(Value::dictionary(std::move(*content)), *file,
                            PropertyListFormat::kBinary, Durability::kSynced) != 0 ||
      fsync(store.get()) != 0) {
    return false;
  }
  pending_.erase(pending);
  return true;
}

std::optional<std::string> FilePreferences::suiteString(std::string_view suite,
                                                        std::string_view key) {
  if (!isPlainName(suite)) return std::nullopt;
  const auto content =
      readDictionaryFile(directory_.appending(std::string(suite) + ".plist", URL::Kind::kFile));
  const std::string* text = content ? content->getString(key) : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

}  // namespace pallion
