#include "platform/task_queue.h"

#include <utility>

namespace pallion {

TaskQueue::TaskQueue() : thread_([this] { run(); }) {}

TaskQueue::~TaskQueue() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void TaskQueue::submit(std::function<void()> task) {
  {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  changed_.notify_all();
}

void TaskQueue::suspend() {
  const std::lock_guard lock(mutex_);
  ++suspensions_;
}

void TaskQueue::resume() {
  {
    const std::lock_guard lock(mutex_);
    --suspensions_;
  }
  changed_.notify_all();
}

void TaskQueue::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || (suspensions_ <= 0 && !tasks_.empty()); });
    if (tasks_.empty()) return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // what it holds is released outside the lock
    lock.lock();
  }
}

}  // namespace pallion
