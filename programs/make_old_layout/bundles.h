#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/value.h"
#include "programs/make_old_layout/tree_writer.h"

namespace pallion {

// An application's bundle, or a plug-in's.
struct Bundle {
  std::string name;  // of the directory, without extension
  std::string identifier;
  std::string version = "1.0";
  std::vector<std::string> groups = {};
};

// Encoded pictures for icons, made once each: encoding takes longer than everything else about an
// application.
class Pictures {
 public:
  // One of a few; empty when there is no encoder.
  const std::string& picture(uint64_t index, SeededRandom& random);

 private:
  std::vector<std::string> encoded_;
};

enum class ListFormat { kXML, kBinary };

// Writes `list` as a property list; a list that the format can't hold is a failure with EILSEQ.
void writeList(Directory& directory, const std::string& name, const Dictionary& list,
               ListFormat format);
Dictionary infoDictionary(const Bundle& bundle);

// "<name>.app" with Info.plist, executable, icon and resources.
void writeApplication(Directory& container, const Bundle& bundle, Pictures& pictures);
// "<name>.app" with Info.plist alone and the mark of a placeholder.
void writePlaceholder(Directory& container, const Bundle& bundle);
// "<name>.vpnplugin" with Info.plist and executable.
void writePlugin(Directory& container, const Bundle& bundle);
// The files that come with an application from the store.
void writeStoreMetadata(Directory& container, const Bundle& bundle, uint64_t index,
                        Pictures& pictures);

}  // namespace pallion
