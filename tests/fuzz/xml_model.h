// A model of what loading and changing a document means, on top of the parser alone.
#pragma once

#include <cstddef>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <vector>

namespace fuzz {

/// The text of a file: its bytes, or UTF-8 for UTF-16 and UTF-32. Nothing when it is malformed, or
/// holds a NUL.
std::optional<std::string> text_of_file(const std::string& bytes);

/// The reverse: the bytes of a file in the encoding of the file that held @a original.
std::string file_with_text(const std::string& text, const std::string& original);

/// Whether @a original is a file of UTF-16 or UTF-32.
bool is_wide(const std::string& original);

/// Whether the parser itself, left to its own judgement, takes a file with these bytes.
bool parser_accepts(const std::string& bytes);

/// Whether a file with @a text is a document: well-formed, with one root element and nothing but
/// comments and the like beside it.
bool is_document(const std::string& text);

/// A document parsed from a copy of its text, every value as it is written there.
class RawDocument {
 public:
  explicit RawDocument(std::string text);

  /// The root element, then the settings in document order.
  [[nodiscard]] const std::vector<pugi::xml_node>& elements() const { return elements_; }

  /// A stretch of the text.
  struct Place {
    std::size_t begin;
    std::size_t size;
    bool is_value;  ///< otherwise it is the empty place where an attribute would be added
  };

  /// The value of an element's first attribute called @a name, without its quotes. Without such an
  /// attribute the place behind the last one, or behind the element's name.
  [[nodiscard]] Place place_of(std::size_t element, const char* name) const;

 private:
  [[nodiscard]] std::size_t position_of(const char* part) const {
    return static_cast<std::size_t>(part - text_.data());
  }

  std::string text_;
  pugi::xml_document document_;
  std::vector<pugi::xml_node> elements_;
};

/// The elements of RawDocument::elements() in @a document.
std::vector<pugi::xml_node> elements_of(const pugi::xml_document& document);

}  // namespace fuzz
