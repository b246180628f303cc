#include "platform/log_line.h"

#include <cstdio>

#include "platform/text_escape.h"

namespace pallion {

namespace {

std::string textLine(const LogLine& line) {
  std::string out = timeText(line.time);
  out += " [" + std::to_string(line.level) + "] ";
  if (line.category) {
    appendWithoutControls(out, line.category);
    out += ' ';
  }
  appendWithoutControls(out, line.function);
  if (line.file) {
    out += " (";
    appendWithoutControls(out, line.file);
    out += ":" + std::to_string(line.line) + ")";
  }
  out += ": ";
  appendWithoutControls(out, line.message);
  out += '\n';
  return out;
}

std::string jsonLine(const LogLine& line) {
  std::string out = R"({"time":")" + timeText(line.time) + R"(","log":")";
  out += line.category ? "host" : "product";
  out += R"(","level":)" + std::to_string(line.level);
  if (line.category) {
    out += R"(,"category":)";
    appendJSONString(out, line.category);
  }
  out += R"(,"file":)";
  if (line.file) {
    appendJSONString(out, line.file);
  } else {
    out += "null";
  }
  out += R"(,"function":)";
  appendJSONString(out, line.function);
  out += R"(,"line":)" + (line.file ? std::to_string(line.line) : "null");
  out += R"(,"message":)";
  appendJSONString(out, line.message);
  out += "}\n";
  return out;
}

}  // namespace

std::string timeText(const timespec& time) {
  tm parts{};
  gmtime_r(&time.tv_sec, &parts);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                time.tv_nsec / 1000);
  return text;
}

std::string formatLogLine(LogFormat format, const LogLine& line) {
  return format == LogFormat::kJSON ? jsonLine(line) : textLine(line);
}

timespec currentTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

}  // namespace pallion
