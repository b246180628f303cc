#include "AppMigrator/plan_identity.h"

#include <array>
#include <cstdint>
#include <fcntl.h>

#include "foundation/format.h"

namespace pallion {

void PlanIdentity::add(const ItemStatus& status) {
  const auto number = [](auto value) { return static_cast<uint64_t>(value); };
  const std::array<uint64_t, 7> numbers = {number(status.inode),
                                           number(status.size),
                                           number(status.mode),
                                           number(status.modified.tv_sec),
                                           number(status.modified.tv_nsec),
                                           number(status.changed.tv_sec),
                                           number(status.changed.tv_nsec)};
  digest_.update(numbers.data(), sizeof numbers);
}

void PlanIdentity::addItem(const std::string& path) {
  ItemStatus status;
  add(path);
  if (readStatus({AT_FDCWD, path.c_str()}, status)) add(status);
}

void PlanIdentity::add(std::string_view text) {
  // The length first: no two sequences of texts look alike.
  const uint64_t length = text.size();
  digest_.update(&length, sizeof length);
  digest_.update(text.data(), text.size());
}

void PlanIdentity::add(const Value& line) {
  std::string text;
  appendDescription(text, line);
  add(text);
}

std::string PlanIdentity::finishText() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : finish()) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace pallion
