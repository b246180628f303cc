#pragma once

#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace pallion::test {

// The receiving end of a datagram socket, at a path or at "@" and an abstract name.
class DatagramReceiver {
 public:
  explicit DatagramReceiver(const std::string& address) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    address.copy(name.sun_path, sizeof name.sun_path - 1);
    if (address[0] == '@') name.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&name), length) != 0) std::abort();
  }
  DatagramReceiver(const DatagramReceiver&) = delete;
  DatagramReceiver& operator=(const DatagramReceiver&) = delete;
  ~DatagramReceiver() { close(socket_); }

  // The next datagram that has arrived, or the content of the file that it carries; none when there
  // is no more. `seals` gets the file's.
  std::optional<std::string> receive(int* seals = nullptr) const {
    std::string text(1 << 20, ' ');
    alignas(cmsghdr) char control[64];
    iovec part{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t length = recvmsg(socket_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0) return std::nullopt;
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
      int file = -1;
      std::memcpy(&file, CMSG_DATA(header), sizeof file);
      if (seals) *seals = fcntl(file, F_GET_SEALS);
      length = pread(file, text.data(), text.size(), 0);
      close(file);
    }
    text.resize(static_cast<size_t>(length));
    return text;
  }

 private:
  int socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

}  // namespace pallion::test
