#include "fuzz/fuzz_target.h"
#include "fuzz/property_list_check.h"

// The input without its magic.
void pallion::fuzz::runInput(std::string_view input) {
  checkPropertyList("bplist00" + std::string(input), PropertyListFormat::kBinary);
}
