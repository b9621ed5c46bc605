#include "xml/xml_document.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <pugixml.hpp>
#include <string_view>
#include <utility>

#include "utility/durable_file.h"
#include "utility/file.h"

using namespace std::string_view_literals;

namespace {

// ---- Files and their encodings ----

/// How a file of wide characters begins: with a byte order mark or else with its first tag.
constexpr std::pair<std::string_view, XmlEncoding> kWideStarts[] = {
    {"\0\0\xFE\xFF"sv, {4, true}}, {"\xFF\xFE\0\0"sv, {4, false}}, {"\xFE\xFF"sv, {2, true}},
    {"\xFF\xFE"sv, {2, false}},    {"\0\0\0<"sv, {4, true}},       {"<\0\0\0"sv, {4, false}},
    {"\0<"sv, {2, true}},          {"<\0"sv, {2, false}},
};

constexpr char32_t kHighSurrogates = 0xD800;
constexpr char32_t kLowSurrogates = 0xDC00;
constexpr char32_t kSurrogatesEnd = 0xE000;
constexpr char32_t kSupplementary = 0x10000;
constexpr char32_t kCharactersEnd = 0x110000;
constexpr unsigned kSurrogateBits = 10;
constexpr char32_t kReplacement = 0xFFFD;
static_assert(sizeof(wchar_t) == sizeof(char32_t), "pugixml is to convert UTF-32 here");

std::optional<std::string> read_whole(const char* path) {
  const utility::Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) return std::nullopt;
  // One byte more than the file has, so that the read that meets its end needs no more room.
  std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
  std::size_t size = 0;
  for (;;) {
    const ssize_t count = utility::read_some(file.get(), &bytes[size], bytes.size() - size);
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
    if (size == bytes.size()) bytes.resize(2 * size);
  }
  bytes.resize(size);
  return bytes;
}

XmlEncoding detect_encoding(std::string_view bytes) {
  for (const auto& [start, encoding] : kWideStarts) {
    if (bytes.substr(0, start.size()) == start) return encoding;
  }
  return {1, false};
}

/// Position of byte @a index of a unit, counted from its lowest, as a shift.
unsigned shift_of(std::size_t index, const XmlEncoding& encoding) {
  return 8 * static_cast<unsigned>(encoding.big_endian ? encoding.unit_bytes - 1 - index : index);
}

char32_t unit_at(const std::string& bytes, std::size_t position, const XmlEncoding& encoding) {
  char32_t unit = 0;
  for (std::size_t i = 0; i < encoding.unit_bytes; ++i) {
    unit |= char32_t{static_cast<unsigned char>(bytes[position + i])} << shift_of(i, encoding);
  }
  return unit;
}

void append_unit(std::string& bytes, char32_t unit, const XmlEncoding& encoding) {
  for (std::size_t i = 0; i < encoding.unit_bytes; ++i) {
    bytes += static_cast<char>(unit >> shift_of(i, encoding) & 0xFF);
  }
}

bool is_character(char32_t code) {
  return code > 0 && code < kCharactersEnd && (code < kHighSurrogates || code >= kSurrogatesEnd);
}

/// Whether @a unit is the second half of a UTF-16 pair whose first is the last of @a characters.
bool completes_pair(const std::u32string& characters, char32_t unit) {
  return unit >= kLowSurrogates && unit < kSurrogatesEnd && !characters.empty() &&
         characters.back() >= kHighSurrogates && characters.back() < kLowSurrogates;
}

std::string to_utf8(const std::u32string& characters) {
  return pugi::as_utf8(std::wstring(characters.begin(), characters.end()));
}

/// The characters of UTF-8 text, without what is malformed.
std::u32string to_characters(const std::string& text) {
  const std::wstring characters = pugi::as_wide(text);
  return {characters.begin(), characters.end()};
}

