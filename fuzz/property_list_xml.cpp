#include "fuzz/fuzz_target.h"
#include "fuzz/property_list_check.h"

void pallion::fuzz::runInput(std::string_view input) {
  if (!input.starts_with("bplist00")) checkPropertyList(input, PropertyListFormat::kXML);
}
