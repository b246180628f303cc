#include <cstring>
#include <nlohmann/json.hpp>

#include "programs/common/console.h"
#include "programs/common/root_directory.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/report_files.h"
#include "programs/migration_host/run_record.h"

namespace pallion::host {

namespace {

using Json = nlohmann::ordered_json;

// What the table shows of a report. The library throws for members of other classes than expected;
// the caller catches.
RunRecord recordOf(const Json& report) {
  RunRecord record;
  record.seconds = report.at("seconds").get<double>();
  for (const Json& entry : report.at("containers")) {
    ContainerRecord& container = record.containers.emplace_back();
    container.identifier = entry.at("identifier").get<std::string>();
    container.result = entry.at("outcome") == "migrated";
    if (entry.at("reason").is_string()) container.reason = entry["reason"].get<std::string>();
    if (entry.at("outcome") == "interrupted") container.reason = "interrupted";
  }
  for (const Json& problem : report.at("otherProblems"))
    record.otherProblems.push_back(problem.get<std::string>());
  return record;
}

// The last report as it is to be printed. False with one line that says why there is none.
bool readReport(const Options& options, std::string& text, std::string& explanation) {
  const std::string path = reportPath(ReportFile::kData);
  int error = 0;
  const std::optional<std::string> bytes = readReportFile(&error);
  if (!bytes) {
    explanation = options.root + ": no report of a run: " + path + ": " + std::strerror(error);
    return false;
  }
  try {
    const Json report = Json::parse(*bytes);
    if (report.at("version") == 1 && report.at("type") == "report") {
      text = options.json ? report.dump() + "\n"
                          : "run of " + report.at("began").get<std::string>() + "\n" +
                                runTable(recordOf(report));
      return true;
    }
  } catch (const Json::exception&) {
  }
  explanation = options.root + ": no report of a run: " + path + ": damaged, or of another version";
  return false;
}

int show(const Options& options) {
  RootDirectory root;
  if (!root.openAndEnter(options.root)) return kExitUsage;
  std::string text;
  std::string explanation;
  if (!readReport(options, text, explanation)) {
    complain(explanation);
    return kExitFailure;
  }
  print(text);
  return kExitSuccess;
}

}  // namespace

int showReport(const Options& options) {
  const int status = show(options);
  if (options.json) {
    print(R"({"version":1,"type":"summary","exitStatus":)" + std::to_string(status) + "}\n");
  }
  return status;
}

}  // namespace pallion::host
