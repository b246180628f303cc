#include "tests/helpers/gated_process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <span>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "tests/helpers/child_process.h"

namespace pallion::test {

namespace {

struct KnownCall {
  long number;
  const char* name;
};

#define CALL(name) \
  { SYS_##name, #name }
constexpr KnownCall kChanging[] = {
    CALL(mkdir),     CALL(mkdirat),         CALL(mknod),        CALL(mknodat),
    CALL(symlink),   CALL(symlinkat),       CALL(link),         CALL(linkat),
    CALL(rename),    CALL(renameat),        CALL(renameat2),    CALL(unlink),
    CALL(unlinkat),  CALL(rmdir),           CALL(write),        CALL(writev),
    CALL(pwrite64),  CALL(ftruncate),       CALL(fallocate),    CALL(copy_file_range),
    CALL(sendfile),  CALL(ioctl),           CALL(fsync),        CALL(fdatasync),
    CALL(syncfs),    CALL(sync_file_range), CALL(chmod),        CALL(fchmod),
    CALL(fchmodat),  CALL(chown),           CALL(lchown),       CALL(fchown),
    CALL(fchownat),  CALL(utimensat),       CALL(setxattr),     CALL(lsetxattr),
    CALL(fsetxattr), CALL(removexattr),     CALL(lremovexattr), CALL(fremovexattr)};
constexpr KnownCall kReading[] = {
    CALL(open),       CALL(openat),    CALL(read),       CALL(pread64),   CALL(newfstatat),
    CALL(fstat),      CALL(stat),      CALL(lstat),      CALL(statx),     CALL(fstatfs),
    CALL(getdents64), CALL(readlink),  CALL(readlinkat), CALL(access),    CALL(faccessat),
    CALL(getxattr),   CALL(lgetxattr), CALL(fgetxattr),  CALL(listxattr), CALL(llistxattr),
    CALL(flistxattr), CALL(lseek),     CALL(flock)};
#undef CALL

// Null for a call that is none of these.
const KnownCall* findCall(std::span<const KnownCall> calls, long number) {
  const auto found = std::find_if(calls.begin(), calls.end(), [number](const KnownCall& call) {
    return call.number == number;
  });
  return found == calls.end() ? nullptr : &*found;
}

bool createsOrEmpties(const seccomp_data& data) {
  if (data.nr != SYS_open && data.nr != SYS_openat) return false;
  return (data.args[data.nr == SYS_open ? 1 : 2] & (O_CREAT | O_TRUNC)) != 0;
}

// The child's side. Only calls of the list, chroot and exit_group come to the gate; writes to the
// standard descriptors do not, since the parent reads them only at the end.
int installFilter() {
  std::vector<sock_filter> program{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 3, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  const auto notify = [&program](long number) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  };
  for (const KnownCall& call : kChanging) notify(call.number);
  for (const KnownCall& call : kReading) notify(call.number);
  notify(SYS_chroot);
  notify(SYS_exit_group);
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
  return static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

// The descriptor whose number the child announces; it stays open there until the answer.
UniqueDescriptor takeAnnounced(int channel, pid_t process) {
  int number = -1;
  if (recv(channel, &number, sizeof number, 0) != sizeof number) return {};
  const UniqueDescriptor child(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  UniqueDescriptor taken(static_cast<int>(syscall(SYS_pidfd_getfd, child.get(), number, 0)));
  if (send(channel, &number, sizeof number, 0) != sizeof number) taken.reset();
  return taken;
}

// Calls of the channel are none that come to the gate.
void announceFilter(int channel) {
  int listener = installFilter();
  if (listener < 0 || send(channel, &listener, sizeof listener, 0) != sizeof listener ||
      recv(channel, &listener, sizeof listener, 0) != sizeof listener)
    _exit(126);
}

std::string linkOf(const std::string& path) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return target;
}

std::string descriptorLink(pid_t process, uint64_t descriptor) {
  return linkOf("/proc/" + std::to_string(process) + "/fd/" +
                std::to_string(static_cast<int>(descriptor)));
}

unsigned openDescriptors(pid_t process) {
  unsigned count = 0;
  DIR* directory = opendir(("/proc/" + std::to_string(process) + "/fd").c_str());
  if (!directory) return 0;
  while (const dirent* entry = readdir(directory)) count += entry->d_name[0] != '.';
  closedir(directory);
  return count;
}

// The parent's side of one run.
class Supervisor {
 public:
  Supervisor(const ChildProcess& child, int listener, const GatedProcess::Gate& gate,
             const std::string& logFile)
      : child_(child), listener_(listener), gate_(gate), logFile_(logFile) {}

  void attend(int seconds, GatedProcess::Outcome& outcome) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
      pollfd waiting{listener_, POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      const int ready = left.count() <= 0 ? 0 : poll(&waiting, 1, static_cast<int>(left.count()));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) {
        outcome.hung = true;
        child_.signal(SIGKILL);
        return;
      }
      if ((waiting.revents & POLLIN) == 0) return;  // nobody uses the filter any more
      answer(outcome);
    }
  }

 private:
  void answer(GatedProcess::Outcome& outcome) {
    seccomp_notif notification{};
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &notification) != 0) return;
    const int decision = decide(notification.data, outcome);
    if (decision == GatedProcess::kKill) {
      child_.signal(SIGKILL);
      return;
    }
    seccomp_notif_resp response{};
    response.id = notification.id;
    if (decision == 0) {
      response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    } else {
      response.error = -decision;
    }
    ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
  }

