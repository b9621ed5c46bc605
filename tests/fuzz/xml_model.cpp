#include "xml_model.h"

#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string_view>
#include <utility>

#include "support.h"

namespace fuzz {

namespace {

constexpr char kMark[] = "\xEF\xBB\xBF";  // the byte order mark

/// Name of the encoding of a UTF-16 or UTF-32 file, by its first bytes; null for other files.
const char* wide_encoding(std::string_view bytes) {
  using std::string_view_literals::operator""sv;
  const auto starts = [&](std::string_view start) {
    return bytes.substr(0, start.size()) == start;
  };
  if (starts("\0\0\xFE\xFF"sv) || starts("\0\0\0<"sv)) return "UTF-32BE";
  if (starts("\xFF\xFE\0\0"sv) || starts("<\0\0\0"sv)) return "UTF-32LE";
  if (starts("\xFE\xFF"sv) || starts("\0<"sv)) return "UTF-16BE";
  if (starts("\xFF\xFE"sv) || starts("<\0"sv)) return "UTF-16LE";
  return nullptr;
}

// NOLINTNEXTLINE(performance-no-int-to-ptr): this is how iconv_open() reports a failure
const auto kNoConversion = reinterpret_cast<iconv_t>(-1);

/// @return nothing if @a bytes are not in the encoding @a from
std::optional<std::string> convert(std::string bytes, const char* from, const char* to) {
  const iconv_t conversion = ::iconv_open(to, from);
  check(conversion != kNoConversion, "the C library converts between encodings");
  std::string converted(4 * bytes.size() + 4, '\0');  // one byte becomes one character at most
  char* in = bytes.data();
  std::size_t in_left = bytes.size();
  char* out = converted.data();
  std::size_t out_left = converted.size();
  const bool done = ::iconv(conversion, &in, &in_left, &out, &out_left) == 0 && in_left == 0;
  (void)::iconv_close(conversion);
  if (!done) return std::nullopt;
  converted.resize(converted.size() - out_left);
  return converted;
}

bool is_control_character(char c) {
  return c >= '\0' && c < ' ' && c != '\t' && c != '\n' && c != '\r';
}

std::string without_blanks_and_quotes(std::string text) {
  const auto is_dropped = [](char c) { return std::strchr(" \t\r\n\"'", c) != nullptr; };
  text.erase(std::remove_if(text.begin(), text.end(), is_dropped), text.end());
  return text;
}

std::string written(const pugi::xml_document& document) {
  std::ostringstream out;
  document.save(out, "", pugi::format_raw | pugi::format_no_declaration | pugi::format_no_escapes,
                pugi::encoding_utf8);
  return out.str();
}

/// All nodes at and below @a top, parents first.
std::vector<pugi::xml_node> all_nodes(const pugi::xml_node& top);

/// The text of a wide document as the writer spells it: values in double quotes, one blank between
/// attributes. Nothing if that changes anything else, or if XML cannot represent a character.
std::optional<std::string> respelled(const std::string& text) {
  constexpr unsigned kOptions = pugi::parse_cdata | pugi::parse_comments | pugi::parse_declaration |
                                pugi::parse_doctype | pugi::parse_fragment | pugi::parse_pi |
                                pugi::parse_ws_pcdata;
  if (std::any_of(text.begin(), text.end(), is_control_character)) return std::nullopt;
  const bool has_mark = text.compare(0, std::strlen(kMark), kMark) == 0;
  const std::string content = has_mark ? text.substr(std::strlen(kMark)) : text;
  pugi::xml_document document;
  if (!document.load_buffer(content.data(), content.size(), kOptions, pugi::encoding_utf8)) {
    return std::nullopt;
  }
  if (without_blanks_and_quotes(written(document)) != without_blanks_and_quotes(content)) {
    return std::nullopt;
  }
  for (pugi::xml_node node : all_nodes(document)) {
    for (pugi::xml_attribute attribute : node.attributes()) {
      std::string value;
      for (const char* c = attribute.value(); *c != '\0'; ++c) {
        value += *c == '"' ? "&quot;" : std::string(1, *c);
      }
      attribute.set_value(value.c_str());
    }
  }
  return (has_mark ? kMark : "") + written(document);
}

/// Whether @a node is a `var` in a `Data` in a `Process` in a `norvak`.
bool is_setting(pugi::xml_node node) {
  for (const char* name : {"var", "Data", "Process", "norvak"}) {
    if (std::string_view(node.name()) != name) return false;
    node = node.parent();
  }
  return true;
}

std::vector<pugi::xml_node> all_nodes(const pugi::xml_node& top) {
  struct Walker : pugi::xml_tree_walker {
    bool for_each(pugi::xml_node& node) override {
      nodes.push_back(node);
      return true;
    }
    std::vector<pugi::xml_node> nodes;
  };
  Walker walker;
  walker.nodes.push_back(top);
  (void)pugi::xml_node(top).traverse(walker);
  return walker.nodes;
}

pugi::xml_node root_of(const pugi::xml_document& document) {
  return document.find_child(
      [](const pugi::xml_node& node) { return node.type() == pugi::node_element; });
}

}  // namespace

std::optional<std::string> text_of_file(const std::string& bytes) {
  const char* const encoding = wide_encoding(bytes);
  const auto text = encoding == nullptr ? std::optional(bytes) : convert(bytes, encoding, "UTF-8");
  if (!text || text->find('\0') != std::string::npos) return std::nullopt;
  return encoding == nullptr ? text : respelled(*text);
}

bool is_utf8(const std::string& bytes) { return convert(bytes, "UTF-8", "UTF-32LE").has_value(); }

std::string without_control_characters(std::string text) {
  std::replace_if(text.begin(), text.end(), is_control_character, '?');
  return text;
}

std::string file_with_text(const std::string& text, const std::string& original) {
  const char* const encoding = wide_encoding(original);
  return encoding == nullptr ? text : convert(text, "UTF-8", encoding).value_or("");
}

bool is_wide(const std::string& original) { return wide_encoding(original) != nullptr; }

bool parser_accepts(const std::string& bytes) {
  pugi::xml_document document;
  return static_cast<bool>(document.load_buffer(bytes.data(), bytes.size()));
}

bool is_document(const std::string& text) {
  pugi::xml_document document;
  constexpr unsigned kOptions = pugi::parse_default | pugi::parse_fragment;
  if (!document.load_buffer(text.data(), text.size(), kOptions, pugi::encoding_utf8)) return false;
  int elements = 0;
  for (const pugi::xml_node& node : document) {
    if (node.type() == pugi::node_element) ++elements;
    if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) return false;
  }
  return elements == 1;
}

