#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "platform/sha256.h"
#include "platform/text_escape.h"
#include "programs/migration_host/report.h"
#include "programs/migration_host/report_icons.h"
#include "programs/migration_host/report_page_template.h"

namespace pallion::host {

namespace {

constexpr size_t kProblemsShown = 50;

// The one way of a text from outside into the page: as content, or as an attribute in quotes.
std::string html(std::string_view bytes) {
  std::string out;
  for (const char c : terminalText(bytes)) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The same into the data for the script. JSON has "<" in strings only, where it may stand for the
// end of the script element.
void appendScriptString(std::string& out, std::string_view bytes) {
  std::string text;
  appendJSONString(text, terminalText(bytes));
  for (const char c : text) {
    if (c == '<') {
      out += "\\u003c";
    } else {
      out += c;
    }
  }
}

std::string decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string duration(double seconds) {
  if (seconds < 0.0095) return decimal(seconds * 1000, 1) + " ms";
  if (seconds < 0.9995) return decimal(seconds * 1000, 0) + " ms";
  if (seconds < 60) return decimal(seconds, 2) + " s";
  const auto whole = static_cast<uint64_t>(seconds + 0.5);
  const std::string minutes = std::to_string(whole / 60 % 60) + " min ";
  if (whole < 3600) return minutes + std::to_string(whole % 60) + " s";
  return std::to_string(whole / 3600) + " h " + minutes;
}

std::string size(uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {" B", " KiB", " MiB", " GiB", " TiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  return decimal(value, unit == 0 ? 0 : 1) + kUnits[unit];
}

// With a blank between thousands (U+202F, narrow and not broken).
std::string grouped(uint64_t value) {
  std::string digits = std::to_string(value);
  for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, "\u202F");
  return digits;
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return grouped(count) + " " + (count == 1 ? one : many);
}

std::string headline(const Report& report, const ReportTotals& totals) {
  if (!report.run.record.result) {
    return report.exitStatus > 128 ? "Interrupted; a later run resumes" : "There was no migrator";
  }
  if (*report.run.record.result) return "Everything was migrated";
  if (totals.failed == 0) return "The migration failed";
  return grouped(totals.failed) + " of " +
         counted(report.run.record.containers.size(), "application was", "applications were") +
         " not migrated";
}

// A class of the page, and of the rows of containers that did not succeed.
const char* stateOf(const Report& report) {
  if (report.exitStatus > 128) return "interrupted";
  return report.exitStatus == 0 ? "migrated" : "failed";
}

std::string subtitle(const Report& report) {
  std::string began = timeText(report.run.began);
  began = began.substr(0, 10) + " " + began.substr(11, 8) + " UTC";
  return "Migration of <bdi>" + html(report.root) + "</bdi>, begun " + began + ", exit status " +
         std::to_string(report.exitStatus) + ", migration-host " PALLION_VERSION;
}

std::string problems(const RunRecord& record, const ReportTotals& totals) {
  if (record.otherProblems.empty()) return {};
  const size_t count = record.otherProblems.size();
  // They explain a failure that no application explains.
  std::string out = totals.failed == 0 ? "<details open>" : "<details>";
  out += "<summary>" + counted(count, "problem", "problems") +
         " outside the applications</summary>\n<ul>\n";
  const size_t shown = std::min(count, kProblemsShown);
  for (size_t i = 0; i < shown; ++i)
    out += "<li>" + html(withoutSpeaker(record.otherProblems[i])) + "\n";
  if (shown < count) out += "<li>" + grouped(count - shown) + " more in the log\n";
  return out + "</ul>\n</details>\n";
}

std::string tiles(const Report& report, const ReportTotals& totals) {
  const struct {
    const char* name;
    std::string value;
    bool alarms;
  } all[] = {{"Migrated", grouped(totals.migrated), false},
             {"Failed", grouped(totals.failed), totals.failed > 0},
             {"Items moved", grouped(totals.entries), false},
             {"Copied across volumes", size(totals.bytes), false},
             {"Time", duration(report.run.record.seconds.value_or(0)), false}};
  std::string out;
  for (const auto& tile : all) {
    out += std::string(tile.alarms ? "<div class=alarm>" : "<div>") + "<dt>" + tile.name + "<dd>" +
           tile.value + "</div>\n";
  }
  return out;
}

std::string stepTimes(const ContainerRecord& container) {
  std::string out;
  for (const StepRecord& step : container.steps) {
    if (!out.empty()) out += ", ";
    // Not broken but between steps.
    std::string time = html(step.name) + " " + duration(step.seconds);
    for (size_t i = 0; (i = time.find(' ', i)) != std::string::npos;) time.replace(i, 1, "\u00A0");
    out += time;
  }
  return out;
}

// A bar as long as the container took compared with the slowest; its steps are told apart by their
// strength.
std::string slowestBar(const ContainerRecord& container, double longest) {
  constexpr std::array<const char*, 3> kStrengths = {"1", ".6", ".3"};
  const double scale = longest > 0 ? 1000 / longest : 0;
  std::string out = "<svg viewBox=\"0 0 1000 10\" preserveAspectRatio=none aria-hidden=true>";
  double x = 0;
  const auto bar = [&](double seconds, const char* strength) {
    out += "<rect x=\"" + decimal(x, 1) + "\" width=\"" + decimal(seconds * scale, 1) +
           "\" height=10 opacity=\"" + strength + "\" />";
    x += seconds * scale;
  };
  double rest = container.seconds;
  for (size_t i = 0; i < container.steps.size(); ++i) {
    bar(container.steps[i].seconds, kStrengths[i % kStrengths.size()]);
    rest -= container.steps[i].seconds;
  }
  if (container.steps.empty()) bar(rest, kStrengths[0]);
  return out + "</svg>";
}

std::string slowest(const RunRecord& record) {
  const std::vector<size_t> indices = slowestContainers(record);
  if (indices.size() < 2) return {};
  const double longest = record.containers[indices.front()].seconds;
  std::string out = "<h2>Slowest</h2>\n<ol class=\"slow sheet\">\n";
  for (const size_t index : indices) {
    const ContainerRecord& container = record.containers[index];
    out += "<li><bdi>" + html(container.identifier) + "</bdi> <b>" + duration(container.seconds) +
           "</b> " + slowestBar(container, longest) + " <small>" + stepTimes(container) +
           "</small>\n";
  }
  return out + "</ol>\n";
}

// Quotes and end tags that HTML does not ask for would be a third of a large page.
std::string row(const Report& report, size_t index) {
  const ContainerRecord& container = report.run.record.containers[index];
  const Outcome outcome = outcomeOf(report.run, index);
  const bool migrated = outcome == Outcome::kMigrated;
  std::string name = outcomeName(outcome);
  std::string out = migrated ? "<tr>" : "<tr class=" + name + ">";
  name[0] = static_cast<char>(name[0] - 'a' + 'A');
  const std::string icon = index < report.icons.size() ? report.icons[index] : std::string();
  out += icon.empty() ? "<th scope=row>" : "<th scope=row class=i><img src=\"" + icon + "\" alt>";
  out += "<bdi>" + html(container.identifier) + "</bdi>";
  // Where a migrated one was there is nothing any more.
  if (!migrated) out += " <small>" + html(container.path) + "</small>";
  out += "<td><b>" + name + "</b>";
  if (!container.reason.empty()) out += "<p>" + html(withoutSpeaker(container.reason)) + "</p>";
  out += "<td>" + (container.steps.empty() ? std::string() : html(container.steps.back().name));
  out += "<td>" + std::to_string(container.entries);
  out += "<td data-v=" + std::to_string(container.bytes) + ">" + size(container.bytes);
  out += "<td data-v=" + decimal(container.seconds, 6) + ">" + duration(container.seconds);
  out += "<td>" + stepTimes(container) + "\n";
  return out;
}

// {"began": milliseconds since 1970, "functions": [name], "lines": [[milliseconds since then, 1 of
// the host's log, level, index of the container or null, index of the function, message]]}
std::string lineData(const RunSnapshot& run) {
  const auto milliseconds = [](const timespec& time) {
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
  };
  const int64_t began = milliseconds(run.began);
  std::string out = "{\"began\":" + std::to_string(began) + ",\"functions\":[";
  for (const std::string& function : run.lines.functions()) {
    if (out.back() != '[') out += ',';
    appendScriptString(out, function);
  }
  out += "],\"lines\":[";
  for (const RunLine& line : run.lines.lines()) {
    out += out.back() == '[' ? "\n[" : ",\n[";
    out += std::to_string(milliseconds(line.time) - began) + (line.isOfHost ? ",1," : ",0,") +
           std::to_string(line.level) + "," +
           (line.container == RunLine::kNoContainer ? "null" : std::to_string(line.container)) +
           "," + std::to_string(line.function) + ",";
    appendScriptString(out, line.message);
    out += ']';
  }
  return out + "]}";
}

std::string leftOut(const RunLines& lines) {
  const size_t errors = lines.errorsLeftOut();
  const size_t notices = lines.noticesLeftOut();
  if (errors + notices == 0) return "Every line of this run&#39;s log is here.";
  return "The last " + counted(errors, "error", "errors") + " and " +
         counted(notices, "other line", "other lines") +
         " of this run are left out here; the log files have them.";
}

// What the Content-Security-Policy calls the text of the template's element `name`.
std::string sourceHash(std::string_view page, const std::string& name) {
  const size_t begin = page.find("<" + name + ">") + name.size() + 2;
  const std::string_view text = page.substr(begin, page.find("</" + name + ">") - begin);
  SHA256Digest digest;
  digest.update(text.data(), text.size());
  const SHA256Digest::Bytes bytes = digest.finish();
  return "sha256-" + base64(std::string(bytes.begin(), bytes.end()));
}

}  // namespace

std::string reportPage(const Report& report) {
  const RunRecord& record = report.run.record;
  const ReportTotals totals = totalsOf(report.run);
  std::string rows;
  for (size_t i = 0; i < record.containers.size(); ++i) rows += row(report, i);
  const std::string_view page = kReportPageTemplate;
  const std::string title = headline(report, totals);
  const std::pair<std::string_view, std::string> values[] = {
      {"script-hash", sourceHash(page, "script")},
      {"style-hash", sourceHash(page, "style")},
      {"state", stateOf(report)},
      {"title", title + " \u2013 migration report"},
      {"headline", title},
      {"subtitle", subtitle(report)},
      {"problems", problems(record, totals)},
      {"tiles", tiles(report, totals)},
      {"slowest", slowest(record)},
      {"rows", std::move(rows)},
      {"left-out", leftOut(report.run.lines)},
      {"lines", lineData(report.run)}};
  // What is put in is not looked at again.
  std::string out;
  size_t at = 0;
  for (size_t begin = 0; (begin = page.find("{{", at)) != std::string_view::npos;) {
    const size_t end = page.find("}}", begin);
    const std::string_view name = page.substr(begin + 2, end - begin - 2);
    const auto* const value =
        std::find_if(std::begin(values), std::end(values),
                     [name](const auto& candidate) { return candidate.first == name; });
    out += page.substr(at, begin - at);
    if (value != std::end(values)) out += value->second;
    at = end + 2;
  }
  out += page.substr(at);
  return out;
}

}  // namespace pallion::host
