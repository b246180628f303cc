#pragma once

#include <string>
#include <sys/types.h>

namespace pallion::test {

// Makes `top` a directory with one of everything that a tree can hold: every kind of item, modes
// with set-id and sticky bits, odd owners, ACLs and attributes, capabilities, hard links, holes,
// names that are not UTF-8 or very long, times in nanoseconds. Needs root and a file system with 4
// KiB blocks or none. A failure ends the test program.
void buildTree(const std::string& top);

// What it is made with. Each ends the test program when it fails.
void must(bool succeeded);
void setAttribute(const std::string& path, const char* name, const std::string& value);
// Writes at `offset` of a file, which is made when missing, and with `size` gives it that size.
void writeAt(const std::string& path, const std::string& data, off_t offset = 0, off_t size = 0);
// The kernel's form of an ACL that grants user 1234 and the mask `rwx`, and others what `others`
// says.
std::string accessList(char others);

}  // namespace pallion::test
