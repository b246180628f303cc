#pragma once

#include <string_view>
#include <sys/types.h>

#include "foundation/unique_descriptor.h"

namespace pallion {

// A descriptor of somebody else's that is written without ever waiting for its reader: a stopped
// terminal or a full pipe takes nothing. One thread at a time.
class PromptOutput {
 public:
  // `descriptor` outlives this object. To be made before the root changes: what stands behind the
  // descriptor is opened anew through /proc, because O_NONBLOCK on the caller's own open file would
  // change it for everybody who shares it.
  explicit PromptOutput(int descriptor);
  // The bytes that were taken, 0 when none are now; -1 with errno set when none will be.
  [[nodiscard]] ssize_t write(std::string_view text) const;

 private:
  enum class Kind { kNeverWaits, kSocket, kMayWait };
  int descriptor_;
  Kind kind_ = Kind::kNeverWaits;
  UniqueDescriptor own_;
};

}  // namespace pallion
