#include "platform/product_log.h"

#include <unistd.h>

#include "platform/log_file.h"
#include "platform/log_line.h"

namespace pallion {

LogHandle* gLogHandle = nullptr;

void logMessage(int level, std::string_view function, std::string_view message) {
  if (gLogHandle) {
    gLogHandle->write(level, function, message);
    return;
  }
  LogFile(STDERR_FILENO)
      .write(formatLogLine(LogFormat::kText,
                           {currentTime(), level, nullptr, nullptr, 0, function, message}));
}

}  // namespace pallion
