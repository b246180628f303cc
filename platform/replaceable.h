#pragma once

#include <atomic>

namespace pallion {

// What stands behind `current`, `replace` and `system` of a platform interface: the one `System`
// object of the process, and whatever a test has put in its place. Any thread may ask for the
// current one; who replaces sees to it that the replacement outlives every operation that began
// with it.
template <class Interface, class System>
class Replaceable {
 public:
  // Never destroyed: operations may still run while the process exits.
  static Interface& system() {
    static System* const system = new System;
    return *system;
  }

  static Interface& current() {
    Interface* replacement = replacement_.load(std::memory_order_acquire);
    return replacement ? *replacement : system();
  }

  // Null, or the system's own object, ends a replacement. Answers the one in use before, never
  // null.
  static Interface* replace(Interface* replacement) {
    Interface* before = replacement_.exchange(replacement, std::memory_order_acq_rel);
    return before ? before : &system();
  }

 private:
  inline static std::atomic<Interface*> replacement_{nullptr};
};

}  // namespace pallion