/// The text of a file as this program handles it: the bytes as they are, or UTF-8 for wide units.
/// @return nothing when there are NULs in it, or units that are no characters
std::optional<std::string> decode(std::string bytes, const XmlEncoding& encoding) {
  if (encoding.unit_bytes == 1) {
    // The parser would take a NUL for the end of the text.
    return bytes.find('\0') == std::string::npos ? std::optional(std::move(bytes)) : std::nullopt;
  }
  if (bytes.size() % encoding.unit_bytes != 0) return std::nullopt;
  std::u32string characters;
  characters.reserve(bytes.size() / encoding.unit_bytes);
  for (std::size_t i = 0; i < bytes.size(); i += encoding.unit_bytes) {
    const char32_t unit = unit_at(bytes, i, encoding);
    if (encoding.unit_bytes == 2 && completes_pair(characters, unit)) {
      const char32_t high = characters.back() - kHighSurrogates;
      characters.back() = kSupplementary + (high << kSurrogateBits) + (unit - kLowSurrogates);
    } else {
      characters += unit;
    }
  }
  if (!std::all_of(characters.begin(), characters.end(), is_character)) return std::nullopt;
  return to_utf8(characters);
}

/// The reverse of decode() for wide units.
std::string encode(const std::string& text, const XmlEncoding& encoding) {
  std::string bytes;
  for (char32_t unit : to_characters(text)) {
    if (encoding.unit_bytes == 2 && unit >= kSupplementary) {
      unit -= kSupplementary;
      append_unit(bytes, kHighSurrogates + (unit >> kSurrogateBits), encoding);
      unit = kLowSurrogates + (unit & ((1U << kSurrogateBits) - 1));
    }
    append_unit(bytes, unit, encoding);
  }
  return bytes;
}

/// @a value as it can be stored in a file of @a encoding.
std::string storable(const char* value, const XmlEncoding& encoding) {
  if (encoding.unit_bytes == 1) return value;
  std::u32string characters = to_characters(value);
  std::replace_if(
      characters.begin(), characters.end(), [](char32_t code) { return !is_character(code); },
      kReplacement);
  return to_utf8(characters);
}

// ---- Structure ----

/// Builds the tree of a document.
/// @return false, with @a tree empty, when the text is malformed or is not one root element with
///         nothing but comments, instructions and a DOCTYPE beside it
bool parse(const std::string& text, pugi::xml_document& tree) {
  // As a fragment, so that the tree shows all that stands beside the root element.
  constexpr unsigned kOptions = pugi::parse_default | pugi::parse_fragment;
  const bool parsed = tree.load_buffer(text.data(), text.size(), kOptions, pugi::encoding_utf8);
  const pugi::xml_node first = tree.first_child();
  const bool is_document = parsed && first.type() == pugi::node_element && !first.next_sibling();
  if (!is_document) tree.reset();
  return is_document;
}

// ---- Start tags ----

constexpr char kBlanks[] = " \t\r\n";
constexpr char kElementNameEnd[] = " \t\r\n/>";
constexpr char kAttributeNameEnd[] = " \t\r\n=";
constexpr char kQuotes[] = "\"'";

constexpr std::string_view kSpecial = "&<\"'\t\n\r";
constexpr const char* kReferences[] = {"&amp;", "&lt;",  "&quot;", "&apos;",
                                       "&#9;",  "&#10;", "&#13;"};

/// A stretch of a document's text.
struct Place {
  std::size_t begin;
  std::size_t size;
  bool is_value;  ///< an attribute's value, without its quotes; otherwise room for an attribute
};

/// Finds the first attribute called @a name in a start tag, or where to insert it.
/// @param tag  the place of the element's name; the parser has found the tag well-formed
Place find_attribute(const std::string& text, std::size_t tag, std::string_view name) {
  std::size_t behind_last = text.find_first_of(kElementNameEnd, tag);
  for (;;) {
    const std::size_t begin = text.find_first_not_of(kBlanks, behind_last);
    if (text[begin] == '/' || text[begin] == '>') return {behind_last, 0, false};
    const std::size_t name_end = text.find_first_of(kAttributeNameEnd, begin);
    const std::size_t quote = text.find_first_of(kQuotes, name_end);
    const std::size_t value_end = text.find(text[quote], quote + 1);
    if (std::string_view(text).substr(begin, name_end - begin) == name) {
      return {quote + 1, value_end - quote - 1, true};
    }
    behind_last = value_end + 1;
  }
}

