#include <cerrno>
#include <cstring>

#include "foundation/property_list.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/failure.h"
#include "programs/palliontool/value_json.h"
#include "support/bundle_metadata.h"

namespace pallion::tool {

namespace {

std::string readFailure(int number) {
  return number == EILSEQ ? "no property list, or a damaged one" : std::strerror(number);
}

int printList(const Value& list, const Options& options) {
  std::string text;
  std::string reason;
  if (options.form == ListForm::kJSON) {
    JSONDocument document = jsonOf(list);
    text = std::move(document.text);
    reason = "JSON can't hold it: " + document.reason;
  } else if (auto bytes = writePropertyList(list, options.form == ListForm::kXML
                                                      ? PropertyListFormat::kXML
                                                      : PropertyListFormat::kBinary)) {
    text = std::move(*bytes);
  } else {
    reason = options.form == ListForm::kXML
                 ? "XML can't hold a key or a value of it"
                 : "the binary form can't hold a text of it that is not UTF-8";
  }
  if (text.empty()) {
    complain(options.path + ": " + reason);
    return kExitFailure;
  }
  return print(text) ? kExitSuccess : kExitFailure;
}

}  // namespace

int infoPlist(const Options& options) {
  const URL bundle = directoryLocation(options.path);
  Value::Array names;
  for (const std::string& key : options.keys) names.push_back(Value::string(key));
  const Value keys = names.empty() ? Value() : Value::set(std::move(names));
  std::optional<Dictionary> info = PLLoadInfoPlist(bundle, keys);
  if (info) return printList(Value::dictionary(std::move(*info)), options);
  // The log may name the bundle only; then the file itself tells the cause.
  int number = 0;
  const bool readable(
      readDictionaryFile(bundle.appending("Info.plist", URL::Kind::kFile), &number));
  return fail(bundle, Error(), readable ? "" : readFailure(number));
}

int plist(const Options& options) {
  int number = 0;
  const Value list = readPropertyListFile(location(options.path), &number);
  if (list) return printList(list, options);
  complain(options.path + ": " + readFailure(number));
  return kExitFailure;
}

}  // namespace pallion::tool
