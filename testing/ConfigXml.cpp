// SPDX-License-Identifier: Apache-2.0
#include "testing/ConfigXml.h"

#include <libxml/parser.h>

std::string widgetElement(const std::string& body,
                          const std::string& attributes) {
  return "<widget xmlns=\"http://www.w3.org/ns/widgets\"" +
         (attributes.empty() ? std::string() : " " + attributes) + ">" + body +
         "</widget>\n";
}

std::string configXml(const std::string& body, const std::string& attributes) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
         widgetElement(body, attributes);
}

xmltext::DocPtr readXml(const std::string& text) {
  return xmltext::DocPtr(xmlReadMemory(
      text.data(), static_cast<int>(text.size()), "config.xml", nullptr,
      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}
