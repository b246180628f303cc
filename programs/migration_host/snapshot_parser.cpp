#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "programs/migration_host/snapshot_format.h"

namespace pallion::host {

namespace {

using Json = nlohmann::json;

// The members of one object. What is missing or of another type makes the whole line unusable.
class Members {
 public:
  explicit Members(std::string_view line) : own_(Json::parse(line, nullptr, false)) {}
  explicit Members(const Json& object) : given_(&object) {}

  [[nodiscard]] bool ok() const { return ok_; }
  [[nodiscard]] bool has(const char* key) const { return member(key) != nullptr; }

  std::string text(const char* key) {
    const Json* exact = member((std::string(key) + "Hex").c_str());
    if (exact && exact->is_string()) return bytes(exact->get_ref<const std::string&>());
    const Json* found = member(key);
    if (!found || !found->is_string()) return fail<std::string>();
    return found->get<std::string>();
  }

  uint64_t number(const char* key, uint64_t highest = std::numeric_limits<uint64_t>::max()) {
    const Json* found = member(key);
    if (!found || !found->is_number_unsigned()) return fail<uint64_t>();
    const auto number = found->get<uint64_t>();
    return number <= highest ? number : fail<uint64_t>();
  }

  SHA256Digest::Bytes digest(const char* key) {
    const std::string content = bytes(text(key));
    SHA256Digest::Bytes digest{};
    if (content.size() != digest.size()) return fail<SHA256Digest::Bytes>();
    std::copy(content.begin(), content.end(), digest.begin());
    return digest;
  }

  const Json* member(const char* key) const {
    const Json& object = given_ ? *given_ : own_;
    if (!object.is_object()) return nullptr;
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
  }

  template <class T>
  T fail() {
    ok_ = false;
    return T{};
  }

 private:
  std::string bytes(const std::string& hex) {
    std::string result;
    const auto value = [this](char digit) {
      if (digit >= '0' && digit <= '9') return digit - '0';
      return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : fail<int>();
    };
    if (hex.size() % 2 != 0) return fail<std::string>();
    for (size_t i = 0; i < hex.size(); i += 2) {
      result += static_cast<char>(value(hex[i]) * 16 + value(hex[i + 1]));
    }
    return result;
  }

  Json own_;
  const Json* given_ = nullptr;
  bool ok_ = true;
};

mode_t kindOf(const std::string& name) {
  constexpr mode_t kKinds[] = {S_IFREG, S_IFDIR, S_IFLNK, S_IFIFO, S_IFSOCK, S_IFCHR, S_IFBLK};
  for (const mode_t kind : kKinds) {
    if (kindName(kind) == name) return kind;
  }
  return 0;
}

// A number that is the whole text.
template <class Number>
bool parse(std::string_view text, Number& number, int base = 10) {
  const char* const end = text.data() + text.size();
  const auto [last, failed] = std::from_chars(text.data(), end, number, base);
  return failed == std::errc() && last == end;
}

// Two numbers with a character between them.
template <class First, class Second>
bool parse(std::string_view text, char separator, First& first, Second& second) {
  const size_t position = text.find(separator);
  return position != std::string_view::npos && parse(text.substr(0, position), first) &&
         parse(text.substr(position + 1), second);
}

void parseAttributes(Members& members, SnapshotEntry& entry) {
  const Json* list = members.member("attributes");
  if (!list->is_array()) {
    members.fail<bool>();
    return;
  }
  for (const Json& object : *list) {
    Members attribute(object);
    entry.attributes.push_back({attribute.text("name"), attribute.digest("sha256")});
    if (!attribute.ok()) members.fail<bool>();
  }
}

}  // namespace

bool isSupportedHeader(std::string_view line) {
  Members members(line);
  return lineType(line) == LineType::kHeader && members.number("version") == 1 && members.ok();
}

std::optional<UserDataItem> parseItem(std::string_view line) {
  Members members(line);
  UserDataItem item;
  const std::string kind = members.text("kind");
  for (const UserDataKind known :
       {UserDataKind::kApp, UserDataKind::kGroup, UserDataKind::kHarbor}) {
    if (kindName(known) == kind) item.kind = known;
  }
  item.identifier = members.text("identifier");
  item.name = members.text("name");
  item.path = members.text("path");
  if (!members.ok() || kindName(item.kind) != kind) return std::nullopt;
  return item;
}

std::optional<SnapshotEntry> parseEntry(std::string_view line) {
  constexpr uint64_t kHighestID = std::numeric_limits<uid_t>::max();
  Members members(line);
  SnapshotEntry entry;
  entry.path = members.text("path");
  unsigned mode = 0;
  if (!parse(members.text("mode"), mode, 8) || mode > 07777U) return std::nullopt;
  const mode_t kind = kindOf(members.text("kind"));
  if (kind == 0) return std::nullopt;
  entry.mode = kind | mode;
  if (members.has("uid")) entry.owner = static_cast<uid_t>(members.number("uid", kHighestID));
  if (members.has("gid")) entry.group = static_cast<gid_t>(members.number("gid", kHighestID));
  long long seconds = 0;
  long nanoseconds = 0;
  if (!parse(members.text("modified"), '.', seconds, nanoseconds)) return std::nullopt;
  entry.modified = {static_cast<time_t>(seconds), nanoseconds};
  if (S_ISREG(kind)) {
    entry.size = members.number("size");
    entry.content = members.digest("sha256");
  }
  if (S_ISLNK(kind)) entry.target = members.text("target");
  if (S_ISCHR(kind) || S_ISBLK(kind)) {
    unsigned major = 0;
    unsigned minor = 0;
    if (!parse(members.text("device"), ':', major, minor)) return std::nullopt;
    entry.represents = makedev(major, minor);
  }
  if (members.has("sameFileAs")) entry.sameFileAs = members.text("sameFileAs");
  if (members.has("attributes")) parseAttributes(members, entry);
  if (members.has("error")) entry.errorNumber = static_cast<int>(members.number("error", 4095));
  if (!members.ok()) return std::nullopt;
  return entry;
}

std::optional<TotalsLine> parseTotals(std::string_view line) {
  Members members(line);
  TotalsLine result;
  result.totals.items = members.number("items");
  result.totals.entries = members.number("entries");
  result.totals.bytes = members.number("bytes");
  result.totals.notCovered = members.number("notCovered");
  result.totals.problems = members.number("problems");
  result.digest = members.text("sha256");
  if (!members.ok()) return std::nullopt;
  return result;
}

}  // namespace pallion::host
