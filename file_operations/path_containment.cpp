#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <span>
#include <unistd.h>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "file_operations/path_strings.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

// Longest link text and real path, with the NUL. What is longer is refused, never cut.
constexpr size_t kPathBufferSize = 1024;

// The text of a link; -1 with errno set, ENAMETOOLONG for one that fills the buffer and may go on.
ssize_t readLink(const char* path, std::span<char, kPathBufferSize> buffer) {
  const ssize_t length = readlink(path, buffer.data(), buffer.size());
  if (length < static_cast<ssize_t>(buffer.size())) return length;
  errno = ENAMETOOLONG;
  return -1;
}

// The data volume is reached both below /var and below /private/var.
URL withoutPrivate(const URL& url) {
  constexpr std::string_view kPrivate = "/private";
  const std::string path = url.path();
  const bool below = path.starts_with("/private/") && path != "/private/";
  return below ? URL::fileURL(std::string_view(path).substr(kPrivate.size())) : url;
}

std::string join(std::span<const std::string> components) {
  std::string path;
  for (const std::string& component : components) {
    if (!path.empty() && !path.ends_with('/')) path += '/';
    path += component;
  }
  return path;
}

// The target of a link relative to the base: where the link stands below the base, and its text.
std::string targetBelowBase(const std::string& path, size_t baseLength, std::string_view text) {
  std::string target = path.substr(baseLength);
  if (target.ends_with('/')) target.pop_back();  // the location may be marked as a directory
  const size_t slash = target.rfind('/');
  target.resize(slash == std::string::npos ? 0 : slash + 1);
  return target += text;
}

// The components of a real path that are compared: those below the root, or below a leading
// "private".
struct Compared {
  std::vector<std::string> components;
  size_t first;
  explicit Compared(const URL& url) : components(PallionAdditions::pathComponents(url.path())) {
    first = components.size() >= 2 && components[1] == "private" ? 2 : 1;
  }
  [[nodiscard]] size_t count() const {
    return components.size() > first ? components.size() - first : 0;
  }
};

constexpr char kContainment[] = "-[PLFileManager realPathForURL:ifChildOfURL:]";

}  // namespace

bool PLFileManager::_validateSymlink(const std::string* path, int startingDepth,
                                     int* endingDepth) const {
  if (!path) return false;
  int depth = startingDepth;
  for (const std::string& component : PallionAdditions::pathComponents(*path)) {
    if (component == "..") {
      --depth;
    } else if (component != "." && component != "/") {
      ++depth;
    }
    if (depth < startingDepth) return false;
  }
  if (endingDepth) *endingDepth = depth;
  return true;
}

std::optional<URL> PLFileManager::realPathForURL(const URL* suspicious, const URL* base) const {
  if (!suspicious || !base) {
    const auto copy = [](const URL* url) { return url ? std::optional(*url) : std::nullopt; };
    LogWrite(kLogError, kContainment, "The base path %@ and/or suspicious path %@ were nil",
             copy(base), copy(suspicious));
    return std::nullopt;
  }
  const URL b = withoutPrivate(*base);
  const URL s = withoutPrivate(*suspicious);
  const std::string basePath = b.path();
  const std::string path = s.path();
  if (!path.starts_with(basePath)) {
    LogWrite(kLogError, kContainment,
             "supiscious path %@ does not contain base path %@ as a prefix", path, basePath);
    return std::nullopt;
  }
  if (PallionAdditions::containsDotDotPathComponents(path)) {
    LogWrite(kLogError, kContainment,
             "The suspicious path %@ contains '..' paths, which are invalid", path);
    return std::nullopt;
  }

  char text[kPathBufferSize] = {};
  const ssize_t length = readLink(s.fileSystemRepresentation(), text);
  if (length < 0 && errno != EINVAL && errno != ENOENT) {
    LogWrite(kLogError, kContainment, "Readlink failed: %s", std::strerror(errno));
    return std::nullopt;
  }
  const bool isLink = length >= 0;
  if (isLink) {
    if (text[0] == '/') {
      LogWrite(kLogError, kContainment, "Rejecting %@ -> %s, as absolute symlinks are not allowed",
               path, text);
      return std::nullopt;
    }
    int baseDepth = 0;
    if (!_validateSymlink(&basePath, 0, &baseDepth)) {
      LogWrite(kLogError, kContainment, "Failed to retrieve depth of %@", basePath);
      return std::nullopt;
    }
    const std::string target =
        targetBelowBase(path, basePath.size(), std::string_view(text, static_cast<size_t>(length)));
    if (!_validateSymlink(&target, baseDepth, nullptr)) {
      LogWrite(kLogError, kContainment,
               "Rejecting %@ -> %@, as it is points outside or to the base %@", path, target,
               basePath);
      return std::nullopt;
    }
  }

  const std::optional<URL> realBase = _realPathForURL(b, false);
  if (!realBase) {
    LogWrite(kLogError, kContainment, "Failed to retrieve realpath for base path %@ ", basePath);
    return std::nullopt;
  }
  std::optional<URL> real = _realPathForURL(s, true);
  if (!real) {
    LogWrite(kLogError, kContainment, "Failed to retrieve realpath for suspicious path %@", path);
    return std::nullopt;
  }
  if (isLink) return real;

  const Compared rb(*realBase);
  const Compared rs(*real);
  if (rb.components.size() < 2 || rs.components.size() < 2) {
    LogWrite(
        kLogError, kContainment,
        "Rejecting %@ with base %@ because real component counts don't make sense (reals %@ ; %@)",
        path, basePath, real->path(), realBase->path());
    return std::nullopt;
  }
  if (rb.count() > rs.count()) {
    LogWrite(kLogError, kContainment,
             "Rejecting %@ with base %@ because base component count is greater than child "
             "component count "
             "(reals %@ ; %@)",
             path, basePath, real->path(), realBase->path());
    return std::nullopt;
  }
  for (size_t i = 0; i < rb.count(); ++i) {
    const std::string& baseComponent = rb.components[rb.first + i];
    const std::string& component = rs.components[rs.first + i];
    if (baseComponent != component) {
      LogWrite(kLogError, kContainment,
               "Rejecting %@ with base %@ (reals %@ ; %@) because components diverge at %@ != %@",
               path, basePath, real->path(), realBase->path(), baseComponent, component);
      return std::nullopt;
    }
  }
  return real;
}

