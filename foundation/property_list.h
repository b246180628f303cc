#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/file_contents.h"
#include "foundation/url.h"
#include "foundation/value.h"

// Property lists in XML and in the binary format "bplist00".
//
// Reading tells the formats apart by content and accepts every class; what is damaged, nested
// deeper than kPropertyListMaximumDepth, or unfolds through shared references beyond a fixed
// multiple of the file's size gives none. Memory and time are in proportion to the bytes read. All
// functions may be called from any thread.

namespace pallion {

// Containers within containers; the root counts as one.
inline constexpr int kPropertyListMaximumDepth = 512;

enum class PropertyListFormat { kXML, kBinary };

// The value, or none for bytes that are no property list.
Value readPropertyList(std::string_view bytes);

// The bytes, or nothing when the value can't be read back from that format: XML holds no text that
// is not UTF-8 or that holds control characters other than tab, line feed and carriage return, no
// dictionary keys but strings, and no sets; binary holds no text that is not UTF-8. Neither holds
// none, nesting beyond the maximum, or dates that are not finite or (XML) outside the years 1 to
// 9999. XML dates lose the fraction of their second.
std::optional<std::string> writePropertyList(const Value& value, PropertyListFormat format);

// Reads a regular file (a symbolic link at the last component is not followed; FIFOs and devices
// are not opened for data). None on any failure; then *errorNumber, where given, holds the errno of
// the failed call, or EILSEQ for content that is no property list.
Value readPropertyListFile(const URL& url, int* errorNumber = nullptr);
// The same, but only with a dictionary at the root; EILSEQ otherwise.
std::optional<Dictionary> readDictionaryFile(const URL& url, int* errorNumber = nullptr);

// Writes atomically (see writeFileAtomically). Answers 0, the errno of the failed call, or EILSEQ
// for a value that the format cannot hold; then nothing was written.
int writePropertyListFile(const Value& value, const URL& url, PropertyListFormat format,
                          Durability durability);

}  // namespace pallion
