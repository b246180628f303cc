#pragma once

#include <string_view>

#include "foundation/unique_descriptor.h"

namespace pallion {

// The sending end of a datagram socket of this machine. Once open it needs no path any more, so it
// goes on working inside another root. Any thread may send.
class DatagramSocket {
 public:
  enum class Patience { kNone, kSeconds };

  // `address`: a path, or "@" and a name in the abstract namespace. False with errno set, when
  // nobody listens there.
  bool open(std::string_view address);
  [[nodiscard]] bool isOpen() const { return static_cast<bool>(socket_); }

  // 0, or the errno of what failed: EAGAIN when the receiver has no room (kSeconds: and had none
  // for five seconds), EMSGSIZE when it takes no datagram as long as that.
  int send(std::string_view datagram, Patience patience) const;
  // An empty datagram that carries the descriptor. Never waits.
  int sendDescriptor(int descriptor) const;

 private:
  UniqueDescriptor socket_;
};

}  // namespace pallion