/// @a value as it may stand between quotes of either kind. Blanks that readers would turn into
/// spaces are kept by references.
std::string escape(const std::string& value) {
  std::string escaped;
  for (const char character : value) {
    const std::size_t special = kSpecial.find(character);
    if (special == std::string_view::npos) {
      escaped += character;
    } else {
      escaped += kReferences[special];
    }
  }
  return escaped;
}

}  // namespace

// ---- XmlNode, XmlNodeList ----

void XmlNode::set_attribute(const char* name, const char* value) {
  if (element_ != nullptr) document_->set_attribute(element_, name, value);
}

std::string XmlNode::get_attribute(const char* name) const {
  return pugi::xml_node(element_).attribute(name).value();
}

XmlNodeList XmlNode::select_nodes(const char* xpath) const {
  XmlNodeList list(document_);
  try {
    pugi::xpath_node_set found = pugi::xml_node(element_).select_nodes(xpath);
    found.sort();
    for (const pugi::xpath_node& match : found) {
      const pugi::xml_node node = match.node();
      if (node.type() == pugi::node_element) list.elements_.push_back(node.internal_object());
    }
  } catch (const pugi::xpath_exception&) {
    // Not an expression, or none that selects nodes: nothing matches.
  }
  return list;
}

XmlNode XmlNodeList::item(int index) const {
  const bool exists = index >= 0 && index < length();
  return {document_, exists ? elements_[static_cast<std::size_t>(index)] : nullptr};
}

// ---- XmlDocument ----

XmlDocument::XmlDocument() : tree_(std::make_unique<pugi::xml_document>()) {}

XmlDocument::~XmlDocument() = default;

int XmlDocument::load(const char* path) {
  tree_->reset();
  text_.clear();
  growth_.clear();
  try {
    std::optional<std::string> bytes = read_whole(path);
    if (!bytes) return 0;
    encoding_ = detect_encoding(*bytes);
    std::optional<std::string> text = decode(*std::move(bytes), encoding_);
    if (!text || !parse(*text, *tree_)) return 0;
    text_ = *std::move(text);
  } catch (const std::exception&) {  // more than memory, or a string, can hold
    tree_->reset();
    return 0;
  }
  return 1;
}

XmlNode XmlDocument::root() { return {this, tree_->first_child().internal_object()}; }

int XmlDocument::save(const char* path) {
  if (text_.empty()) return 0;
  const bool saved = encoding_.unit_bytes == 1
                         ? utility::replace_durably(path, text_)
                         : utility::replace_durably(path, encode(text_, encoding_));
  return saved ? 1 : 0;
}

void XmlDocument::set_attribute(pugi::xml_node_struct* element, const char* name,
                                const char* value) {
  pugi::xml_node node(element);
  const std::string plain = storable(value, encoding_);
  const std::ptrdiff_t loaded_tag = node.offset_debug();
  std::ptrdiff_t tag = loaded_tag;
  for (auto it = growth_.begin(); it != growth_.lower_bound(loaded_tag); ++it) tag += it->second;

  const Place place = find_attribute(text_, static_cast<std::size_t>(tag), name);
  std::string replacement = escape(plain);
  if (!place.is_value) replacement = std::string(" ") + name + "=\"" + replacement + '"';
  text_.replace(place.begin, place.size, replacement);
  growth_[loaded_tag] +=
      static_cast<std::ptrdiff_t>(replacement.size()) - static_cast<std::ptrdiff_t>(place.size);

  pugi::xml_attribute attribute = node.attribute(name);
  if (!attribute) attribute = node.append_attribute(name);
  attribute.set_value(plain.c_str());
}

std::unique_ptr<XmlDocument> newXmlDocument() { return std::make_unique<XmlDocument>(); }
