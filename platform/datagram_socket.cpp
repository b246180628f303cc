#include "platform/datagram_socket.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "foundation/signal_retry.h"

namespace pallion {

bool DatagramSocket::open(std::string_view address) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (address.size() < 2 || (address[0] != '/' && address[0] != '@')) {
    errno = EINVAL;
    return false;
  }
  if (address.size() >= sizeof name.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(name.sun_path, address.data(), address.size());
  // An abstract name begins with a NUL and ends with the address's length, a path with a NUL.
  const bool abstract = address[0] == '@';
  if (abstract) name.sun_path[0] = '\0';
  const size_t length = offsetof(sockaddr_un, sun_path) + address.size() + (abstract ? 0 : 1);
  socket_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket_) return false;
  const timeval seconds{5, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &seconds, sizeof seconds);
  if (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&name),
              static_cast<socklen_t>(length)) == 0) {
    return true;
  }
  socket_.reset();
  return false;
}

int DatagramSocket::send(std::string_view datagram, Patience patience) const {
  if (!socket_) return ENOTCONN;
  const int flags = MSG_NOSIGNAL | (patience == Patience::kNone ? MSG_DONTWAIT : 0);
  const ssize_t sent = retriedAfterSignals(
      [&] { return ::send(socket_.get(), datagram.data(), datagram.size(), flags); });
  return sent < 0 ? errno : 0;
}

int DatagramSocket::sendDescriptor(int descriptor) const {
  if (!socket_) return ENOTCONN;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  const ssize_t sent = retriedAfterSignals(
      [&] { return sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
  return sent < 0 ? errno : 0;
}

}  // namespace pallion
