#include "tests/helpers/tree_of_everything.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace pallion::test {

void must(bool succeeded) {
  if (!succeeded) std::perror("building the tree"), std::abort();
}

void writeAt(const std::string& path, const std::string& data, off_t offset, off_t size) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  must(file >= 0 && pwrite(file, data.data(), data.size(), offset) >= 0);
  must(size == 0 || ftruncate(file, size) == 0);
  close(file);
}

void setAttribute(const std::string& path, const char* name, const std::string& value) {
  must(lsetxattr(path.c_str(), name, value.data(), value.size(), 0) == 0);
}

// Version 2, then tag, permissions and id of each entry.
std::string accessList(char others) {
  const auto entry = [](int tag, int permissions, int id) {
    std::string text{static_cast<char>(tag), 0, static_cast<char>(permissions), 0};
    for (int shift = 0; shift < 32; shift += 8) text += static_cast<char>(id >> shift);
    return text;
  };
  return std::string("\2\0\0\0", 4) + entry(1, 6, -1) + entry(2, 7, 1234) + entry(4, 4, -1) +
         entry(16, 7, -1) + entry(32, others, -1);
}

void buildTree(const std::string& top) {
  must(mkdir(top.c_str(), 0755) == 0);
  const auto at = [&](const std::string& name) { return top + "/" + name; };
  for (const char* name : {"a", "a/b", "z", "empty", "sticky", "shut", "listed", "\xff\xfe"})
    must(mkdir(at(name).c_str(), 0755) == 0);
  for (const std::string name :
       {"plain", "private", "program", "capable", "a/linked", "shut/inside", "\xff\xfe/\x80\n"})
    writeAt(at(name), "content of " + name);
  writeAt(at(std::string(255, 'n')), "long");
  writeAt(at("nothing"), "");
  writeAt(at("at the limit"), std::string(65536, 'l'));
  writeAt(at("large"), std::string(700001, 'L'));
  writeAt(at("hole before"), "data", 1 << 20);
  writeAt(at("holes around"), "data", 1 << 20, 3 << 20);
  writeAt(at("only hole"), "", 0, 1 << 20);
  must(link(at("a/linked").c_str(), at("a/b/linked").c_str()) == 0);
  must(link(at("a/linked").c_str(), at("z/linked").c_str()) == 0);
  must(symlink("/nowhere/at/all", at("dangling").c_str()) == 0);
  must(symlink("a/b", at("to directory").c_str()) == 0);
  must(link(at("dangling").c_str(), at("z/dangling too").c_str()) == 0);
  must(mkfifo(at("fifo").c_str(), 0622) == 0);
  must(mknod(at("socket").c_str(), S_IFSOCK | 0755, 0) == 0);
  must(mknod(at("character").c_str(), S_IFCHR | 0640, makedev(1, 3)) == 0);
  must(mknod(at("block").c_str(), S_IFBLK | 0660, makedev(259, 70000)) == 0);

  for (const char* name : {"plain", "a", "empty"}) {
    setAttribute(at(name), "user.small", "value");
    setAttribute(at(name), "user.empty", "");
    setAttribute(at(name), "user.binary", std::string("\0\xff", 2) + std::string(2000, 'x'));
    setAttribute(at(name), "trusted.mark", "t");
  }
  for (const char* name : {"dangling", "fifo", "socket", "character", "block"}) {
    setAttribute(at(name), "trusted.special", name);
    setAttribute(at(name), "security.special", name);
  }
  for (const char* name : {"plain", "a", "program", "fifo", "private", "capable"}) {
    must(lchown(at(name).c_str(), 501, 20) == 0);
  }
  must(lchown(at("dangling").c_str(), 123456, 0) == 0 && lchown(at("socket").c_str(), 0, 7) == 0);
  must(chmod(at("program").c_str(), 06755) == 0 && chmod(at("a").c_str(), 02750) == 0);
  must(chmod(at("sticky").c_str(), 01777) == 0 && chmod(at("shut").c_str(), 0) == 0);
  must(chmod(at("listed").c_str(), 0500) == 0 && chmod(at("private").c_str(), 0600) == 0);
  must(chmod(at("fifo").c_str(), 0622) == 0);
  setAttribute(at("capable"), "security.capability",
               std::string("\0\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20));
  setAttribute(at("a"), "system.posix_acl_default", accessList(0));
  setAttribute(at("plain"), "system.posix_acl_access", accessList(4));
  setAttribute(at("sticky"), "system.posix_acl_access", accessList(7));

  // Reading a link notes an access unless the last one is later than the last change.
  const timespec later{time(nullptr) + 1000, 987654321};
  long step = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
    const std::array<timespec, 2> times{later, timespec{1000000000 + ++step, 123456789}};
    must(utimensat(AT_FDCWD, entry.path().c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0);
  }
  const std::array<timespec, 2> times{timespec{86400, 1}, timespec{-5, 999999999}};
  must(utimensat(AT_FDCWD, top.c_str(), times.data(), 0) == 0);
}

}  // namespace pallion::test
