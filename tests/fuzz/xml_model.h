// A model of what loading and changing a document means, on top of the parser alone.
#pragma once

#include <cstddef>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <vector>

namespace fuzz {

/// The text of a file: its bytes; for UTF-16 and UTF-32, the text in UTF-8 as a save spells it.
/// Nothing if the units are malformed, if it contains a NUL, or if a save would change more.
std::optional<std::string> text_of_file(const std::string& bytes);

/// The reverse: the bytes of a file in the encoding of the file that held @a original.
std::string file_with_text(const std::string& text, const std::string& original);

/// Whether @a original is a UTF-16 or UTF-32 file.
bool is_wide(const std::string& original);

bool is_utf8(const std::string& bytes);

/// @a text with `?` for each byte below 0x20 other than tab, line feed and carriage return.
std::string without_control_characters(std::string text);

/// Whether the parser itself accepts a file with these bytes.
bool parser_accepts(const std::string& bytes);

/// Whether a file with @a text is a document: well-formed, with one root element and nothing but
/// comments and the like around it.
bool is_document(const std::string& text);

/// A document parsed from a copy of its text, every value as it is written there.
class RawDocument {
 public:
  explicit RawDocument(std::string text);

  /// The root element, then the settings in document order.
  [[nodiscard]] const std::vector<pugi::xml_node>& elements() const { return elements_; }

  /// Where an attribute is in the text, or where it would be inserted.
  struct AttributePosition {
    std::size_t begin;  ///< of the value, without its quotes; or of the attribute to insert
    std::size_t size;   ///< of the value
    bool exists;
  };

  /// The first attribute of an element that is called @a name. One that does not exist belongs
  /// after the last attribute, or after the element's name.
  [[nodiscard]] AttributePosition find_attribute(std::size_t element, const char* name) const;

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