std::optional<URL> PLFileManager::_realPathForURL(const URL& url,
                                                  bool allowNonExistentPathComponents) const {
  constexpr char kFunction[] = "-[PLFileManager _realPathForURL:allowNonExistentPathComponents:]";
  char buffer[PATH_MAX] = {};  // realpath writes up to PATH_MAX bytes whatever we would like
  if (realpath(url.fileSystemRepresentation(), buffer)) {
    if (std::strlen(buffer) < kPathBufferSize) return URL::fileURL(buffer, URL::Kind::kFile);
    errno = ENAMETOOLONG;
  } else if (errno == ENOENT && allowNonExistentPathComponents) {
    return _realPathWhatExistsInPath(url.path());
  }
  LogWrite(kLogError, kFunction, "Failed to realpath %s : %s at %s", url.fileSystemRepresentation(),
           std::strerror(errno), buffer);
  return std::nullopt;
}

std::optional<URL> PLFileManager::_realPathWhatExistsInPath(const std::string& path) const {
  constexpr char kFunction[] = "-[PLFileManager _realPathWhatExistsInPath:]";
  const std::vector<std::string> components = PallionAdditions::pathComponents(path);
  for (size_t count = components.size(); count >= 2; --count) {
    const std::span<const std::string> all(components);
    const URL prefix = URL::fileURL(join(all.first(count)), URL::Kind::kFile);
    if (!itemExistsAtURL(prefix)) continue;
    const std::optional<URL> resolved = _realPathForURL(prefix, false);
    if (!resolved) continue;
    const std::string rest = join(all.subspan(count));
    LogWrite(kLogDebug, kFunction, "Realpathed %@ ; appending non-existing components %@",
             resolved->path(), rest);
    return resolved->appending(rest, URL::Kind::kFile);
  }
  return std::nullopt;
}

bool PLFileManager::createSymbolicLinkAtURL(const URL& url, const URL& destination,
                                            Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager createSymbolicLinkAtURL:withDestinationURL:error:]";
  if (symlink(destination.fileSystemRepresentation(), url.fileSystemRepresentation()) == 0)
    return true;
  const int number = errno;
  return failPOSIX(error, kFunction, __LINE__, number,
                   "Could not create symlink containing %s at %s: %s",
                   destination.fileSystemRepresentation(), url.fileSystemRepresentation(),
                   std::strerror(number));
}

std::optional<URL> PLFileManager::destinationOfSymbolicLinkAtURL(const URL& url,
                                                                 Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager destinationOfSymbolicLinkAtURL:error:]";
  char text[kPathBufferSize];
  const ssize_t length = readLink(url.fileSystemRepresentation(), text);
  if (length < 0) {
    const int number = errno;
    failPOSIX(error, kFunction, __LINE__, number, "Could not readlink %s : %s",
              url.fileSystemRepresentation(), std::strerror(number));
    return std::nullopt;
  }
  const std::string path =
      PallionAdditions::stringWithFileSystemRepresentation(text, static_cast<size_t>(length));
  if (path.starts_with('/')) return URL::fileURL(path);
  // A relative text is meant from where the link stands.
  return url.deletingLastPathComponent().appending(
      path, path.ends_with('/') ? URL::Kind::kDirectory : URL::Kind::kFile);
}

}  // namespace pallion
