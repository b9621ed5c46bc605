// Usage: set_setting CONFIG NAME VALUE
#include "xml/config.h"
#include "xml/xml_document.h"

int main(int argc, char* argv[]) {
  if (argc != 4) return 1;
  const auto document = newXmlDocument();
  if (document->load(argv[1]) == 0) return 1;
  const XmlNodeList settings = document->root().select_nodes(config::kSettings);
  for (int i = 0; i < settings.length(); ++i) {
    XmlNode setting = settings.item(i);
    if (setting.get_attribute(config::kName) != argv[2]) continue;
    setting.set_attribute(config::kValue, argv[3]);
    return document->save(argv[1]) == 1 ? 0 : 1;
  }
  return 1;
}
