#pragma once

#include <optional>
#include <string>

#include "foundation/value.h"

namespace pallion {

// The options with which the migrator has the registry install a staged bundle, and a placeholder
// with the bytes of the store metadata, where there are any.
Dictionary bundleInstallOptions(const std::string& identifier);
Dictionary placeholderInstallOptions(const std::string& identifier,
                                     std::optional<std::string> metadata);

}  // namespace pallion