// parse_minimal leaves every value as it is written, and names and values where they are, so that
// their addresses give their positions.
RawDocument::RawDocument(std::string text) : text_(std::move(text)) {
  check(static_cast<bool>(document_.load_buffer_inplace(text_.data(), text_.size(),
                                                        pugi::parse_minimal, pugi::encoding_utf8)),
        "a document that was loaded, or saved, can be parsed");
  elements_ = elements_of(document_);
}

RawDocument::AttributePosition RawDocument::find_attribute(std::size_t element,
                                                           const char* name) const {
  const pugi::xml_node node = elements_[element];
  if (const pugi::xml_attribute attribute = node.attribute(name)) {
    return {position_of(attribute.value()), std::strlen(attribute.value()), true};
  }
  if (const pugi::xml_attribute last = node.last_attribute()) {
    return {position_of(last.value()) + std::strlen(last.value()) + std::strlen("\""), 0, false};
  }
  return {position_of(node.name()) + std::strlen(node.name()), 0, false};
}

std::vector<pugi::xml_node> elements_of(const pugi::xml_document& document) {
  std::vector<pugi::xml_node> elements = {root_of(document)};
  for (const pugi::xml_node& node : all_nodes(root_of(document))) {
    if (is_setting(node)) elements.push_back(node);
  }
  return elements;
}

}  // namespace fuzz
