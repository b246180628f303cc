#include "programs/common/prompt_output.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/signal_retry.h"

namespace pallion {

PromptOutput::PromptOutput(int descriptor) : descriptor_(descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::kSocket;
  } else if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
    own_.reset(open(("/proc/self/fd/" + std::to_string(descriptor)).c_str(),
                    O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own_) descriptor_ = own_.get();
    // Somebody else's terminal, or a pipe whose reader has gone (ENXIO).
    if (!own_) kind_ = Kind::kMayWait;
  }
}

ssize_t PromptOutput::write(std::string_view text) const {
  if (kind_ == Kind::kMayWait) {
    pollfd state{descriptor_, POLLOUT, 0};
    if (poll(&state, 1, 0) <= 0) return 0;
  }
  const ssize_t taken = retriedAfterSignals([&] {
    return kind_ == Kind::kSocket
               ? send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
               : ::write(descriptor_, text.data(), text.size());
  });
  return taken < 0 && errno == EAGAIN ? 0 : taken;
}

}  // namespace pallion
