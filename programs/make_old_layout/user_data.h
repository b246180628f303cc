#pragma once

#include <cstdint>
#include <string>

#include "programs/make_old_layout/tree_writer.h"

namespace pallion {

// The user's items of one container: Documents, Library, tmp and, in some, Tillbox, with `files`
// files of `fileSize` bytes. What else people's data holds (links, holes, FIFOs, odd names and
// modes, attributes) is spread over the containers by their index; the first container has all of
// it.
void writeUserData(Directory& container, const std::string& identifier, uint64_t index,
                   uint64_t files, uint64_t fileSize);

// A directory kept beside the containers: a few files, a link and an empty directory.
void writeSharedData(Directory& directory, uint64_t fileSize);

}  // namespace pallion