  int decide(const seccomp_data& data, GatedProcess::Outcome& outcome) {
    if (data.nr == SYS_exit_group) {
      outcome.descriptors = openDescriptors(child_.id());
      return 0;
    }
    if (data.nr == SYS_chroot) {
      // A build with coverage leaves its root at the end, and then writes its counts.
      begun_ = !begun_;
      if (begun_) findLog();
      return 0;
    }
    const KnownCall* changing = findCall(kChanging, data.nr);
    const KnownCall* known = changing ? changing : findCall(kReading, data.nr);
    if (!begun_ || !known || (data.nr == SYS_write && static_cast<int>(data.args[0]) == log_)) {
      return 0;
    }
    GatedProcess::Call call{
        data.nr, {}, child_.id(), known->name, changing || createsOrEmpties(data)};
    for (size_t i = 0; i < call.arguments.size(); ++i) call.arguments[i] = data.args[i];
    ++outcome.calls;
    if (call.changes) ++outcome.changes;
    return gate_(call);
  }

  void findLog() {
    for (int descriptor = 3; !logFile_.empty() && descriptor < 32; ++descriptor) {
      if (descriptorLink(child_.id(), static_cast<uint64_t>(descriptor)) == logFile_)
        log_ = descriptor;
    }
  }

  const ChildProcess& child_;
  const int listener_;
  const GatedProcess::Gate& gate_;
  const std::string& logFile_;
  bool begun_ = false;
  int log_ = -1;
};

}  // namespace

std::string GatedProcess::Call::path(size_t index) const {
  std::string text(PATH_MAX, '\0');
  iovec here{text.data(), text.size()};
  iovec there{reinterpret_cast<void*>(arguments[index]), text.size()};
  const ssize_t length = process_vm_readv(process, &here, 1, &there, 1, 0);
  if (length <= 0) {
    // The string stands near the end of a mapping.
    there.iov_len = here.iov_len = 4096 - arguments[index] % 4096;
    if (process_vm_readv(process, &here, 1, &there, 1, 0) <= 0) return "";
  }
  return text.c_str();
}

std::string GatedProcess::Call::descriptorPath(size_t index) const {
  if (static_cast<int>(arguments[index]) == AT_FDCWD)
    return linkOf("/proc/" + std::to_string(process) + "/cwd");
  return descriptorLink(process, arguments[index]);
}

GatedProcess::Outcome GatedProcess::run(const std::vector<std::string>& arguments, const Gate& gate,
                                        const std::string& logFile, int seconds) {
  Outcome outcome;
  outcome.status = 126;  // until it has been run
  int channel[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) return outcome;
  const UniqueDescriptor ours(channel[0]);
  UniqueDescriptor theirs(channel[1]);
  ChildProcess child({.arguments = arguments,
                      // The leak check needs /proc, which the root has not.
                      .environment = {"ASAN_OPTIONS=detect_leaks=0"},
                      .beforeProgram = [&theirs] { announceFilter(theirs.get()); }});
  theirs.reset();
  if (const UniqueDescriptor listener = takeAnnounced(ours.get(), child.id()))
    Supervisor(child, listener.get(), gate, logFile).attend(seconds, outcome);
  const ProcessOutcome ended = child.wait();
  outcome.status = ended.status;
  outcome.out = ended.out + ended.err;
  return outcome;
}

bool GatedProcess::isPossible() {
  static const bool answer = [] {
    const Outcome outcome = run(
        {"/bin/true"}, [](const Call&) { return 0; }, "", 10);
    return outcome.status == 0 && !outcome.hung && outcome.descriptors > 0;
  }();
  return answer;
}

}  // namespace pallion::test
