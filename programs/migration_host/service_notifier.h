#pragma once

#include <mutex>
#include <string>

#include "platform/datagram_socket.h"

namespace pallion::host {

// Tells the service manager, where one started the program with NOTIFY_SOCKET, what the unit is
// about.
//
// "READY=1" comes at the end of a run that left nothing behind, not once the run is under way:
// units that are ordered after this one read what it moves, so they may start only then. A run that
// ends otherwise never was ready, and units that require it don't start. Meanwhile the unit is
// starting, and each change asks for more time: what ends it by the manager's clock is ten minutes
// without any.
//
// Any thread may call.
class ServiceNotifier {
 public:
  // `address`: the value of NOTIFY_SOCKET, or null. To be made before the root changes.
  explicit ServiceNotifier(const char* address);
  [[nodiscard]] bool isOpen() const { return socket_.isOpen(); }

  // A change; `status` is one line for people. Never waits.
  void working(const std::string& status) const;
  // The last words: readiness after status 0, and what the exit status means. They wait for a busy
  // manager a few seconds at most.
  void ended(int exitStatus);

 private:
  DatagramSocket socket_;
  std::once_flag ended_;
};

}  // namespace pallion::host
