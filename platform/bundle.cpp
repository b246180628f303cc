#include "platform/bundle.h"

#include <atomic>
#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "foundation/file_contents.h"
#include "foundation/property_list.h"

namespace pallion {

namespace {

class DirectoryBundle final : public QXBundle {
 public:
  explicit DirectoryBundle(URL url) : url_(std::move(url)) {}

  const URL& bundleURL() const override { return url_; }

  // Reads the list if no link leads to it: then it stands in a directory.
  bool readFromDirectory() {
    const URL file = listURL();
    const std::optional<std::string> bytes =
        readFileWithoutLinks(file, nullptr, kInfoPlistMaximumSize);
    if (bytes) take(file, *bytes);
    return bytes.has_value();
  }

  InfoState infoState() override {
    load();
    return state_;
  }

  int infoErrorNumber() override {
    load();
    return errorNumber_;
  }

  const Dictionary* infoDictionary() override {
    load();
    return state_ == InfoState::kRead ? &info_ : nullptr;
  }

  Value filteredInfoDictionary(const std::vector<std::string>& keys) override {
    load();
    const Dictionary* all = content_.asDictionary();
    if (!all) return content_;
    Dictionary filtered;
    for (const std::string& key : keys) {
      if (Value value = all->get(key)) filtered.set(key, std::move(value));
    }
    return Value::dictionary(std::move(filtered));
  }

 private:
  void load() {
    if (loaded_) return;
    const URL file = listURL();
    const std::optional<std::string> bytes =
        readFile(file, &errorNumber_, FileCache::kUse, kInfoPlistMaximumSize);
    if (bytes) return take(file, *bytes);
    loaded_ = true;
    state_ = isReadFailure(errorNumber_) ? InfoState::kUnreadable : InfoState::kAbsent;
  }

  [[nodiscard]] URL listURL() const { return url_.appending("Info.plist", URL::Kind::kFile); }

  void take(const URL& file, const std::string& bytes) {
    loaded_ = true;
    content_ = readPropertyList(bytes);
    const Dictionary* dictionary = content_.asDictionary();
    errorNumber_ = dictionary ? 0 : EILSEQ;
    if (!dictionary) return;
    info_ = *dictionary;
    info_.set(kQXBundleInfoPlistURL, Value::string(file.path()));
    state_ = InfoState::kRead;
  }

  URL url_;
  bool loaded_ = false;
  InfoState state_ = InfoState::kAbsent;
  int errorNumber_ = 0;
  Value content_;    // the file's root, of any class
  Dictionary info_;  // with kQXBundleInfoPlistURL
};

std::unique_ptr<QXBundle> makeDirectoryBundle(const URL& url) {
  auto bundle = std::make_unique<DirectoryBundle>(url);
  // A link further up is no concern of the bundle's, so that this settles nothing when it fails.
  if (bundle->readFromDirectory()) return bundle;
  struct stat status {};
  if (lstat(url.fileSystemRepresentation(), &status) == 0) {
    if (!S_ISDIR(status.st_mode)) return nullptr;
  } else if (!isReadFailure(errno)) {
    return nullptr;
  }
  // A directory, or something that could not be looked at: reading its information property list
  // then tells the error.
  return bundle;
}

std::atomic<QXBundle::Factory> gFactory{makeDirectoryBundle};

}  // namespace

std::unique_ptr<QXBundle> QXBundle::bundleWithURL(const URL& url) { return gFactory.load()(url); }

std::optional<std::string> QXBundle::identifier() {
  const Dictionary* info = infoDictionary();
  const std::string* identifier = info ? info->getString(kQXBundleIdentifier) : nullptr;
  if (!identifier) return std::nullopt;
  return *identifier;
}

QXBundle::Factory QXBundle::replace(Factory factory) {
  return gFactory.exchange(factory ? factory : makeDirectoryBundle);
}

void appendDescription(std::string& out, const QXBundle& bundle) {
  out += "QXBundle ";
  out += bundle.bundleURL().path();
}

}  // namespace pallion
