#pragma once

#include <string>
#include <string_view>

// Items whose content has been carried elsewhere whole get a name of their own, in one rename,
// before they are removed: a removal that is interrupted then leaves nothing that a later run could
// take for the item.

namespace pallion {

// Begins the names of items set aside; followed by a UUID.
inline constexpr std::string_view kSetAsidePrefix = ".com.orlix.pallion.moved.";

// True for the names that `setAside` gives: the prefix and a UUID, nothing else.
bool isSetAsideName(std::string_view name);

// Renames the item at `path` to a new name of that kind in its directory. 0 and the new path; -1
// with errno set otherwise, and the item is where it was.
int setAside(const char* path, std::string& newPath);

}  // namespace pallion
