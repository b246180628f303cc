#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/export.h"
#include "platform/migration_log.h"
#include "platform/migration_plugin.h"
#include "platform/product_log.h"

// A plug-in that does what the file /fake-migration inside the root says, one command a line, and
// writes into /calls what it was asked. A line may hold any byte as \xHH. FAKE_ABI in the
// environment is the interface version that it claims.

namespace {

std::string unescaped(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "\\x") == 0) {
      out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

void noteCall(const std::string& name) { std::ofstream("/calls", std::ios::app) << name << '\n'; }

class FakeMigrator : public pallion::MigrationPluginBase {
 public:
  bool init() override {
    const mode_t mask = umask(0);
    umask(mask);
    char directory[4096];
    const char* temporary = std::getenv("TMPDIR");
    noteCall("init mask=" + std::to_string(mask) +
             " cwd=" + (getcwd(directory, sizeof directory) ? directory : "none") +
             " tmpdir=" + (temporary ? temporary : "none"));
    return run("init");
  }
  std::string dataClassName() override {
    noteCall("dataClassName");
    return "Fake";
  }
  float estimatedDuration() override { return 22.25F; }
  float migrationProgress() override { return progress_; }
  bool performMigration() override {
    noteCall("performMigration");
    return run("perform");
  }

 private:
  // Runs the commands between the line with that name and the next blank line. False after "fail".
  bool run(const std::string& section) {
    std::ifstream script("/fake-migration");
    bool inSection = false;
    bool result = true;
    for (std::string line; std::getline(script, line);) {
      if (line.empty()) inSection = false;
      if (inSection) obey(line, result);
      if (line == section) inSection = true;
    }
    return result;
  }

  void obey(const std::string& line, bool& result) {
    std::istringstream words(line);
    std::string command;
    std::string first;
    std::string rest;
    words >> command >> first >> std::ws;
    std::getline(words, rest);
    rest = unescaped(rest);
    if (command == "fail") result = false;
    if (command == "start") itemStarted(unescaped(first), rest);
    if (command == "step") stepStarted(first);
    if (command == "moved") entryMoved(first);
    if (command == "finish") itemFinished(first == "true");
    if (command == "progress") progress_ = std::stof(first);
    if (command == "error") pallion::MigrationLog("-[Fake run]", "Shiftweller", 3, "%@", rest);
    if (command == "notice") pallion::MigrationLog("-[Fake run]", "Shiftweller", 5, "%@", rest);
    if (command == "product") pallion::LogWrite(std::stoi(first), "-[PLFake work]", "%@", rest);
    if (command == "pause") usleep(static_cast<useconds_t>(std::stoi(first)) * 1000);
    if (command == "hang") {
      noteCall("hanging");
      while (true) pause();
    }
  }

  std::atomic<float> progress_ = 0;
};

}  // namespace

extern "C" PL_EXPORT const pallion::MigrationPluginDescriptor* PallionMigrationPlugin() {
  static pallion::MigrationPluginDescriptor descriptor = {
      pallion::kMigrationPluginABIVersion,
      []() -> pallion::MigrationPluginBase* { return new FakeMigrator; },
      [](pallion::MigrationPluginBase* plugin) {
        noteCall("destroy");
        delete plugin;
      }};
  if (const char* abi = std::getenv("FAKE_ABI")) {
    descriptor.abiVersion = static_cast<uint32_t>(std::stoul(abi));
  }
  return &descriptor;
}
