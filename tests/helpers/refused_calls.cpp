#include "tests/helpers/refused_calls.h"

#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <vector>

namespace pallion::test {

bool refuseCalls(std::initializer_list<long> numbers, int error, const CallsWith& which) {
  std::vector<sock_filter> program;
  const auto load = [&program](size_t offset) {
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset)));
  };
  const uint32_t refusal = SECCOMP_RET_ERRNO | static_cast<uint32_t>(error);
  for (const long number : numbers) {
    const uint8_t rest = which.flags == 0 ? 1 : 3;
    load(offsetof(seccomp_data, nr));
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, rest));
    if (which.flags != 0) {
      load(offsetof(seccomp_data, args) + sizeof(uint64_t) * which.argument);
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, which.flags, 0, 1));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, refusal));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace pallion::test
