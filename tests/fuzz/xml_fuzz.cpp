// Loading, reading, changing and saving a configuration file.
// Input: up to eight changes, each of them element|attribute|value|, then the bytes of the file.
// A field that begins with a digit begins a change; element 0 is the root, 1 the first setting.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

#include "support.h"
#include "xml/config.h"
#include "xml/xml_document.h"
#include "xml_model.h"

namespace {

constexpr char kPath[] = "/var/log/agent/config.xml";
constexpr std::size_t kMostChanges = 8;

struct Change {
  std::size_t element;
  std::string name;
  std::string value;
};

struct Input {
  std::vector<Change> changes;
  std::string file;
};

// ---- Input ----

/// set_attribute() requires an XML name.
bool is_name(const std::string& text) {
  const auto is_letter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  };
  const auto is_in_name = [&](char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
  };
  return !text.empty() && is_letter(text.front()) &&
         std::all_of(text.begin(), text.end(), is_in_name);
}

Change read_change(fuzz::Fields& fields) {
  const std::string element = fields.next();
  const std::string name = fields.next();
  const std::string value = fuzz::before_nul(fields.next());
  return {static_cast<std::size_t>(element.front() - '0'), is_name(name) ? name : config::kValue,
          value};
}

Input read_input(const std::uint8_t* data, std::size_t size) {
  Input input;
  fuzz::Fields fields(data, size);
  const auto at_change = [&] {
    const std::string rest = fields.rest();
    return !rest.empty() && rest.front() >= '0' && rest.front() <= '9';
  };
  while (at_change() && input.changes.size() < kMostChanges) {
    input.changes.push_back(read_change(fields));
  }
  input.file = fields.rest();
  return input;
}

// ---- Loading and reading ----

std::vector<XmlNode> elements_of(XmlDocument& document) {
  std::vector<XmlNode> elements = {document.root()};
  const XmlNodeList settings = document.root().select_nodes(config::kSettings);
  for (int i = 0; i < settings.length(); ++i) elements.push_back(settings.item(i));
  fuzz::check_equal(settings.item(-1).get_attribute(config::kName), "",
                    "no element before the first");
  fuzz::check_equal(settings.item(settings.length()).get_attribute(config::kName), "",
                    "no element after the last");
  return elements;
}

void check_load_failure(XmlDocument& document, const std::string& file) {
  document.root().set_attribute(config::kName, "x");
  fuzz::check_equal(document.root().get_attribute(config::kName), "", "nothing loaded, no element");
  fuzz::check_equal(document.root().select_nodes(config::kSettings).length(), 0,
                    "nothing loaded, nothing selected");
  fuzz::check_equal(document.save(kPath), 0, "nothing loaded, nothing saved");
  fuzz::check_equal(fuzz::read_file(kPath), file, "a failed save leaves the file alone");
  std::string value = "before";
  fuzz::check_equal(config::get_config_var(kPath, config::kVersion, value), -1,
                    "no setting is found in a file that cannot be loaded");
  fuzz::check_equal(value, "before", "a failed lookup leaves the value alone");
}

/// @return the first setting called @a name, or @a fallback, as the parser alone reads it
std::string setting_value(const std::vector<pugi::xml_node>& elements, const std::string& name,
                          const std::string& fallback) {
  for (std::size_t i = 1; i < elements.size(); ++i) {
    if (elements[i].attribute(config::kName).value() == name) {
      return elements[i].attribute(config::kValue).value();
    }
  }
  return fallback;
}

/// Compares the values of the attributes @a names, in the document and by a lookup in the file,
/// with those that the parser alone finds in @a text.
void check_reading(const std::vector<XmlNode>& actual, const std::string& text,
                   const string_list& names) {
  pugi::xml_document document;
  (void)document.load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
  const std::vector<pugi::xml_node> expected = fuzz::elements_of(document);
  fuzz::check_equal(static_cast<long long>(actual.size()), static_cast<long long>(expected.size()),
                    "all settings are selected");
  for (std::size_t i = 0; i < actual.size(); ++i) {
    for (const std::string& name : names) {
      fuzz::check_equal(actual[i].get_attribute(name.c_str()),
                        expected[i].attribute(name.c_str()).value(),
                        "an attribute has the parser's value");
    }
  }
  for (const std::string& name : names) {
    std::string value = "before";
    fuzz::check_equal(config::get_config_var(kPath, name.c_str(), value), 0,
                      "settings can be looked up in a file that can be loaded");
    fuzz::check_equal(value, setting_value(expected, name, "before"), "the first setting is found");
  }
}

