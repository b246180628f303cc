#include "programs/common/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace pallion {

void openStandardDescriptors() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) close(descriptor);
}

}  // namespace pallion
