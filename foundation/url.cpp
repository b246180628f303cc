#include "foundation/url.h"

#include <climits>
#include <utility>

namespace pallion {

namespace {

bool isUnencodedInPath(unsigned char c) {
  // RFC 3986: pchar = unreserved / sub-delims / ":" / "@", and "/" between segments.
  constexpr std::string_view kPunctuation = "-._~!$&'()*+,;=:@/";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kPunctuation.find(static_cast<char>(c)) != std::string_view::npos;
}

}  // namespace

URL URL::fileURL(std::string_view path) {
  return fileURL(path, path.ends_with('/') ? Kind::kDirectory : Kind::kFile);
}

URL URL::fileURL(std::string_view path, Kind kind) { return make(std::string(path), kind); }

URL URL::make(std::string path, Kind kind) {
  URL url;
  url.representable_ = path.starts_with('/') && path.find('\0') == std::string::npos;
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  url.directory_ = kind == Kind::kDirectory || path == "/";
  url.path_ = std::move(path);
  return url;
}

URL URL::appending(std::string_view relative, Kind kind) const {
  while (relative.starts_with('/')) relative.remove_prefix(1);
  std::string joined;
  joined.reserve(path_.size() + 1 + relative.size());
  joined = path_;
  if (!joined.ends_with('/')) joined += '/';
  joined += relative;
  URL url = make(std::move(joined), kind);
  url.representable_ = url.representable_ && representable_;
  return url;
}

URL URL::appendingPathExtension(std::string_view extension) const {
  std::string extended = path_;
  extended.append(".").append(extension);
  URL url = fileURL(extended, directory_ ? Kind::kDirectory : Kind::kFile);
  url.representable_ = url.representable_ && representable_;
  return url;
}

URL URL::deletingLastPathComponent() const {
  const size_t slash = path_.rfind('/');
  if (slash == std::string::npos) return *this;
  URL url = fileURL(std::string_view(path_).substr(0, slash + 1), Kind::kDirectory);
  url.representable_ = representable_;
  return url;
}

std::string URL::path() const {
  if (!directory_ || path_.ends_with('/')) return path_;
  return path_ + '/';
}

std::string URL::lastPathComponent() const {
  if (path_ == "/") return path_;
  const size_t slash = path_.rfind('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string URL::pathExtension() const {
  const std::string name = lastPathComponent();
  const size_t dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? std::string() : name.substr(dot + 1);
}

std::string URL::absoluteString() const {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string out = "file://";
  for (const char c : path()) {
    const auto byte = static_cast<unsigned char>(c);
    if (isUnencodedInPath(byte)) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

bool isPlainName(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX) return false;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '/') return false;
  }
  return true;
}

void appendDescription(std::string& out, const URL& url) { out += url.absoluteString(); }

}  // namespace pallion
