#include "xml/xml_document.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <pugixml.hpp>
#include <string_view>
#include <type_traits>
#include <utility>

#include "utility/durable_file.h"
#include "utility/file.h"

namespace {

/// Reads a file to its end. A read error does not count as its end: a save would drop the rest.
std::optional<std::string> read_whole(const char* path) {
  const utility::Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) return std::nullopt;
  // One byte more than the file, so that the read which finds its end needs no larger buffer.
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

// ---- UTF-16 and UTF-32 ----
// The parser converts such a document to UTF-8 and back. With these options it interprets nothing
// and keeps everything, so that only quotes and blanks in tags change.

constexpr unsigned kKeepAll =
    (pugi::parse_full | pugi::parse_ws_pcdata | pugi::parse_fragment) &
    ~(pugi::parse_escapes | pugi::parse_eol | pugi::parse_wconv_attribute);

constexpr std::size_t kRecognisedBytes = 4;

/// The encoding that the parser detects from a byte order mark or the `<` of the first tag, even if
/// it cannot parse what follows. UTF-8 stands for every one-byte encoding.
pugi::xml_encoding encoding_of(const std::string& start) {
  pugi::xml_document tree;
  return tree.load_buffer(start.data(), std::min(start.size(), kRecognisedBytes)).encoding;
}

bool is_wide(const std::string& start) { return encoding_of(start) != pugi::encoding_utf8; }

/// The text of @a tree in @a encoding.
std::string write(const pugi::xml_document& tree, pugi::xml_encoding encoding, bool with_mark) {
  struct Writer : pugi::xml_writer {
    void write(const void* data, std::size_t size) override {
      bytes.append(static_cast<const char*>(data), size);
    }
    std::string bytes;
  } writer;
  constexpr unsigned kFormat =
      pugi::format_raw | pugi::format_no_declaration | pugi::format_no_escapes;
  tree.save(writer, "", kFormat | (with_mark ? pugi::format_write_bom : 0), encoding);
  return std::move(writer.bytes);
}

/// The text of @a tree in the encoding of the file that begins with @a start, and with its byte
/// order mark, if it has one.
std::string write_as(const std::string& start, const pugi::xml_document& tree) {
  return write(tree, encoding_of(start), start[start.find_first_not_of('\0')] != '<');
}

/// False for what XML cannot represent: surrogates, code points above U+10FFFF, and most of those
/// below U+0020.
bool is_representable(char32_t code) {
  if (code < ' ') return code == '\t' || code == '\n' || code == '\r';
  return code < 0xD800 || (code >= 0xE000 && code < 0x110000);
}

/// @a text with a question mark for each character that XML cannot represent.
template <typename Text>
Text representable(Text text) {
  using Unit = std::make_unsigned_t<typename Text::value_type>;
  const auto is_wrong = [](auto unit) { return !is_representable(static_cast<Unit>(unit)); };
  std::replace_if(text.begin(), text.end(), is_wrong, '?');
  return text;
}

/// The units of a wide document, without blanks and quotes.
std::u32string significant_units(const std::string& bytes, pugi::xml_encoding encoding) {
  const bool is_32 = encoding == pugi::encoding_utf32_le || encoding == pugi::encoding_utf32_be;
  const bool is_big = encoding == pugi::encoding_utf16_be || encoding == pugi::encoding_utf32_be;
  const std::size_t unit_bytes = is_32 ? 4 : 2;
  std::u32string units;
  for (std::size_t begin = 0; begin < bytes.size(); begin += unit_bytes) {
    std::string unit = bytes.substr(begin, unit_bytes);
    unit.resize(unit_bytes, '\x7F');  // an incomplete last unit is significant
    if (!is_big) std::reverse(unit.begin(), unit.end());
    char32_t code = 0;
    for (const char byte : unit) code = code << 8 | static_cast<unsigned char>(byte);
    if (std::u32string_view(U" \t\r\n\"'").find(code) == std::u32string_view::npos) units += code;
  }
  return units;
}

/// Prepares values for the writer, which puts them in double quotes and escapes nothing.
struct QuoteEscaper : pugi::xml_tree_walker {
  bool for_each(pugi::xml_node& node) override {
    for (pugi::xml_attribute attribute : node.attributes()) {
      std::string value = attribute.value();
      for (std::size_t i = 0; (i = value.find('"', i)) != std::string::npos;) {
        value.replace(i, 1, "&quot;");
      }
      attribute.set_value(value.c_str());
    }
    return true;
  }
};

/// Converts a wide document to UTF-8.
/// @return nothing if it is malformed, or if more than quotes, blanks in tags and the spelling of
///         references would change on the way back
std::optional<std::string> to_utf8(const std::string& bytes) {
  const pugi::xml_encoding encoding = encoding_of(bytes);
  pugi::xml_document tree;
  if (!tree.load_buffer(bytes.data(), bytes.size(), kKeepAll, encoding)) return std::nullopt;
  const std::string written = write_as(bytes, tree);
  if (significant_units(bytes, encoding) != significant_units(written, encoding)) {
    return std::nullopt;
  }
  QuoteEscaper escaper;
  tree.traverse(escaper);
  // With a byte order mark, because the parser skips the first one: if the document has another,
  // that is one of its characters.
  std::string text = write(tree, pugi::encoding_utf8, true);
  const std::wstring characters = pugi::as_wide(text);
  if (representable(characters) != characters) return std::nullopt;
  return text;
}

/// The reverse of to_utf8(), for a file that began with @a start.
std::string from_utf8(const std::string& text, const std::string& start) {
  pugi::xml_document tree;
  (void)tree.load_buffer(text.data(), text.size(), kKeepAll, pugi::encoding_utf8);
  return write_as(start, tree);
}

// ---- Structure ----

/// Builds the tree of a document.
/// @return false, with @a tree empty, if the text is malformed, contains a NUL, or is not one root
///         element with nothing but blanks, comments, instructions and a DOCTYPE around it
bool parse(const std::string& text, pugi::xml_document& tree) {
  if (text.find('\0') != std::string::npos) return false;  // the parser would stop there
  // Parsed as a fragment, so that text outside the root element appears in the tree.
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

/// Where an attribute is in a document's text, or where it can be inserted.
struct AttributePosition {
  std::size_t begin;  ///< of the value, without its quotes; or of the attribute to insert
  std::size_t size;   ///< of the value
  bool exists;
};

/// Finds the first attribute called @a name in a start tag.
/// @param tag  the offset of the element's name; the parser has found the tag well-formed
AttributePosition find_attribute(const std::string& text, std::size_t tag, std::string_view name) {
  std::size_t end_of_last = text.find_first_of(kElementNameEnd, tag);
  for (;;) {
    const std::size_t begin = text.find_first_not_of(kBlanks, end_of_last);
    if (text[begin] == '/' || text[begin] == '>') return {end_of_last, 0, false};
    const std::size_t name_end = text.find_first_of(kAttributeNameEnd, begin);
    const std::size_t quote = text.find_first_of(kQuotes, name_end);
    const std::size_t value_end = text.find(text[quote], quote + 1);
    if (std::string_view(text).substr(begin, name_end - begin) == name) {
      return {quote + 1, value_end - quote - 1, true};
    }
    end_of_last = value_end + 1;
  }
}

/// @a value with a question mark for each character that XML cannot represent. It is UTF-8 if the
/// file of the document, which begins with @a start, is wide; otherwise any bytes.
std::string storable(const char* value, const std::string& start) {
  static_assert(sizeof(wchar_t) == sizeof(char32_t), "the parser's wide text is UTF-32");
  if (!is_wide(start)) return representable(std::string(value));
  return pugi::as_utf8(representable(pugi::as_wide(value)));
}

/// @a value as it can be written between quotes of either kind. Parsers turn blanks other than
/// spaces into spaces unless they are references.
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
    // Not an expression, or not one that selects nodes: nothing matches.
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
  added_bytes_.clear();
  try {
    std::optional<std::string> bytes = read_whole(path);
    if (!bytes) return 0;
    start_ = bytes->substr(0, kRecognisedBytes);
    if (is_wide(start_)) bytes = to_utf8(*bytes);
    if (!bytes || !parse(*bytes, *tree_)) return 0;
    text_ = *std::move(bytes);
  } catch (const std::exception&) {  // the file is too large for memory or for a string
    tree_->reset();
    return 0;
  }
  return 1;
}

XmlNode XmlDocument::root() { return {this, tree_->first_child().internal_object()}; }

int XmlDocument::save(const char* path) {
  if (text_.empty()) return 0;
  const bool saved = is_wide(start_) ? utility::replace_durably(path, from_utf8(text_, start_))
                                     : utility::replace_durably(path, text_);
  return saved ? 1 : 0;
}

void XmlDocument::set_attribute(pugi::xml_node_struct* element, const char* name,
                                const char* value) {
  pugi::xml_node node(element);
  const std::string plain = storable(value, start_);
  // The offset of the element's name in the parsed text. That is its documented meaning, and exact
  // as long as the tree comes from one buffer and elements are not renamed.
  const std::ptrdiff_t loaded_tag = node.offset_debug();
  std::ptrdiff_t tag = loaded_tag;
  for (auto it = added_bytes_.begin(); it != added_bytes_.lower_bound(loaded_tag); ++it) {
    tag += it->second;
  }

  const AttributePosition old = find_attribute(text_, static_cast<std::size_t>(tag), name);
  std::string replacement = escape(plain);
  if (!old.exists) replacement = std::string(" ") + name + "=\"" + replacement + '"';
  text_.replace(old.begin, old.size, replacement);
  added_bytes_[loaded_tag] +=
      static_cast<std::ptrdiff_t>(replacement.size()) - static_cast<std::ptrdiff_t>(old.size);

  pugi::xml_attribute attribute = node.attribute(name);
  if (!attribute) attribute = node.append_attribute(name);
  attribute.set_value(plain.c_str());
}

std::unique_ptr<XmlDocument> newXmlDocument() { return std::make_unique<XmlDocument>(); }
