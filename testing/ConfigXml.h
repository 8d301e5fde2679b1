// SPDX-License-Identifier: Apache-2.0
// Widget configuration documents for tests: a <widget> root in the widgets
// namespace around the given children, with the given root attributes
// (written as in the document, e.g. "id=\"urn:x\" version=\"1.0\"").
#ifndef WIDGETENGINE_TESTING_CONFIGXML_H_
#define WIDGETENGINE_TESTING_CONFIGXML_H_

#include <string>

#include "config/XmlText.h"

// The root element alone, for documents that need a prolog of their own.
std::string widgetElement(const std::string& body,
                          const std::string& attributes = "");

// A whole config.xml: the XML declaration and the root element.
std::string configXml(const std::string& body,
                      const std::string& attributes = "");

// text parsed as a document named config.xml: nothing fetched, nothing
// printed; null when it is not well-formed.
xmltext::DocPtr readXml(const std::string& text);

#endif  // WIDGETENGINE_TESTING_CONFIGXML_H_
