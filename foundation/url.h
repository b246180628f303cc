#pragma once

#include <string>
#include <string_view>

namespace pallion {

// A location: an absolute path and a flag that says whether it names a directory. Immutable value;
// any thread may use its own copy. Paths are bytes, never decoded or normalised; only slashes at
// the end are folded into the flag.
//
// A text that is no absolute path, or that holds a NUL, names nothing: it prints as it stands, but
// its file-system representation is empty, so that every system call answers ENOENT instead of
// acting on another item.
class URL {
 public:
  enum class Kind { kFile, kDirectory };

  // The root directory.
  URL() : path_("/"), directory_(true) {}

  // A path; a directory exactly when it ends in "/".
  static URL fileURL(std::string_view path);
  static URL fileURL(std::string_view path, Kind kind);

  // The location of `relative` (one or more components separated by "/") below this one.
  [[nodiscard]] URL appending(std::string_view relative, Kind kind) const;
  // The same location with "." and `extension` added to its last component.
  [[nodiscard]] URL appendingPathExtension(std::string_view extension) const;
  // The directory that holds this item; of the root, the root.
  [[nodiscard]] URL deletingLastPathComponent() const;

  // Ends in "/" exactly when the location is a directory.
  [[nodiscard]] std::string path() const;
  // Bytes for system calls, NUL-terminated; never ends in "/" (but for the root itself): with a
  // slash at the end the kernel would follow a symbolic link there. Lives as long as this object is
  // unchanged.
  [[nodiscard]] const char* fileSystemRepresentation() const {
    return representable_ ? path_.c_str() : "";
  }
  // Name of the item, without a slash; of the root "/".
  [[nodiscard]] std::string lastPathComponent() const;
  // What follows the last "." of the name; empty without one, and for a name that only begins with
  // its ".".
  [[nodiscard]] std::string pathExtension() const;
  // "file://" and the path, percent-encoded (RFC 3986, section 2.1).
  [[nodiscard]] std::string absoluteString() const;
  [[nodiscard]] bool isDirectory() const { return directory_; }

  friend bool operator==(const URL&, const URL&) = default;

 private:
  static URL make(std::string path, Kind kind);

  std::string path_;  // without a slash at the end, but for the root
  bool directory_ = false;
  bool representable_ = true;
};

// True for a name that can be joined to a path and stays directly below it: not empty, not "." or
// "..", without "/" and control characters, and at most 255 bytes (NAME_MAX) long.
bool isPlainName(std::string_view name);

// What "%@" prints of a location: its file URL.
void appendDescription(std::string& out, const URL& url);

}  // namespace pallion
