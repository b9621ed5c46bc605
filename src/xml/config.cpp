#include "xml/config.h"

#include <memory>

#include "xml/xml_document.h"

namespace config {

int get_config_var(const std::string& config_path, const char* name, std::string& value) {
  const std::unique_ptr<XmlDocument> document = newXmlDocument();
  if (document->load(config_path.c_str()) == 0) return -1;
  const XmlNodeList settings = document->root().select_nodes(kSettings);
  for (int i = 0; i < settings.length(); ++i) {
    const XmlNode setting = settings.item(i);
    if (setting.get_attribute(kName) == name) {
      value = setting.get_attribute(kValue);
      break;
    }
  }
  return 0;
}

std::string get_config_var(const std::string& config_path, const char* name) {
  std::string value;
  (void)get_config_var(config_path, name, value);  // value stays empty if the file is missing
  return value;
}

}  // namespace config
