// The XML operations that the agent's configuration file needs. A change is made in the document's
// text, so that everything but the changed attribute values survives a save byte for byte: blanks
// in tags, line ends, comments, entity references and the byte order mark.
//
// UTF-16 and UTF-32 documents are converted, and a save may change quotes, blanks in tags and the
// spelling of references. A document in which a save would change more is not loaded.
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

/// Handle of an element, cheap to copy. The document owns the element: do not use a handle after
/// its document is destroyed or loaded again.
///
/// A handle may have no element (see XmlDocument::root and XmlNodeList::item). Such a handle has no
/// attributes, selects nothing and ignores changes.
class XmlNode {
 public:
  /// Sets an attribute, in the document in memory only: the first one called @a name, or a new one
  /// after the others.
  ///
  /// @param name  an XML name
  /// @param value  plain text; it is escaped here. Bytes below 0x20 other than tab, line feed and
  ///               carriage return, which XML cannot represent, become `?`. All other bytes are
  ///               stored as they are. For a UTF-16 or UTF-32 document it must be UTF-8: malformed
  ///               sequences are dropped, and surrogates and code points above U+10FFFF become `?`.
  void set_attribute(const char* name, const char* value);

  /// @return the value of the first attribute called @a name; empty if there is none. Character
  ///         references and the five predefined entities are resolved, references to other
  ///         entities stay as they are. The bytes are those of the file; they are UTF-8 if the
  ///         document is UTF-16 or UTF-32.
  [[nodiscard]] std::string get_attribute(const char* name) const;

  /// @return the elements that @a xpath (XPath 1.0, relative to this element) selects, in document
  ///         order; attributes and text are left out. Empty if the expression is invalid.
  [[nodiscard]] XmlNodeList select_nodes(const char* xpath) const;

 private:
  friend class XmlDocument;
  friend class XmlNodeList;

  XmlNode(XmlDocument* document, pugi::xml_node_struct* element)
      : document_(document), element_(element) {}

  XmlDocument* document_;
  pugi::xml_node_struct* element_;  ///< null for none
};

/// Elements of a document, in document order. Do not use a list after its document is destroyed or
/// loaded again; changes of attributes do not affect it.
class XmlNodeList {
 public:
  /// @param index  counted from 0
  /// @return the element; a handle without one if @a index is out of range
  [[nodiscard]] XmlNode item(int index) const;

  [[nodiscard]] int length() const { return static_cast<int>(elements_.size()); }

 private:
  friend class XmlNode;

  explicit XmlNodeList(XmlDocument* document) : document_(document) {}

  XmlDocument* document_;
  std::vector<pugi::xml_node_struct*> elements_;
};

/// A document in memory: its text, and the tree that was parsed from it.
class XmlDocument {
 public:
  XmlDocument();
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  /// Reads and parses a file, which replaces what was loaded before.
  ///
  /// Encodings of one byte per unit, such as UTF-8, ISO-8859-1 and GBK, are taken as bytes and
  /// never converted. UTF-16 and UTF-32 are recognised by a byte order mark or by the `<` of the
  /// first tag.
  ///
  /// @return nonzero if the document is loaded; 0, with the document empty, if the file cannot be
  ///         read to its end or is malformed. A NUL character, more or fewer than one root element,
  ///         and text outside the root element count as malformed. A UTF-16 or UTF-32 document is
  ///         also refused if a save would change more than described above, for example an empty
  ///         element that is written as two tags.
  [[nodiscard]] int load(const char* path);

  /// @return the root element; a handle without one if nothing is loaded
  [[nodiscard]] XmlNode root();

  /// Writes the whole document in the encoding of the loaded file, see utility::replace_durably.
  ///
  /// @return nonzero if the document is on disk; 0 if it is not, or if nothing is loaded
  int save(const char* path);

 private:
  friend class XmlNode;

  void set_attribute(pugi::xml_node_struct* element, const char* name, const char* value);

  std::unique_ptr<pugi::xml_document> tree_;
  std::string text_;   ///< the bytes of the file; UTF-8 if it is UTF-16 or UTF-32
  std::string start_;  ///< the first bytes of the file, which show its encoding
  /// How many bytes were added to each start tag that was changed, by the offset of its name in the
  /// text as it was loaded.
  std::map<std::ptrdiff_t, std::ptrdiff_t> added_bytes_;
};

/// @return a new, empty document
[[nodiscard]] std::unique_ptr<XmlDocument> newXmlDocument();
