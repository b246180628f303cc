#include "programs/make_old_layout/user_data.h"

#include <cstdio>

#include "foundation/value.h"
#include "programs/make_old_layout/bundles.h"

namespace pallion {

namespace {

std::string fileName(uint64_t number) {
  static constexpr const char* kStems[] = {"note",  "draft",   "Einkäufe", "photo", "résumé",
                                           "track", "receipt", "日記",     "map",   "message"};
  static constexpr const char* kExtensions[] = {"txt", "dat", "json", "m4a"};
  char digits[24];
  std::snprintf(digits, sizeof digits, "-%04llu.", static_cast<unsigned long long>(number));
  return std::string(kStems[number % std::size(kStems)]) + digits +
         kExtensions[number / 3 % std::size(kExtensions)];
}

void writeDeepDirectories(Directory& directory, int levels) {
  if (levels == 0) return directory.file("bottom.txt", "deep down\n");
  Directory below = directory.directory("level " + std::to_string(levels));
  writeDeepDirectories(below, levels - 1);
}

// `first` is the name of an ordinary file in Documents.
void writeUnusualItems(Directory& documents, const std::string& first, uint64_t index) {
  constexpr uint64_t kKinds = 8;
  const auto has = [index](uint64_t kind) { return index == 0 || index % kKinds == kind; };
  if (has(0)) {
    documents.symbolicLink("latest", first);
    documents.symbolicLink("gone", "/nowhere/at all");
    documents.symbolicLink("up", "..");
  }
  if (has(1)) documents.hardLink("second name of the first", first);
  if (has(2)) documents.directory("Empty", 0700);
  if (has(3)) documents.sparseFile("disk.image", uint64_t{8} << 20);
  if (has(4)) documents.fifo("control");
  if (has(5)) {
    documents.file("caf\xE9.txt", "a name in Latin 1\n");
    documents.file("two\nlines", "a name with a line feed\n");
    documents.file(std::string(255, 'n'), "a name of the greatest length\n");
    documents.file(".hidden", "");
  }
  if (has(6)) {
    documents.file("private.key", "for the owner alone\n", 0600);
    documents.file("locked.txt", "read only\n", 0444);
    documents.file("tool", "#!/bin/sh\n", 04755);
    documents.file("tagged.txt", "with attributes\n");
    documents.attribute("tagged.txt", "user.com.example.tag", "red");
    documents.attribute("tagged.txt", "user.com.example.bytes", {"\0\xFF\0", 3});
  }
  if (has(7)) writeDeepDirectories(documents, 12);
}

}  // namespace

void writeUserData(Directory& container, const std::string& identifier, uint64_t index,
                   uint64_t files, uint64_t fileSize) {
  Directory documents = container.directory("Documents");
  Directory library = container.directory("Library");
  Directory preferences = library.directory("Preferences");
  Directory caches = library.directory("Caches");
  const bool hasTillbox = index % 4 == 0;
  Directory temporary = container.directory("tmp");
  if (files == 0) return;
  {
    Directory projects = documents.directory("Projects");
    for (uint64_t number = 0; number < files; ++number) {
      // Seven in ten in Documents, the others in the places for what can be made again.
      const uint64_t place = number % 10;
      Directory& directory = place < 4   ? documents
                             : place < 7 ? projects
                             : place < 9 ? caches
                                         : temporary;
      directory.randomFile(fileName(number), fileSize);
    }
  }
  writeList(preferences, identifier + ".plist",
            {{"launches", Value::unsignedInteger(index)}, {"welcome", Value::boolean(true)}},
            ListFormat::kBinary);
  writeUnusualItems(documents, fileName(0), index);
  if (hasTillbox) container.directory("Tillbox").randomFile("inbox.db", fileSize);
}

void writeSharedData(Directory& directory, uint64_t fileSize) {
  directory.randomFile("shared.db", fileSize);
  directory.symbolicLink("current", "shared.db");
  Directory library = directory.directory("Library");
  library.randomFile("history.dat", fileSize);
  library.directory("Caches");
}

}  // namespace pallion
