#pragma once

#include <cerrno>
#include <memory>

#include "platform/bundle.h"

namespace pallion::test {

// A bundle object whose information property list can't be read just now (EIO).
class UnreadableBundle : public QXBundle {
 public:
  explicit UnreadableBundle(const URL& url) : url_(url) {}
  [[nodiscard]] const URL& bundleURL() const override { return url_; }
  InfoState infoState() override { return InfoState::kUnreadable; }
  int infoErrorNumber() override { return EIO; }
  const Dictionary* infoDictionary() override { return nullptr; }
  Value filteredInfoDictionary(const std::vector<std::string>&) override { return {}; }

 private:
  URL url_;
};

// For QXBundle::replace.
inline std::unique_ptr<QXBundle> makeUnreadableBundle(const URL& url) {
  return std::make_unique<UnreadableBundle>(url);
}

}  // namespace pallion::test
