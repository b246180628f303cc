#include "programs/migration_host/snapshot_format.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "platform/text_escape.h"

namespace pallion::host {

namespace {

void appendNumberMember(std::string& line, std::string_view key, uint64_t number) {
  line.append(",\"").append(key).append("\":").append(std::to_string(number));
}

bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string lineOf(std::string_view type) {
  return std::string("{\"type\":\"").append(type).append("\"");
}

}  // namespace

bool pathBefore(std::string_view left, std::string_view right) {
  // No name holds a NUL, so that a slash counts as less than any byte of a name.
  const auto rank = [](char byte) {
    return byte == '/' ? 0 : static_cast<int>(static_cast<unsigned char>(byte));
  };
  return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                      [&](char a, char b) { return rank(a) < rank(b); });
}

std::string_view kindName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "link";
    case S_IFIFO:
      return "fifo";
    case S_IFSOCK:
      return "socket";
    case S_IFCHR:
      return "characterDevice";
    case S_IFBLK:
      return "blockDevice";
    default:
      return "unknown";
  }
}

std::string_view kindName(UserDataKind kind) {
  if (kind == UserDataKind::kApp) return "app";
  return kind == UserDataKind::kGroup ? "group" : "harbor";
}

std::string modeText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode & 07777U);
  return text;
}

std::string timeText(const timespec& time) {
  char text[48];
  std::snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(time.tv_sec),
                static_cast<long>(time.tv_nsec));
  return text;
}

std::string deviceText(dev_t device) {
  return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::string hexText(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

std::string hexText(const SHA256Digest::Bytes& digest) {
  return hexText(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()));
}

void appendTextMember(std::string& line, std::string_view key, std::string_view text) {
  line.append(",\"").append(key).append("\":");
  appendJSONString(line, text);
  if (!isUTF8(text)) line.append(",\"").append(key).append("Hex\":\"" + hexText(text) + "\"");
}

std::string snapshotHeader() { return lineOf("snapshot") + ",\"version\":1}\n"; }

std::string problemLine(std::string_view text) {
  std::string line = lineOf("problem");
  appendTextMember(line, "text", text);
  return line + "}\n";
}

std::string notCoveredLine(const NotCovered& notCovered) {
  std::string line = lineOf("notCovered");
  appendTextMember(line, "path", notCovered.path);
  appendTextMember(line, "reason", notCovered.reason);
  appendNumberMember(line, "entries", notCovered.entries);
  return line + "}\n";
}

std::string itemLine(const UserDataItem& item) {
  std::string line = lineOf("item");
  appendTextMember(line, "kind", kindName(item.kind));
  appendTextMember(line, "identifier", item.identifier);
  appendTextMember(line, "name", item.name);
  appendTextMember(line, "path", item.path);
  return line + "}\n";
}

void appendEntryLine(std::string& out, const SnapshotEntry& entry) {
  out += "{\"type\":\"entry\"";
  appendTextMember(out, "path", entry.path);
  out.append(",\"kind\":\"").append(kindName(entry.mode));
  out.append("\",\"mode\":\"").append(modeText(entry.mode)).append("\"");
  if (entry.owner) appendNumberMember(out, "uid", *entry.owner);
  if (entry.group) appendNumberMember(out, "gid", *entry.group);
  out.append(",\"modified\":\"").append(timeText(entry.modified)).append("\"");
  if (S_ISREG(entry.mode)) {
    appendNumberMember(out, "size", entry.size);
    out.append(",\"sha256\":\"").append(hexText(entry.content)).append("\"");
  }
  if (S_ISLNK(entry.mode)) appendTextMember(out, "target", entry.target);
  if (S_ISCHR(entry.mode) || S_ISBLK(entry.mode)) {
    out.append(",\"device\":\"").append(deviceText(entry.represents)).append("\"");
  }
  if (!entry.sameFileAs.empty()) appendTextMember(out, "sameFileAs", entry.sameFileAs);
  if (!entry.attributes.empty()) {
    out += ",\"attributes\":[";
    for (const EntryAttribute& attribute : entry.attributes) {
      if (out.back() != '[') out += ',';
      out.append("{\"sha256\":\"").append(hexText(attribute.value)).append("\"");
      appendTextMember(out, "name", attribute.name);
      out += '}';
    }
    out += ']';
  }
  if (entry.errorNumber != 0) {
    appendNumberMember(out, "error", static_cast<uint64_t>(entry.errorNumber));
  }
  out += "}\n";
}

std::string totalsLine(const SnapshotTotals& totals, const SHA256Digest::Bytes& digest) {
  std::string line = lineOf("totals");
  appendNumberMember(line, "items", totals.items);
  appendNumberMember(line, "entries", totals.entries);
  appendNumberMember(line, "bytes", totals.bytes);
  appendNumberMember(line, "notCovered", totals.notCovered);
  appendNumberMember(line, "problems", totals.problems);
  return line + ",\"sha256\":\"" + hexText(digest) + "\"}\n";
}

LineType lineType(std::string_view line) {
  const auto is = [line](std::string_view type) { return line.starts_with(lineOf(type)); };
  if (is("entry")) return LineType::kEntry;
  if (is("item")) return LineType::kItem;
  if (is("totals")) return LineType::kTotals;
  return is("snapshot") ? LineType::kHeader : LineType::kOther;
}

}  // namespace pallion::host
