#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <time.h>
#include <vector>

#include "platform/sha256.h"
#include "programs/migration_host/user_data_sources.h"

// The lines of a snapshot, JSON objects:
//
//   {"type":"snapshot","version":1}                       first
//   {"type":"problem","text"}                             what could not be looked at
//   {"type":"notCovered","path","reason","entries"}
//   {"type":"item","kind","identifier","name","path"}     before its entries
//   {"type":"entry","path","kind","mode","uid","gid","modified", ...}
//   {"type":"totals","items","entries","bytes","notCovered","problems","sha256"}   last
//
// The path of an entry is relative to its item, that of the item itself "". An item's entries are
// sorted by `pathBefore`. The digest of the last line is of all bytes before it. A text that is not
// UTF-8 has its other bytes as "\xHH", and stands exactly in hexadecimal under its key with "Hex".

namespace pallion::host {

struct EntryAttribute {
  std::string name;
  SHA256Digest::Bytes value{};  // its digest
};

// What is kept of one file, directory, link or special file.
struct SnapshotEntry {
  std::string path;
  mode_t mode = 0;             // with the kind
  std::optional<uid_t> owner;  // unknown in a user namespace that has no name for it
  std::optional<gid_t> group;
  timespec modified{};
  uint64_t size = 0;  // regular files
  SHA256Digest::Bytes content{};
  std::string target;                      // links
  dev_t represents = 0;                    // device nodes
  std::string sameFileAs;                  // first path of the item that names the same file
  std::vector<EntryAttribute> attributes;  // sorted by name
  int errorNumber = 0;                     // content, target or attributes could not be read
};

struct SnapshotTotals {
  uint64_t items = 0;
  uint64_t entries = 0;
  uint64_t bytes = 0;
  uint64_t notCovered = 0;  // entries
  uint64_t problems = 0;
};

// A directory comes before what is in it, and that before its next sibling.
bool pathBefore(std::string_view left, std::string_view right);

// "file", "directory", "link", ...
std::string_view kindName(mode_t mode);
std::string_view kindName(UserDataKind kind);
std::string modeText(mode_t mode);  // octal, without the kind
std::string timeText(const timespec& time);
std::string deviceText(dev_t device);
std::string hexText(std::string_view bytes);
std::string hexText(const SHA256Digest::Bytes& digest);

// `,"key":"text"`, and `,"keyHex":"..."` behind it where the text is not UTF-8.
void appendTextMember(std::string& line, std::string_view key, std::string_view text);

// Each makes one line with its line feed.
std::string snapshotHeader();
std::string problemLine(std::string_view text);
std::string notCoveredLine(const NotCovered& notCovered);
std::string itemLine(const UserDataItem& item);
void appendEntryLine(std::string& out, const SnapshotEntry& entry);
std::string totalsLine(const SnapshotTotals& totals, const SHA256Digest::Bytes& digest);

enum class LineType { kHeader, kItem, kEntry, kTotals, kOther };
LineType lineType(std::string_view line);

// Each reads one line; nothing for one that is not as above.
bool isSupportedHeader(std::string_view line);
std::optional<UserDataItem> parseItem(std::string_view line);
std::optional<SnapshotEntry> parseEntry(std::string_view line);
struct TotalsLine {
  SnapshotTotals totals;
  std::string digest;  // hexadecimal
};
std::optional<TotalsLine> parseTotals(std::string_view line);

}  // namespace pallion::host
