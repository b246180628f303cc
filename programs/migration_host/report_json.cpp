#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/text_escape.h"
#include "programs/migration_host/report.h"

// Written piece by piece: a document in memory would take ten times the text.

namespace pallion::host {

namespace {

std::string number(double value) {
  if (!std::isfinite(value)) return "null";
  char text[400];
  std::snprintf(text, sizeof text, "%.6f", value);
  return text;
}

// An object or array in the making.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  Writer& open(char bracket) {
    out_ += bracket;
    first_ = true;
    return *this;
  }
  Writer& close(char bracket) {
    out_ += bracket;
    first_ = false;
    return *this;
  }
  // Before each value: its key in an object, nothing in an array.
  Writer& key(std::string_view name) {
    next();
    out_.append("\"").append(name).append("\":");
    first_ = true;
    return *this;
  }
  Writer& next() {
    if (!first_) out_ += ',';
    first_ = false;
    return *this;
  }
  Writer& raw(std::string_view text) {
    next();
    out_ += text;
    return *this;
  }
  Writer& text(std::string_view bytes) {
    next();
    appendJSONString(out_, bytes);
    return *this;
  }
  Writer& textOrNull(std::string_view bytes) { return bytes.empty() ? raw("null") : text(bytes); }

 private:
  std::string& out_;
  bool first_ = true;
};

void writeContainer(Writer& out, const Report& report, size_t index) {
  const ContainerRecord& container = report.run.record.containers[index];
  out.next().open('{');
  out.key("identifier").text(container.identifier).key("path").text(container.path);
  out.key("outcome").text(outcomeName(outcomeOf(report.run, index)));
  out.key("reason").textOrNull(shortenedMessage(container.reason));
  out.key("step").textOrNull(container.steps.empty() ? "" : container.steps.back().name);
  out.key("entries").raw(std::to_string(container.entries));
  out.key("bytes").raw(std::to_string(container.bytes));
  out.key("seconds").raw(number(container.seconds)).key("steps").open('[');
  for (const StepRecord& step : container.steps) {
    out.next().open('{').key("name").text(step.name);
    out.key("seconds").raw(number(step.seconds)).close('}');
  }
  out.close(']');
  out.key("icon").textOrNull(index < report.icons.size() ? report.icons[index] : "");
  out.close('}');
}

void writeLog(Writer& out, const RunSnapshot& run) {
  const RunLines& lines = run.lines;
  out.key("log").open('{').key("lines").open('[');
  for (const RunLine& line : lines.lines()) {
    out.next().open('{').key("time").text(timeText(line.time));
    out.key("log").text(line.isOfHost ? "host" : "product");
    out.key("level").raw(std::to_string(line.level));
    out.key("container")
        .raw(line.container < run.record.containers.size() ? std::to_string(line.container)
                                                           : "null");
    out.key("function").text(lines.function(line)).key("message").text(line.message).close('}');
  }
  out.close(']').key("leftOut").open('{');
  out.key("errors").raw(std::to_string(lines.errorsLeftOut()));
  out.key("notices").raw(std::to_string(lines.noticesLeftOut())).close('}').close('}');
}

}  // namespace

std::string reportJSON(const Report& report) {
  const RunRecord& record = report.run.record;
  const ReportTotals totals = totalsOf(report.run);
  std::string text;
  Writer out(text);
  out.open('{').key("version").raw("1").key("type").text("report");
  out.key("host").text(PALLION_VERSION).key("root").text(report.root);
  out.key("began").text(timeText(report.run.began));
  out.key("seconds").raw(number(record.seconds.value_or(NAN)));
  out.key("exitStatus").raw(std::to_string(report.exitStatus));
  out.key("result").raw(!record.result ? "null" : *record.result ? "true" : "false");
  out.key("dataClassName").textOrNull(record.dataClassName.value_or(""));
  out.key("estimatedDuration")
      .raw(number(static_cast<double>(record.estimatedDuration.value_or(NAN))));
  out.key("totals").open('{').key("migrated").raw(std::to_string(totals.migrated));
  out.key("failed").raw(std::to_string(totals.failed));
  out.key("interrupted").raw(std::to_string(totals.unfinished));
  out.key("otherProblems").raw(std::to_string(record.otherProblems.size()));
  out.key("entries").raw(std::to_string(totals.entries));
  out.key("bytes").raw(std::to_string(totals.bytes)).close('}').key("containers").open('[');
  for (size_t i = 0; i < record.containers.size(); ++i) writeContainer(out, report, i);
  out.close(']').key("slowest").open('[');
  for (const size_t index : slowestContainers(record)) out.raw(std::to_string(index));
  out.close(']').key("otherProblems").open('[');
  for (const std::string& problem : record.otherProblems) out.text(shortenedMessage(problem));
  out.close(']');
  writeLog(out, report.run);
  out.close('}');
  text += '\n';
  return text;
}

}  // namespace pallion::host
