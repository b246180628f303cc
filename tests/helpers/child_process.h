#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "foundation/unique_descriptor.h"

namespace pallion::test {

struct ProcessOutcome {
  int status = 0;  // exit status; the negative number of the signal that killed it
  std::string out;
  std::string err;
};

// Runs `body` in a forked child: whatever it changes of its process stays there. Assertions inside
// report as usual; false when any failed or when the child died: EXPECT_TRUE(runInChild(...)).
[[nodiscard]] bool runInChild(const std::function<void()>& body);

// A program under test, run as a process of its own.
class ChildProcess {
 public:
  enum class Output { kCaptured, kBrokenPipe, kClosed };
  struct Setup {
    std::vector<std::string> arguments;      // the program's path first
    std::vector<std::string> environment{};  // "NAME=value", added to ours
    Output output = Output::kCaptured;       // what standard output is
    unsigned short terminalColumns = 0;  // other than 0: standard error is a terminal of that width
    int third = -1;  // an open descriptor that becomes the program's descriptor 3; -1 for none
    std::optional<uid_t> user{};            // runs as that user and group, without privileges
    int ignoredSignal = 0;                  // 0 for none
    std::function<void()> beforeProgram{};  // called in the child, last before it is replaced
  };

  explicit ChildProcess(const Setup& setup);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Kills it if it still runs.
  ~ChildProcess();

  [[nodiscard]] pid_t id() const { return process_; }
  void signal(int number) const;
  // Gives the terminal another width.
  void resizeTerminal(unsigned short columns) const;
  // Waits for the end. To be called once.
  ProcessOutcome wait();

 private:
  pid_t process_ = -1;
  UniqueDescriptor output_;
  UniqueDescriptor errors_;
  bool errorsAreTerminal_ = false;
};

inline ProcessOutcome runProcess(const ChildProcess::Setup& setup) {
  return ChildProcess(setup).wait();
}

}  // namespace pallion::test
