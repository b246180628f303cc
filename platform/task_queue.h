#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace pallion {

// Runs tasks one after the other on a thread of its own. Any thread may call any operation; a task
// must not throw.
class TaskQueue {
 public:
  TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;
  // Runs what is still queued, also when suspended, and waits for it. Not from a task of the queue.
  ~TaskQueue();

  // Queues a task and returns at once.
  void submit(std::function<void()> task);
  // Keeps the queue from beginning further tasks, until as many calls of resume.
  void suspend();
  void resume();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  int suspensions_ = 0;
  bool ending_ = false;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace pallion
