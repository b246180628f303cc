#include "platform/journal.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "foundation/signal_retry.h"
#include "foundation/unique_descriptor.h"

namespace pallion {

namespace {

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written =
        retriedAfterSignals([&] { return write(descriptor, text.data(), text.size()); });
    if (written < 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// A file in memory that nobody can change any more; the journal takes no other.
UniqueDescriptor sealedFile(std::string_view content) {
  UniqueDescriptor file(memfd_create("journal-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
  if (file && (!writeAll(file.get(), content) || fcntl(file.get(), F_ADD_SEALS, kSeals) != 0))
    file.reset();
  return file;
}

}  // namespace

std::string journalDatagram(std::span<const JournalField> fields) {
  std::string out;
  for (const auto& [name, value] : fields) {
    out += name;
    if (value.find('\n') == std::string_view::npos) {
      out += '=';
    } else {
      out += '\n';
      for (unsigned shift = 0; shift < 64; shift += 8)
        out += static_cast<char>(uint64_t{value.size()} >> shift & 0xFF);
    }
    out += value;
    out += '\n';
  }
  return out;
}

Journal::Journal(const char* path) { socket_.open(path); }

void Journal::send(std::span<const JournalField> fields) const {
  if (!isOpen()) return;
  const std::string datagram = journalDatagram(fields);
  const int error = socket_.send(datagram, DatagramSocket::Patience::kNone);
  if (error != EMSGSIZE && error != ENOBUFS) return;
  const UniqueDescriptor file = sealedFile(datagram);
  if (file) socket_.sendDescriptor(file.get());
}

}  // namespace pallion
