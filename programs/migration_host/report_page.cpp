#include <algorithm>
#include <array>
#include <functional>

#include "platform/sha256.h"
#include "programs/common/base64.h"
#include "programs/migration_host/page_lines.h"
#include "programs/migration_host/page_text.h"
#include "programs/migration_host/report.h"
#include "programs/migration_host/report_icons.h"
#include "programs/migration_host/report_page_template.h"

namespace pallion::host {

namespace {

constexpr size_t kProblemsShown = 50;
constexpr size_t kPageMaximumSize = 5'000'000;  // bytes, unless the applications alone take more

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
  const std::string time = timeText(report.run.began);
  const std::string began = time.substr(0, 10) + " " + time.substr(11, 8) + " UTC";
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
    out += "<li>" + html(withoutSpeaker(shortenedMessage(record.otherProblems[i]))) + "\n";
  if (shown < count) out += "<li>" + grouped(count - shown) + " more in the log\n";
  return out + "</ul>\n</details>\n";
}

std::string tiles(const Report& report, const ReportTotals& totals) {
  std::string failed = grouped(totals.failed);
  if (totals.failed > 0) failed = "<a href=\"#outcome=failed\">" + failed + "</a>";
  const struct {
    const char* name;
    std::string value;
    bool alarms;
  } all[] = {{"Migrated", grouped(totals.migrated), false},
             {"Failed", failed, totals.failed > 0},
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
  if (!container.reason.empty())
    out += "<p>" + html(withoutSpeaker(shortenedMessage(container.reason))) + "</p>";
  out += "<td>" + (container.steps.empty() ? std::string() : html(container.steps.back().name));
  out += "<td>" + std::to_string(container.entries);
  out += "<td data-v=" + std::to_string(container.bytes) + ">" + size(container.bytes);
  out += "<td data-v=" + decimal(container.seconds, 6) + ">" + duration(container.seconds);
  out += "<td>" + stepTimes(container) + "\n";
  return out;
}

std::string leftOut(const PageLines& lines) {
  std::string missing;
  if (lines.errorsLeftOut > 0) missing = counted(lines.errorsLeftOut, "error", "errors");
  if (lines.noticesLeftOut > 0) {
    if (!missing.empty()) missing += " and ";
    missing += counted(lines.noticesLeftOut, "notice", "notices");
  }
  if (missing.empty()) return "Every line that was logged in this run.";
  return "The last " + missing + " of this run are left out of this page; the log files have them.";
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
  const std::string_view page = kReportPageTemplate;
  const std::string title = headline(report, totals);
  std::string out;
  PageLines lines;
  const struct {
    std::string_view name;
    std::function<void()> append;
  } parts[] = {
      {"script-hash", [&] { out += sourceHash(page, "script"); }},
      {"style-hash", [&] { out += sourceHash(page, "style"); }},
      {"state", [&] { out += stateOf(report); }},
      {"title", [&] { out += title + " \u2013 migration report"; }},
      {"headline", [&] { out += title; }},
      {"subtitle", [&] { out += subtitle(report); }},
      {"tiles", [&] { out += tiles(report, totals); }},
      {"problems", [&] { out += problems(record, totals); }},
      {"slowest", [&] { out += slowest(record); }},
      {"rows",
       [&] {
         for (size_t i = 0; i < record.containers.size(); ++i) out += row(report, i);
       }},
      {"lines", [&] { lines.append(out, report.run, kPageMaximumSize); }},
      {"left-out", [&] { out += leftOut(lines); }},
  };
  // What is put in is not looked at again.
  size_t at = 0;
  for (size_t begin = 0; (begin = page.find("{{", at)) != std::string_view::npos;) {
    const size_t end = page.find("}}", begin);
    const std::string_view name = page.substr(begin + 2, end - begin - 2);
    out += page.substr(at, begin - at);
    for (const auto& part : parts) {
      if (part.name == name) part.append();
    }
    at = end + 2;
  }
  out += page.substr(at);
  return out;
}

}  // namespace pallion::host
