// SPDX-License-Identifier: Apache-2.0
#include "testing/ConfigXml.h"

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
