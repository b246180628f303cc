#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// Keys of a bundle's information property list.
inline constexpr std::string_view kQXBundleIdentifier = "QXBundleIdentifier";
inline constexpr std::string_view kQXBundleDisplayName = "QXBundleDisplayName";
inline constexpr std::string_view kQXBundleExecutable = "QXBundleExecutable";
inline constexpr std::string_view kQXBundleVersion = "QXBundleVersion";
inline constexpr std::string_view kQXBundleShortVersionString = "QXBundleShortVersionString";
inline constexpr std::string_view kQXBundleIconFile = "QXBundleIconFile";
inline constexpr std::string_view kQXApplicationGroups = "QXApplicationGroups";
// Added to a whole info dictionary: the path of the file that it was read from.
inline constexpr std::string_view kQXBundleInfoPlistURL = "QXBundleInfoPlistURL";

// Larger information property lists are taken for damaged. (The largest in the field are some
// hundred KiB.)
inline constexpr uint64_t kInfoPlistMaximumSize = uint64_t{16} << 20;

// A bundle directory on disk. Belongs to its maker; not shared between threads.
class QXBundle {
 public:
  // How the information property list was found.
  enum class InfoState {
    kRead,    // there is a dictionary
    kAbsent,  // no such file, or it is damaged: no property list with a dictionary root, no regular
              // file, too large
    kUnreadable,  // it may be there, but could not be read: infoErrorNumber() tells why (EIO,
                  // EACCES, EMFILE, ENOMEM, ...)
  };

  virtual ~QXBundle() = default;

  // A new object for a directory (a symbolic link is none), not shared with other users of the same
  // bundle; null when there is no directory. Its information property list is read once.
  static std::unique_ptr<QXBundle> bundleWithURL(const URL& url);

  [[nodiscard]] virtual const URL& bundleURL() const = 0;
  [[nodiscard]] virtual InfoState infoState() = 0;
  [[nodiscard]] virtual int infoErrorNumber() = 0;
  // The whole dictionary with kQXBundleInfoPlistURL added, or null.
  [[nodiscard]] virtual const Dictionary* infoDictionary() = 0;
  // The entries of the file with these keys; of any class when the file's root is no dictionary;
  // none when it can't be read.
  [[nodiscard]] virtual Value filteredInfoDictionary(const std::vector<std::string>& keys) = 0;
  // The string under kQXBundleIdentifier, or nothing.
  [[nodiscard]] std::optional<std::string> identifier();

  // The seam: makes the bundle objects. `replace` with null goes back to the Linux implementation;
  // answers the one before.
  using Factory = std::unique_ptr<QXBundle> (*)(const URL& url);
  static Factory replace(Factory factory);
};

// "%@": "QXBundle <path>".
void appendDescription(std::string& out, const QXBundle& bundle);

}  // namespace pallion
