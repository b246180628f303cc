#include "programs/migration_host/page_lines.h"

#include <vector>

#include "platform/product_log.h"
#include "programs/migration_host/page_text.h"

namespace pallion::host {

namespace {

// For what follows the lines in the page.
constexpr size_t kReserve = 2048;

int64_t milliseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

std::string encoded(const RunSnapshot& run, const RunLine& line) {
  const auto& containers = run.record.containers;
  const bool hasContainer = line.container < containers.size();
  std::string out = ",\n[" + std::to_string(milliseconds(line.time) - milliseconds(run.began)) +
                    (line.isOfHost ? ",1," : ",0,") + std::to_string(line.level) + "," +
                    (hasContainer ? std::to_string(line.container) : "null") + "," +
                    std::to_string(line.function) + ",";
  if (hasContainer && line.isOfHost &&
      line.message == shortenedMessage(containers[line.container].reason)) {
    out += "null";
  } else {
    appendScriptString(out, withoutSpeaker(line.message));
  }
  return out + "]";
}

}  // namespace

void PageLines::append(std::string& out, const RunSnapshot& run, size_t maximumSize) {
  const std::vector<RunLine>& lines = run.lines.lines();
  errorsLeftOut = run.lines.errorsLeftOut();
  noticesLeftOut = run.lines.noticesLeftOut();
  out += "{\"began\":" + std::to_string(milliseconds(run.began)) + ",\"functions\":[";
  for (const std::string& function : run.lines.functions()) {
    if (out.back() != '[') out += ',';
    appendScriptString(out, function);
  }
  out += "],\"lines\":[";

  size_t room = maximumSize > out.size() + kReserve ? maximumSize - out.size() - kReserve : 0;
  std::vector<bool> isKept(lines.size());
  for (const bool errors : {true, false}) {
    for (size_t i = 0; i < lines.size(); ++i) {
      if ((lines[i].level <= kLogError) != errors) continue;
      const size_t size = encoded(run, lines[i]).size();
      size_t& leftOut = errors ? errorsLeftOut : noticesLeftOut;
      isKept[i] = size <= room;
      // After the first that has no room there is none for shorter ones either.
      room = isKept[i] ? room - size : 0;
      if (!isKept[i]) ++leftOut;
    }
  }
  bool first = true;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (!isKept[i]) continue;
    const std::string line = encoded(run, lines[i]);
    out += std::string_view(line).substr(first ? 1 : 0);
    first = false;
  }
  out += "]}";
}

}  // namespace pallion::host
