// SPDX-License-Identifier: Apache-2.0
#include "config/XmlText.h"

#include <libxml/globals.h>
#include <libxml/xmlstring.h>

namespace xmltext {

bool isSpace(unsigned char c) { return c == ' ' || (c >= 9 && c <= 13); }

std::string normalizeSpace(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  bool inRun = false;
  for (char c : text) {
    if (isSpace(static_cast<unsigned char>(c))) {
      if (!inRun && !result.empty()) result.push_back(c);
      inRun = true;
    } else {
      result.push_back(c);
      inRun = false;
    }
  }
  if (inRun && !result.empty()) result.pop_back();
  return result;
}

namespace {

const xmlChar* X(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

void ignoreGenericError(void*, const char*, ...) {}

}  // namespace

bool isElement(xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, X(name)) == 0;
}

bool hasAttribute(xmlNode* element, const char* name) {
  return xmlHasProp(element, X(name)) != nullptr;
}

std::string getRawAttribute(xmlNode* element, const char* name) {
  xmlChar* value = xmlGetProp(element, X(name));
  if (!value) return std::string();
  std::string result(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return result;
}

void ignoreError(void*, xmlErrorPtr) {}

ErrorRoute::ErrorRoute(xmlStructuredErrorFunc handler, void* context,
                       Mode mode)
    : mode(mode),
      structured(xmlStructuredError),
      structuredContext(xmlStructuredErrorContext),
      generic(xmlGenericError),
      genericContext(xmlGenericErrorContext) {
  if (mode == kQuiet) xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
  xmlSetStructuredErrorFunc(context, handler);
}

ErrorRoute::~ErrorRoute() {
  if (mode == kQuiet) xmlSetGenericErrorFunc(genericContext, generic);
  xmlSetStructuredErrorFunc(structuredContext, structured);
  if (mode == kQuiet) xmlResetLastError();
}

}  // namespace xmltext
