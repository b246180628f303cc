#pragma once

#include <string>
#include <string_view>

#include "foundation/value.h"
#include "platform/item_status.h"
#include "platform/sha256.h"

namespace pallion {

// What two plans have in common that say the same of the same tree. For one thread.
class PlanIdentity {
 public:
  // Device numbers and access times are left out: they change while the tree stays the same.
  void add(const ItemStatus& status);
  // A file or directory by its path; what is not there counts as that.
  void addItem(const std::string& path);
  void add(std::string_view text);
  void add(const Value& line);
  void add(const SHA256Digest::Bytes& digest) { digest_.update(digest.data(), digest.size()); }

  SHA256Digest::Bytes finish() { return digest_.finish(); }
  // In hexadecimal. One of the two, once.
  std::string finishText();

 private:
  SHA256Digest digest_;
};

}  // namespace pallion