// ---- Changing and saving ----

/// Whether @a value is stored as it is, apart from control characters: a wide document needs UTF-8.
bool is_storable(const std::string& value, const std::string& file) {
  return !fuzz::is_wide(file) || fuzz::is_utf8(value);
}

/// Saves, and saves again.
/// @return the bytes of the file
std::string save(XmlDocument& document) {
  fuzz::check(document.save(kPath) != 0, "a document can be saved");
  std::string file = fuzz::read_file(kPath);
  fuzz::check(document.save(kPath) != 0, "a document can be saved again");
  fuzz::check_equal(fuzz::read_file(kPath), file, "saving twice gives the same bytes");
  const std::filesystem::directory_iterator files(fuzz::kInstallPath);
  fuzz::check(std::distance(begin(files), end(files)) == 1, "a save leaves no other file");
  return file;
}

/// Checks that @a after differs from @a before only in the value of the attribute @a name of
/// @a element, or in that attribute if there was none.
void check_only_change(const std::string& before, const std::string& after, std::size_t element,
                       const char* name) {
  const auto old = fuzz::RawDocument(before).find_attribute(element, name);
  const auto changed = fuzz::RawDocument(after).find_attribute(element, name);
  fuzz::check(changed.exists, "an attribute that was set is in the text");
  std::string inserted = after.substr(changed.begin, changed.size);
  if (!old.exists) inserted = std::string(" ") + name + "=\"" + inserted + '"';
  std::string expected = before;
  expected.replace(old.begin, old.size, inserted);
  fuzz::check_equal(after, expected, "only the value that was set differs");
}

/// Makes one change in a document with @a text and saves it.
/// @return the saved text
std::string check_change(XmlDocument& document, XmlNode element, std::size_t index,
                         const Change& change, const std::string& text, const std::string& file) {
  element.set_attribute(change.name.c_str(), change.value.c_str());
  if (is_storable(change.value, file)) {
    fuzz::check_equal(element.get_attribute(change.name.c_str()),
                      fuzz::without_control_characters(change.value),
                      "an attribute has the value that was set");
  }
  const std::string saved_file = save(document);
  const std::optional<std::string> saved = fuzz::text_of_file(saved_file);
  fuzz::check(saved && fuzz::is_document(*saved), "what is saved is a document");
  fuzz::check_equal(fuzz::file_with_text(*saved, file), saved_file, "the encoding is kept");
  check_only_change(text, *saved, index, change.name.c_str());
  return *saved;
}

/// Makes the changes in a document that was loaded from @a file.
/// @return the bytes of the file that was saved last
std::string check_changes(XmlDocument& document, const std::vector<Change>& changes,
                          const std::string& file) {
  std::string text = fuzz::text_of_file(file).value();
  std::vector<XmlNode> elements = elements_of(document);
  string_list names = {config::kName, config::kValue, config::kUpdateHost, config::kVersion};
  for (const Change& change : changes) names.push_back(change.name);
  check_reading(elements, text, names);
  fuzz::check_equal(save(document), fuzz::file_with_text(text, file),
                    "an unchanged document is saved as it was");

  for (const Change& change : changes) {
    const std::size_t index = change.element % elements.size();
    text = check_change(document, elements[index], index, change, text, file);
    check_reading(elements, text, names);
  }
  return fuzz::file_with_text(text, file);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input = read_input(data, size);
  fuzz::write_file(kPath, input.file);
  const std::optional<std::string> text = fuzz::text_of_file(input.file);

  const std::unique_ptr<XmlDocument> document = newXmlDocument();
  const bool loaded = document->load(kPath) != 0;
  fuzz::check(!loaded || fuzz::parser_accepts(input.file), "the parser accepts what is loaded");
  fuzz::check(loaded == (text && fuzz::is_document(*text)), "documents are loaded, and only those");
  if (!loaded) {
    check_load_failure(*document, input.file);
    return 0;
  }
  const std::string saved = check_changes(*document, input.changes, input.file);
  XmlDocument other;
  fuzz::check(other.load(kPath) != 0, "what is saved loads again");
  (void)check_changes(other, {}, saved);
  fuzz::check(document->load(kPath) != 0, "what is saved loads again into the same document");
  (void)check_changes(*document, input.changes, saved);
  return 0;
}
