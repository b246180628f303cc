#pragma once

#include <span>
#include <string>
#include <string_view>

#include "platform/datagram_socket.h"

// The system's journal, in its native datagram protocol.

namespace pallion {

inline constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

struct JournalField {
  std::string_view name;   // capital letters, digits and "_"
  std::string_view value;  // any bytes
};

// The fields as a datagram: "NAME=value\n", or for a value with a newline "NAME\n", the value's
// length in bytes as 64 bits, least significant byte first, the value and "\n".
std::string journalDatagram(std::span<const JournalField> fields);

// Any thread may send.
class Journal {
 public:
  // Opens the socket at `path`, to be done before the root changes. Without a journal there,
  // entries go nowhere.
  explicit Journal(const char* path);
  [[nodiscard]] bool isOpen() const { return socket_.isOpen(); }
  // Sends one entry. Never waits: an entry that the journal does not take at once is lost. What is
  // too long for a datagram travels as a sealed file in memory.
  void send(std::span<const JournalField> fields) const;

 private:
  DatagramSocket socket_;
};

}  // namespace pallion
