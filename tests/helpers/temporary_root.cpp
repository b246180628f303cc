#include "tests/helpers/temporary_root.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace pallion::test {

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::perror(what.c_str());
  std::abort();
}

}  // namespace

TemporaryRoot::TemporaryRoot() {
  const char* parent = std::getenv("TMPDIR");
  path_ = std::string(parent && *parent == '/' ? parent : "/tmp") + "/pallion-test.XXXXXX";
  if (!mkdtemp(path_.data())) fail(path_);
}

TemporaryRoot::~TemporaryRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryRoot::operator/(std::string_view relative) const {
  return path_ + "/" + std::string(relative);
}

std::string TemporaryRoot::makeDirectory(std::string_view relative) const {
  std::string path = *this / relative;
  std::filesystem::create_directories(path);
  return path;
}

std::string TemporaryRoot::makeFile(std::string_view relative, std::string_view content) const {
  std::string path = *this / relative;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) fail(path);
  return path;
}

std::string TemporaryRoot::makeLink(std::string_view relative, std::string_view target) const {
  std::string path = *this / relative;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  if (symlink(std::string(target).c_str(), path.c_str()) != 0) fail(path);
  return path;
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool isRoot() { return geteuid() == 0; }

}  // namespace pallion::test
