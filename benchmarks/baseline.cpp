// bench-baseline WHAT ARGUMENT...: what others' libraries take for the same work, and the files to
// work on. All but the makers print their figures.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <expat.h>
#include <fcntl.h>
#include <filesystem>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "benchmarks/figures.h"

namespace {

namespace files = std::filesystem;
using pallion::bench::timed;

int removeAll(char** arguments) {
  return timed(1, [&] { return files::remove_all(arguments[0]) > 0; });
}

int list(char** arguments) {
  return timed(1, [&] {
    std::vector<files::path> found;
    for (const files::directory_entry& entry : files::directory_iterator(arguments[0])) {
      found.push_back(entry.path());
    }
    return !found.empty();
  });
}

// expat FILE REPETITIONS: a pass over the file, piece by piece, whose callbacks build nothing.
int expatPass(char** arguments) {
  constexpr int kPiece = 64 * 1024;
  return timed(std::atoi(arguments[1]), [&] {
    const int file = open(arguments[0], O_RDONLY | O_CLOEXEC);
    const XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(
        parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
    XML_SetCharacterDataHandler(parser, [](void*, const XML_Char*, int) {});
    bool good = true;
    ssize_t count = kPiece;
    while (good && count > 0) {
      count = read(file, XML_GetBuffer(parser, kPiece), kPiece);
      good = count >= 0 &&
             XML_ParseBuffer(parser, static_cast<int>(count), count == 0) == XML_STATUS_OK;
    }
    XML_ParserFree(parser);
    return close(file) == 0 && good;
  });
}

// read FILE REPETITIONS: the bytes, once.
int readOnce(char** arguments) {
  return timed(std::atoi(arguments[1]), [&] {
    const int file = open(arguments[0], O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) return false;
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    const bool good = read(file, bytes.data(), bytes.size()) == status.st_size;
    return close(file) == 0 && good;
  });
}

// commits DATABASE COUNT: durable commits of one row each.
int commits(char** arguments) {
  sqlite3* database = nullptr;
  const auto run = [&database](const std::string& statement) {
    return sqlite3_exec(database, statement.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  if (sqlite3_open(arguments[0], &database) != SQLITE_OK || !run("PRAGMA journal_mode=WAL") ||
      !run("PRAGMA synchronous=FULL") ||
      !run("CREATE TABLE bundle (identifier TEXT PRIMARY KEY, data TEXT, container TEXT)")) {
    return 1;
  }
  const int count = std::atoi(arguments[1]);
  const int status = timed(1, [&] {
    for (int i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      if (!run("INSERT INTO bundle VALUES ('com.example.application" + number +
               "', '00000000-0000-0000-0000-000000000000', '00000000-0000-0000-0000-000000000000"
               "')")) {
        return false;
      }
    }
    return true;
  });
  sqlite3_close(database);
  return status;
}

bool makeFile(const std::string& path, const std::string& content) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0) return false;
  const bool good = content.empty() || write(file, content.data(), content.size()) ==
                                           static_cast<ssize_t>(content.size());
  return close(file) == 0 && good;
}

// make-tree DIRECTORY DIRECTORIES FILES SIZE: so many files of that size in each.
int makeTree(char** arguments) {
  const std::string top = arguments[0];
  const std::string content(std::strtoul(arguments[3], nullptr, 10), 'x');
  const int count = std::atoi(arguments[2]);
  if (mkdir(top.c_str(), 0755) != 0) return 1;
  for (int d = 0; d < std::atoi(arguments[1]); ++d) {
    const std::string directory = top + "/directory" + std::to_string(d);
    if (mkdir(directory.c_str(), 0755) != 0) return 1;
    for (int f = 0; f < count; ++f) {
      if (!makeFile(directory + "/file" + std::to_string(f), content)) return 1;
    }
  }
  return 0;
}

// make-entries DIRECTORY COUNT: empty files, all in one directory.
int makeEntries(char** arguments) {
  const std::string top = arguments[0];
  if (mkdir(top.c_str(), 0755) != 0) return 1;
  for (int i = 0; i < std::atoi(arguments[1]); ++i) {
    if (!makeFile(top + "/entry" + std::to_string(i), "")) return 1;
  }
  return 0;
}

// make-sparse FILE COUNT DISTANCE: pieces of data of 64 KiB, with holes between and at the end.
int makeSparse(char** arguments) {
  const std::string piece(size_t{64} * 1024, 'x');
  const off_t distance = std::atol(arguments[2]);
  const off_t size = std::atol(arguments[1]) * distance;
  const int file = open(arguments[0], O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0 || ftruncate(file, size) != 0) return 1;
  for (off_t at = 0; at < size; at += distance) {
    if (pwrite(file, piece.data(), piece.size(), at) != static_cast<ssize_t>(piece.size())) {
      return 1;
    }
  }
  return close(file) == 0 ? 0 : 1;
}

struct Work {
  const char* name;
  int arguments;
  int (*run)(char** arguments);
};

constexpr Work kWorks[] = {
    {"remove-all", 1, removeAll},     {"list", 1, list},
    {"expat", 2, expatPass},          {"read", 2, readOnce},
    {"commits", 2, commits},          {"make-tree", 4, makeTree},
    {"make-entries", 2, makeEntries}, {"make-sparse", 3, makeSparse},
};

}  // namespace

int main(int argc, char** argv) {
  for (const Work& work : kWorks) {
    if (argc == 2 + work.arguments && std::strcmp(argv[1], work.name) == 0) {
      return work.run(argv + 2);
    }
  }
  std::fprintf(stderr, "bench-baseline: wrong usage\n");
  return 2;
}
