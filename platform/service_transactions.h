#pragma once

#include <chrono>

namespace pallion {

// Open transactions mark the process as busy; a host that is asked to end waits for them. Any
// thread may call any function.
class ServiceTransactions {
 public:
  static void beginTransaction();
  // One for each beginTransaction.
  static void endTransaction();

  static int openTransactions();
  // False when some are still open after that time.
  static bool waitUntilIdle(std::chrono::milliseconds timeout);
};

}  // namespace pallion
