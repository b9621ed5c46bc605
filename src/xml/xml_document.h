// The XML operations that the agent's configuration file needs. Changing a document means changing
// its text: all but the attribute values that were set survives a save byte for byte, down to
// blanks in tags, line ends, comments, entity references and the byte order mark.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace pugi {
class xml_document;
struct xml_node_struct;
}  // namespace pugi

class XmlDocument;
class XmlNodeList;

/// Handle of an element, small and freely copied. The document owns the element: a handle must not
/// be used once its document is gone or has been loaded again.
///
/// There may be no element behind a handle (see XmlDocument::root and XmlNodeList::item). Such a
/// handle has no attributes, selects nothing and ignores what is set.
class XmlNode {
 public:
  /// Gives the attribute a value, in the document in memory only. The first attribute called
  /// @a name is changed; an element without one gets it behind those it has.
  ///
  /// @param name  an XML name
  /// @param value  plain text, escaped here as far as needed. Its bytes are stored as they are;
  /// only
  ///               in a UTF-16 or UTF-32 document must it be UTF-8, and bytes that are not are
  ///               dropped or replaced by U+FFFD.
  void set_attribute(const char* name, const char* value);

  /// @return the value of the first attribute called @a name, empty when there is none. Character
  ///         references and the five predefined entities are resolved, references to other
  ///         entities stay as they are written. The bytes are those of the file, in its encoding;
  ///         of a UTF-16 or UTF-32 document they are UTF-8.
  [[nodiscard]] std::string get_attribute(const char* name) const;

  /// @return the elements that @a xpath (XPath 1.0) selects, seen from this element, in document
  ///         order; attributes and text are left out. Empty when the expression is not valid.
  [[nodiscard]] XmlNodeList select_nodes(const char* xpath) const;

 private:
  friend class XmlDocument;
  friend class XmlNodeList;

  XmlNode(XmlDocument* document, pugi::xml_node_struct* element)
      : document_(document), element_(element) {}

  XmlDocument* document_;
  pugi::xml_node_struct* element_;  ///< null where there is no element
};

/// Elements of a document, in document order. Like its handles it must not be used once the
/// document is gone or has been loaded again; changes of attributes do not affect it.
class XmlNodeList {
 public:
  /// @param index  counted from 0
  /// @return the element; a handle without one when @a index is negative or not below length()
  [[nodiscard]] XmlNode item(int index) const;

  [[nodiscard]] int length() const { return static_cast<int>(elements_.size()); }

 private:
  friend class XmlNode;

  explicit XmlNodeList(XmlDocument* document) : document_(document) {}

  XmlDocument* document_;
  std::vector<pugi::xml_node_struct*> elements_;
};

/// How a file stores its characters: as bytes of whatever encoding, or in wider units.
struct XmlEncoding {
  std::size_t unit_bytes;
  bool big_endian;
};

/// A document in memory: its text, and the tree that was read from it.
class XmlDocument {
 public:
  XmlDocument();
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  /// Reads and parses a file, in the place of what was loaded before.
  ///
  /// Encodings of one byte per unit, such as UTF-8, ISO-8859-1 and GBK, are taken as bytes and
  /// never converted. UTF-16 and UTF-32 are recognised by a byte order mark or by the `<` in front.
  ///
  /// @return nonzero when the document is loaded; 0, with the document empty, when the file cannot
  ///         be read or is malformed: also when it holds a NUL character, no or several root
  ///         elements, text beside the root element, or units that are not UTF-16 or UTF-32
  [[nodiscard]] int load(const char* path);

  /// @return the root element; a handle without one when nothing is loaded
  [[nodiscard]] XmlNode root();

  /// Writes the whole document, in the encoding of the loaded file, as replace_durably does: a
  /// crash or a full disk leaves the old or the new document.
  ///
  /// @return nonzero when the document is on disk; 0 when it is not, or when nothing is loaded
  int save(const char* path);

 private:
  friend class XmlNode;

  void set_attribute(pugi::xml_node_struct* element, const char* name, const char* value);

  std::unique_ptr<pugi::xml_document> tree_;
  std::string text_;  ///< the bytes of the file; UTF-8 when its units have several bytes
  XmlEncoding encoding_ = {1, false};
  /// By how many bytes the start tags that were changed have grown, by their places in the text as
  /// it was loaded.
  std::map<std::ptrdiff_t, std::ptrdiff_t> growth_;
};

/// @return a new, empty document
[[nodiscard]] std::unique_ptr<XmlDocument> newXmlDocument();
