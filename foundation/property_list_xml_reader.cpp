#include <expat.h>
#include <memory>
#include <vector>

#include "foundation/hash_key.h"
#include "foundation/property_list.h"
#include "foundation/property_list_formats.h"
#include "foundation/property_list_xml_scalars.h"

namespace pallion::detail {

namespace {

enum class Element {
  kString,
  kKey,
  kDict,
  kArray,
  kTrue,
  kFalse,
  kInteger,
  kReal,
  kDate,
  kData,
  kPlist,
  kUnknown
};

Element elementOf(std::string_view name) {
  constexpr std::string_view kNames[] = {"string",  "key",  "dict", "array", "true", "false",
                                         "integer", "real", "date", "data",  "plist"};
  for (size_t i = 0; i < std::size(kNames); ++i) {
    if (name == kNames[i]) return static_cast<Element>(i);
  }
  return Element::kUnknown;
}

bool isSpace(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// Values wait on one stack until the container around them ends; a dictionary's are keys and values
// in turn.
class XMLReader {
 public:
  Value read(std::string_view bytes);

 private:
  struct Container {
    Element element;
    size_t firstValue;  // on values_
  };
  struct FreeParser {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

  static XMLReader& from(void* data) { return *static_cast<XMLReader*>(data); }
  static void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char**) {
    from(data).start(elementOf(name));
  }
  static void XMLCALL onEnd(void* data, const XML_Char*) { from(data).end(); }
  static void XMLCALL onText(void* data, const XML_Char* text, int size) {
    from(data).addText(std::string_view(text, static_cast<size_t>(size)));
  }
  static void XMLCALL onEntityDeclaration(void* data, const XML_Char*, int, const XML_Char*, int,
                                          const XML_Char*, const XML_Char*, const XML_Char*,
                                          const XML_Char*) {
    from(data).refuse();
  }
  static void XMLCALL onSkippedEntity(void* data, const XML_Char*, int) { from(data).refuse(); }

  void start(Element element);
  void end();
  void endContainer();
  void addText(std::string_view text);
  [[nodiscard]] bool mayStart(Element element) const;
  // Expat may still report what it has recognised already.
  void refuse() {
    refused_ = true;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  Parser parser_;
  bool refused_ = false;
  std::vector<Container> containers_;  // the outermost is `plist`
  std::vector<Value> values_;
  std::optional<Element> scalar_;  // the element whose text is being collected
  std::string text_;
};

Value XMLReader::read(std::string_view bytes) {
  parser_.reset(XML_ParserCreate(nullptr));
  if (!parser_) return {};
  // Without one the parser asks the kernel for a key of its own, once a document.
  XML_SetHashSalt(parser_.get(), hashKey());
  XML_SetUserData(parser_.get(), this);
  XML_SetElementHandler(parser_.get(), onStart, onEnd);
  XML_SetCharacterDataHandler(parser_.get(), onText);
  XML_SetEntityDeclHandler(parser_.get(), onEntityDeclaration);
  XML_SetSkippedEntityHandler(parser_.get(), onSkippedEntity);
  // Expat reads a token that a piece cuts from its beginning again. Pieces that grow with what is
  // behind them keep that in proportion however long a token is.
  constexpr size_t kSmallestPiece = size_t{64} * 1024;
  constexpr size_t kLargestPiece = size_t{1} << 28;  // expat counts in int
  size_t at = 0;
  bool last = false;
  while (!last) {
    const size_t piece = std::clamp(at / 8, kSmallestPiece, kLargestPiece);
    const std::string_view part = bytes.substr(at, piece);
    at += part.size();
    last = at == bytes.size();
    if (XML_Parse(parser_.get(), part.data(), static_cast<int>(part.size()), last) != XML_STATUS_OK)
      return {};
  }
  return refused_ || values_.size() != 1 ? Value() : values_.front();
}

bool XMLReader::mayStart(Element element) const {
  if (scalar_ || element == Element::kUnknown) return false;
  if (containers_.empty()) return element == Element::kPlist;
  const Container& container = containers_.back();
  const size_t count = values_.size() - container.firstValue;
  switch (container.element) {
    case Element::kPlist:
      return count == 0 && element != Element::kKey && element != Element::kPlist;
    case Element::kDict:
      return (element == Element::kKey) == (count % 2 == 0) && element != Element::kPlist;
    default:
      return element != Element::kKey && element != Element::kPlist;
  }
}

void XMLReader::start(Element element) {
  if (refused_) return;
  if (!mayStart(element)) {
    refuse();
    return;
  }
  if (element == Element::kPlist || element == Element::kDict || element == Element::kArray) {
    if (containers_.size() > size_t{kPropertyListMaximumDepth}) {  // `plist` is not counted
      refuse();
      return;
    }
    containers_.push_back({element, values_.size()});
    return;
  }
  scalar_ = element;
  text_.clear();
}

void XMLReader::addText(std::string_view text) {
  if (refused_) return;
  if (scalar_) {
    text_ += text;
  } else if (!std::all_of(text.begin(), text.end(), isSpace)) {
    refuse();
  }
}

void XMLReader::end() {
  if (refused_) return;
  if (!scalar_) {
    endContainer();
    return;
  }
  Value value;
  switch (*scalar_) {
    case Element::kString:
    case Element::kKey:
      value = Value::string(text_);
      break;
    case Element::kTrue:
    case Element::kFalse:
      if (std::all_of(text_.begin(), text_.end(), isSpace))
        value = Value::boolean(*scalar_ == Element::kTrue);
      break;
    case Element::kInteger:
      value = parseInteger(text_);
      break;
    case Element::kReal:
      value = parseReal(text_);
      break;
    case Element::kDate:
      value = parseDate(text_);
      break;
    case Element::kData:
      value = parseBase64(text_);
      break;
    default:
      break;
  }
  scalar_.reset();
  if (!value) {
    refuse();
    return;
  }
  values_.push_back(std::move(value));
}

void XMLReader::endContainer() {
  const Container container = containers_.back();
  containers_.pop_back();
  const auto first = values_.begin() + static_cast<std::ptrdiff_t>(container.firstValue);
  const auto count = static_cast<size_t>(values_.end() - first);
  Value value;
  switch (container.element) {
    case Element::kPlist:
      if (count != 1) refuse();
      return;
    case Element::kArray:
      value =
          Value::array(Value::Array(std::move_iterator(first), std::move_iterator(values_.end())));
      break;
    default: {
      if (count % 2 != 0) {
        refuse();
        return;
      }
      Dictionary entries;
      entries.reserve(count / 2);
      for (auto at = first; at != values_.end(); at += 2)
        entries.set(std::move(at[0]), std::move(at[1]));
      value = Value::dictionary(std::move(entries));
    }
  }
  values_.erase(first, values_.end());
  values_.push_back(std::move(value));
}

}  // namespace

Value readXMLPropertyList(std::string_view bytes) { return XMLReader().read(bytes); }

}  // namespace pallion::detail
