#include "programs/common/console.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>

#include "foundation/signal_retry.h"
#include "platform/text_escape.h"
#include "programs/common/prompt_output.h"

namespace pallion {

namespace {

// ECMA-48. The cursor rests at the beginning of the status's first row: there a terminal that folds
// its rows anew for another width keeps it, and clearing from there takes all of them away.
constexpr std::string_view kClearStatus = "\r\x1b[J";
constexpr std::string_view kClearToEndOfRow = "\x1b[K";

// Guards the drawing. `statusShown` can be asked without it.
std::mutex statusMutex;
std::atomic<bool> statusShown{false};
bool statusClosed = false;
std::string shownStatus;
std::optional<PromptOutput> statusOutput;
bool outputIsTerminal = false;

int writeFully(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written =
        retriedAfterSignals([&] { return write(descriptor, text.data(), text.size()); });
    if (written < 0) return errno;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

std::string errorLine(std::string_view text) {
  std::string line;
  if (statusShown.exchange(false)) line += kClearStatus;
  return line + PALLION_PROGRAM ": " + terminalText(text) + "\n";
}

std::string drawing(const std::vector<std::string>& rows) {
  if (rows.empty()) return std::string(kClearStatus);
  std::string out = "\r";
  for (size_t i = 0; i < rows.size(); ++i) {
    if (i != 0) out.append(kClearToEndOfRow).append("\r\n");
    out += rows[i];
  }
  out.append("\x1b[J\r");
  if (rows.size() > 1) out += "\x1b[" + std::to_string(rows.size() - 1) + "A";
  return out;
}

bool writeStatus(std::string_view text) {
  return statusOutput && statusOutput->write(text) == static_cast<ssize_t>(text.size());
}

}  // namespace

bool print(std::string_view text) {
  static std::atomic<bool> failed{false};
  if (outputIsTerminal && statusShown.exchange(false)) writeFully(STDERR_FILENO, kClearStatus);
  const int error = writeFully(STDOUT_FILENO, text);
  if (error != 0 && !failed.exchange(true)) complain("standard output", error);
  return error == 0;
}

void complain(std::string_view text) { writeFully(STDERR_FILENO, errorLine(text)); }

void complain(std::string_view text, int errorNumber) {
  complain(std::string(text) + ": " + std::strerror(errorNumber));
}

void openStatus() {
  statusOutput.emplace(STDERR_FILENO);
  outputIsTerminal = isatty(STDOUT_FILENO) == 1;
}

void remark(std::string_view text) {
  const std::lock_guard lock(statusMutex);
  if (!statusClosed) writeStatus(errorLine(text));
}

void showStatus(const std::vector<std::string>& rows) {
  const std::lock_guard lock(statusMutex);
  if (statusClosed || (rows.empty() && !statusShown)) return;
  std::string text = drawing(rows);
  if (statusShown && text == shownStatus) return;
  statusShown = !rows.empty();
  // What was taken in part is drawn again next time.
  shownStatus = writeStatus(text) ? std::move(text) : std::string();
}

void closeStatus() {
  std::unique_lock lock(statusMutex, std::try_to_lock);
  for (int i = 0; i < 10 && !lock.owns_lock(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    lock.try_lock();
  }
  if (!lock.owns_lock()) return;
  statusClosed = true;
  if (statusShown.exchange(false)) writeStatus(kClearStatus);
}

}  // namespace pallion
