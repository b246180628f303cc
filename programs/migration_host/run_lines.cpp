#include "programs/migration_host/run_lines.h"

#include "platform/product_log.h"

namespace pallion::host {

namespace {

// What a line takes besides its message, in a report and about as much in memory.
constexpr size_t kLineOverhead = 80;
constexpr size_t kLongestMessage = 1024;

}  // namespace

std::string shortenedMessage(std::string_view message) {
  if (message.size() <= kLongestMessage) return std::string(message);
  // Not in the midst of a UTF-8 sequence, whose further bytes are 10xxxxxx.
  size_t end = kLongestMessage;
  while (end > 0 && (static_cast<unsigned char>(message[end]) & 0xC0) == 0x80) --end;
  return std::string(message.substr(0, end)) + "\u2026";
}

void RunLines::add(const LogLine& line, size_t container) {
  Room& room = line.level <= kLogError ? errors_ : notices_;
  std::string message = shortenedMessage(line.message);
  const size_t size = message.size() + kLineOverhead;
  // The first line that finds no room is the last: none is missing between two that are shown.
  if (room.leftOut > 0 || size > room.bytes) {
    ++room.leftOut;
    return;
  }
  room.bytes -= size;
  lines_.push_back({line.time, line.category != nullptr, line.level, container,
                    numberOf(line.function), std::move(message)});
}

size_t RunLines::numberOf(std::string_view function) {
  const auto known = numbers_.find(function);
  if (known != numbers_.end()) return known->second;
  numbers_.emplace(function, functions_.size());
  functions_.emplace_back(function);
  return functions_.size() - 1;
}

}  // namespace pallion::host
