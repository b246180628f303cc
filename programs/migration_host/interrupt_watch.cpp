#include "programs/migration_host/interrupt_watch.h"

#include <cstring>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "programs/common/console.h"

namespace pallion::host {

namespace {

bool isIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

InterruptWatch::InterruptWatch(std::function<void(int exitStatus)> lastWords)
    : lastWords_(std::move(lastWords)) {
  sigemptyset(&signals_);
  for (const int signal : {SIGINT, SIGTERM}) {
    // A blocked signal is delivered to sigwait even where it is ignored.
    if (!isIgnored(signal)) sigaddset(&signals_, signal);
  }
  // Wakes the thread when the watch is over.
  sigaddset(&signals_, SIGRTMIN);
  pthread_sigmask(SIG_BLOCK, &signals_, &maskBefore_);
  thread_ = std::thread([this] { wait(); });
}

InterruptWatch::~InterruptWatch() {
  over_ = true;
  pthread_kill(thread_.native_handle(), SIGRTMIN);
  thread_.join();
  pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
}

void InterruptWatch::wait() {
  int signal = SIGRTMIN;
  while (signal == SIGRTMIN) {
    if (sigwait(&signals_, &signal) != 0) return;
    if (over_) return;
  }
  // What follows may wait for a terminal or a pipe that takes nothing; a second signal ends that.
  pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  closeStatus();
  complain(std::string("interrupted by SIG") + sigabbrev_np(signal) +
           "; a later run resumes where this one stopped");
  lastWords_(128 + signal);
  _exit(128 + signal);
}

}  // namespace pallion::host
