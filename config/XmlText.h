// SPDX-License-Identifier: Apache-2.0
// XmlText is the small vocabulary in which this tree reads libxml2 trees:
// element names, attributes as std::string, and a scope that sends libxml2's
// reports somewhere other than standard error while it lives. The parser of
// config.xml and the package linter both read with it.
#ifndef WIDGETENGINE_XMLTEXT_H_
#define WIDGETENGINE_XMLTEXT_H_

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <memory>
#include <string>

namespace xmltext {

// How this tree reads every document that comes from a package or the
// network: entities are not substituted, no external entity or DTD is loaded
// and nothing is fetched. libxml2's own limits (element depth, text size,
// entity loops) stay on.
constexpr int kReadOptions =
    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// XML's white space and the other C0 spacing characters (9 to 13).
bool isSpace(unsigned char c);

// Removes leading and trailing white space and cuts every inner run down to
// its first character, which is kept as it is (a tab stays a tab).
std::string normalizeSpace(const std::string& text);

// True for an element node of that name. Only the local name counts: the
// namespace is not looked at.
bool isElement(xmlNode* node, const char* name);

// Whether the element has the attribute. Matching is on the local name, so
// "lang" also finds xml:lang.
bool hasAttribute(xmlNode* element, const char* name);

// The attribute's value exactly as written; empty when it is absent.
std::string getRawAttribute(xmlNode* element, const char* name);

struct DocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
typedef std::unique_ptr<xmlDoc, DocFree> DocPtr;

// While it lives, libxml2's structured reports on this thread go to handler
// with context, and the handlers that were there come back after, so that a
// program's own use of libxml2 is unaffected. kQuiet also silences the older
// generic reports and forgets the thread's last error on the way out.
class ErrorRoute {
 public:
  enum Mode { kStructured, kQuiet };

  ErrorRoute(xmlStructuredErrorFunc handler, void* context,
             Mode mode = kStructured);
  ~ErrorRoute();

  ErrorRoute(const ErrorRoute&) = delete;
  ErrorRoute& operator=(const ErrorRoute&) = delete;

 private:
  Mode mode;
  xmlStructuredErrorFunc structured;
  void* structuredContext;
  xmlGenericErrorFunc generic;
  void* genericContext;
};

// A structured handler that drops every report.
void ignoreError(void* context, xmlErrorPtr error);

}  // namespace xmltext

#endif  // WIDGETENGINE_XMLTEXT_H_
