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
    loaded_ = true;
    const URL file = url_.appending("Info.plist", URL::Kind::kFile);
    const std::optional<std::string> bytes =
        readFile(file, &errorNumber_, FileCache::kUse, kInfoPlistMaximumSize);
    if (bytes) content_ = readPropertyList(*bytes);
    if (const Dictionary* dictionary = content_.asDictionary()) {
      info_ = *dictionary;
      info_.set(kQXBundleInfoPlistURL, Value::string(file.path()));
      state_ = InfoState::kRead;
      errorNumber_ = 0;
      return;
    }
    if (bytes) errorNumber_ = EILSEQ;
    state_ = isReadFailure(errorNumber_) ? InfoState::kUnreadable : InfoState::kAbsent;
  }

  URL url_;
  bool loaded_ = false;
  InfoState state_ = InfoState::kAbsent;
  int errorNumber_ = 0;
  Value content_;    // the file's root, of any class
  Dictionary info_;  // with kQXBundleInfoPlistURL
};

std::unique_ptr<QXBundle> makeDirectoryBundle(const URL& url) {
  struct stat status {};
  if (lstat(url.fileSystemRepresentation(), &status) == 0) {
    if (!S_ISDIR(status.st_mode)) return nullptr;
  } else if (!isReadFailure(errno)) {
    return nullptr;
  }
  // A directory, or something that could not be looked at: reading its information property list
  // then tells the error.
  return std::make_unique<DirectoryBundle>(url);
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
