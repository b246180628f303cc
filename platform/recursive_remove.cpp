#include "platform/recursive_remove.h"

#include <cerrno>

#include "platform/removal_walk.h"
#include "platform/replaceable.h"

namespace pallion {

namespace {

class SystemRemove : public RecursiveRemove {
 public:
  int remove(const char* path, RemovalState& state) override {
    const int number = RemovalWalk(state).run(path);
    if (number == 0) return 0;
    errno = number;
    return -1;
  }
};

using Seam = Replaceable<RecursiveRemove, SystemRemove>;

}  // namespace

bool RemovalState::setErrorCallback(ErrorCallback callback) {
  callback_ = callback;
  return true;
}

bool RemovalState::setErrorContext(void* context) {
  context_ = context;
  return true;
}

bool RemovalState::errorNumber(int& number) const {
  number = errorNumber_;
  return true;
}

int RemovalState::offer(int, const char*) { return kRemoveIt; }

bool RemovalState::report(const char* path, int number) {
  errorNumber_ = number;
  return !callback_ || callback_(*this, path, context_);
}

RecursiveRemove& RecursiveRemove::current() { return Seam::current(); }
RecursiveRemove* RecursiveRemove::replace(RecursiveRemove* replacement) {
  return Seam::replace(replacement);
}
RecursiveRemove& RecursiveRemove::system() { return Seam::system(); }

}  // namespace pallion
