#include "programs/common/console.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "foundation/signal_retry.h"
#include "platform/text_escape.h"

namespace pallion {

namespace {

// To the first column, and clear to the end of the row (ECMA-48).
constexpr std::string_view kClearRow = "\r\x1b[K";

// Guards the drawing. `statusShown` can be asked without it.
std::mutex statusMutex;
std::atomic<bool> statusShown{false};
bool statusClosed = false;

int writeFully(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written =
        retriedAfterSignals([&] { return write(descriptor, text.data(), text.size()); });
    if (written < 0) return errno;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

}  // namespace

bool print(std::string_view text) {
  static std::atomic<bool> failed{false};
  const int error = writeFully(STDOUT_FILENO, text);
  if (error != 0 && !failed.exchange(true)) complain("standard output", error);
  return error == 0;
}

void complain(std::string_view text) {
  std::string line;
  if (statusShown.exchange(false)) line += kClearRow;
  line += PALLION_PROGRAM ": " + terminalText(text) + "\n";
  writeFully(STDERR_FILENO, line);
}

void complain(std::string_view text, int errorNumber) {
  complain(std::string(text) + ": " + std::strerror(errorNumber));
}

void showStatus(const std::string& text) {
  const std::lock_guard lock(statusMutex);
  if (statusClosed || (text.empty() && !statusShown)) return;
  statusShown = !text.empty();
  writeFully(STDERR_FILENO, std::string(kClearRow) + text);
}

void closeStatus() {
  std::unique_lock lock(statusMutex, std::try_to_lock);
  for (int i = 0; i < 10 && !lock.owns_lock(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    lock.try_lock();
  }
  if (!lock.owns_lock()) return;
  statusClosed = true;
  if (statusShown.exchange(false)) writeFully(STDERR_FILENO, kClearRow);
}

}  // namespace pallion
