#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace pallion::test {

// A program that stops before each of its system calls that touch the file system, from the moment
// when it changes its root on, until it has been decided what becomes of the call. Made with the
// kernel's user notification of call filters, which costs two context switches for each such call.
class GatedProcess {
 public:
  struct Call {
    long number = 0;  // SYS_...
    std::array<uint64_t, 6> arguments{};
    pid_t process = 0;
    const char* name = "";
    bool changes = false;  // whether the call can change anything that outlives the process

    // What the argument of that index points to, up to a NUL.
    [[nodiscard]] std::string path(size_t index) const;
    // The path of the descriptor in the argument of that index.
    [[nodiscard]] std::string descriptorPath(size_t index) const;
  };

  // 0: the call is made. A positive errno: it answers that instead. kKill: the process is killed
  // before it is made.
  using Gate = std::function<int(const Call& call)>;
  static constexpr int kKill = -1;

  struct Outcome {
    int status = 0;  // exit status, or the negative number of the signal that killed it
    bool hung = false;
    unsigned calls = 0;        // seen by the gate
    unsigned changes = 0;      // those of them that change something
    unsigned descriptors = 0;  // open when the process asked to end
    std::string out;           // standard output and standard error
  };

  // Runs the program of `arguments[0]`. `logFile`: what the process writes there is neither counted
  // nor gated; empty for none. A process that does not end within `seconds` is killed.
  static Outcome run(const std::vector<std::string>& arguments, const Gate& gate,
                     const std::string& logFile = "", int seconds = 60);

  // False where the kernel or the machine lacks what is needed.
  static bool isPossible();
};

}  // namespace pallion::test
