// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetConfigParser.h"

#include <libxml/parser.h>
#include <libxml/relaxng.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlschemastypes.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <string>
#include <unordered_map>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/Refusal.h"
#include "config/WidgetConfig.h"
#include "config/WidgetFeatureInfo.h"
#include "config/WidgetIconInfo.h"
#include "config/WidgetPreferenceInfo.h"

const char* const WidgetConfigParser::kSchemaPath = WIDGETENGINE_SCHEMA_PATH;

namespace {

const xmlChar* X(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

void ignoreGenericError(void*, const char*, ...) {}
void ignoreStructuredError(void*, xmlErrorPtr) {}

// The first complaint of a parse or validation, for the refusal's reason:
// "at line L: message".
struct FirstError {
  std::string text;
};

std::string describe(const xmlError* error) {
  if (error == nullptr) return "";
  std::string message = error->message ? error->message : "";
  while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
    message.pop_back();
  std::string text;
  if (error->line > 0) text = " at line " + std::to_string(error->line);
  if (!message.empty()) text += ": " + message;
  return text;
}

void rememberFirstError(void* context, xmlErrorPtr error) {
  FirstError* first = static_cast<FirstError*>(context);
  if (first->text.empty()) first->text = describe(error);
}

// libxml2 reports through per-thread handlers that write to standard error by
// default. While one parse() runs they are silenced, so that the one result
// line on standard output is all the caller sees, and afterwards they are put
// back as they were, so that the embedding program's own use of libxml2 is
// unaffected.
class QuietLibxml {
 public:
  QuietLibxml()
      : generic(xmlGenericError),
        genericContext(xmlGenericErrorContext),
        structured(xmlStructuredError),
        structuredContext(xmlStructuredErrorContext) {
    xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
    xmlSetStructuredErrorFunc(nullptr, ignoreStructuredError);
  }
  ~QuietLibxml() {
    xmlSetGenericErrorFunc(genericContext, generic);
    xmlSetStructuredErrorFunc(structuredContext, structured);
    xmlResetLastError();
  }

  QuietLibxml(const QuietLibxml&) = delete;
  QuietLibxml& operator=(const QuietLibxml&) = delete;

 private:
  xmlGenericErrorFunc generic;
  void* genericContext;
  xmlStructuredErrorFunc structured;
  void* structuredContext;
};

struct DocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
struct SchemaParserFree {
  void operator()(xmlRelaxNGParserCtxt* context) const {
    xmlRelaxNGFreeParserCtxt(context);
  }
};
struct SchemaFree {
  void operator()(xmlRelaxNG* schema) const { xmlRelaxNGFree(schema); }
};
struct ValidatorFree {
  void operator()(xmlRelaxNGValidCtxt* context) const {
    xmlRelaxNGFreeValidCtxt(context);
  }
};

// The document is read as it stands: entities are not substituted, no
// external entity or DTD is loaded and nothing is fetched from the network.
// libxml2's own limits (element depth, text size, entity loops) stay on.
const int kReadOptions = XML_PARSE_NONET | XML_PARSE_NOERROR |
                         XML_PARSE_NOWARNING;

// Entity references that the parser leaves in the tree are expanded later,
// whenever libxml2 turns a node list into a string (attribute lookup, text,
// validation), and that expansion concatenates piece by piece. A small
// document can thus demand gigabytes of text or a quadratic number of copies
// (one large entity referenced many times). EntityBudget measures what each
// node list would expand to, without building it, and refuses documents
// beyond fixed bounds before anything expands.
class EntityBudget {
 public:
  explicit EntityBudget(xmlDoc* doc) : doc(doc) {}

  // True when every text and attribute value of the tree expands within the
  // bounds.
  bool fits(xmlNode* root) {
    std::vector<xmlNode*> pending(1, root);
    while (!pending.empty()) {
      xmlNode* element = pending.back();
      pending.pop_back();
      for (xmlAttr* attr = element->properties; attr; attr = attr->next) {
        if (!charge(attr->children)) return false;
      }
      if (!charge(element->children)) return false;
      for (xmlNode* child = element->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) pending.push_back(child);
      }
    }
    return true;
  }

 private:
  // What a node list expands to: its bytes and the number of pieces that
  // are concatenated one after another to make it.
  struct Size {
    uint64_t bytes = 0;
    uint64_t pieces = 0;
    bool hasReference = false;
    bool inProgress = false;
  };

  // Anything above these is refused. Values without entity references are
  // never measured against them.
  static const uint64_t kMaxExpandedBytes = 16u << 20;
  static const uint64_t kMaxPieces = 1u << 20;
  // Bytes copied while concatenating one value, at most pieces x length.
  static const uint64_t kMaxCopyCost = 256u << 20;
  static const int kMaxEntityDepth = 40;

  static uint64_t add(uint64_t a, uint64_t b) {
    const uint64_t sum = a + b;
    return sum < a ? UINT64_MAX : sum;
  }

  bool charge(xmlNode* list) {
    Size size;
    if (!measure(list, 0, &size)) return false;
    if (!size.hasReference) return true;
    expanded = add(expanded, size.bytes);
    pieces = add(pieces, size.pieces);
    if (expanded > kMaxExpandedBytes || pieces > kMaxPieces) return false;
    const uint64_t cost =
        size.pieces != 0 && size.bytes > UINT64_MAX / size.pieces
            ? UINT64_MAX
            : size.bytes * size.pieces;
    return cost <= kMaxCopyCost;
  }

  // Sizes the flattened text of a node list the way libxml2 flattens it:
  // text and CDATA pieces, entity references replaced by their entity's
  // content, other nodes contributing nothing.
  bool measure(xmlNode* list, int depth, Size* size) {
    for (xmlNode* node = list; node; node = node->next) {
      if (node->type == XML_TEXT_NODE ||
          node->type == XML_CDATA_SECTION_NODE) {
        if (node->content) {
          size->bytes = add(size->bytes, strlen(
              reinterpret_cast<const char*>(node->content)));
        }
        size->pieces = add(size->pieces, 1);
      } else if (node->type == XML_ENTITY_REF_NODE) {
        size->hasReference = true;
        Size inner;
        if (!measureEntity(node, depth, &inner)) return false;
        size->bytes = add(size->bytes, inner.bytes);
        size->pieces = add(size->pieces, add(inner.pieces, 1));
      }
      if (size->hasReference &&
          (size->bytes > kMaxExpandedBytes || size->pieces > kMaxPieces)) {
        return false;
      }
    }
    return true;
  }

  bool measureEntity(xmlNode* reference, int depth, Size* size) {
    xmlEntity* entity = xmlGetDocEntity(doc, reference->name);
    if (!entity) {
      if (reference->content) {
        size->bytes = strlen(reinterpret_cast<const char*>(reference->content));
      }
      return true;
    }
    auto known = sizes.find(entity);
    if (known != sizes.end()) {
      // A size still being computed means the entity refers to itself.
      if (known->second.inProgress) return false;
      *size = known->second;
      return true;
    }
    if (depth >= kMaxEntityDepth) return false;
    sizes[entity].inProgress = true;
    Size result;
    if (!measure(entity->children, depth + 1, &result)) return false;
    sizes[entity] = result;
    *size = result;
    return true;
  }

  xmlDoc* doc;
  uint64_t expanded = 0;
  uint64_t pieces = 0;
  std::unordered_map<const xmlEntity*, Size> sizes;
};

bool isSpace(unsigned char c) { return c == ' ' || (c >= 9 && c <= 13); }

// Removes leading and trailing white space and cuts every inner run down to
// its first character, which is kept as it is (a tab stays a tab).
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

bool hasAttribute(xmlNode* node, const char* name) {
  return xmlHasProp(node, X(name)) != nullptr;
}

// The attribute's value exactly as written. Matching is on the local name,
// so "lang" also finds xml:lang.
std::string getRawAttribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, X(name));
  if (!value) return std::string();
  std::string result(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return result;
}

std::string getAttribute(xmlNode* node, const char* name) {
  return normalizeSpace(getRawAttribute(node, name));
}

bool isElement(xmlNode* node, const char* name) {
  return xmlStrcmp(node->name, X(name)) == 0;
}

}  // namespace

WidgetConfigParser::WidgetConfigParser(const std::string& path,
                                       WidgetConfig* config,
                                       const std::string& schemaPath)
    : path(path), config(config), schemaPath(schemaPath), doc(nullptr),
      node(nullptr) {}

WidgetConfigParser::~WidgetConfigParser() {}

namespace {

// Real configuration documents hold a few dozen elements. libxml2 validates
// the open content of the schema in time that grows with the square of an
// element's children, and matches an element's attributes in time that grows
// with the square of their number, so a document far beyond any real one is
// refused as invalid instead of holding the browser for minutes.
const size_t kMostElements = 10000;
const size_t kMostAttributes = 10000;
const size_t kMostAttributesPerElement = 256;

bool isTooLargeToValidate(xmlNode* root) {
  size_t elements = 0;
  size_t attributes = 0;
  xmlNode* at = root;
  while (at) {
    if (at->type == XML_ELEMENT_NODE) {
      if (++elements > kMostElements) return true;
      size_t own = 0;
      for (xmlAttr* attr = at->properties; attr; attr = attr->next) {
        if (++own > kMostAttributesPerElement) return true;
      }
      attributes += own;
      if (attributes > kMostAttributes) return true;
    }
    if (at->children && at->type == XML_ELEMENT_NODE) {
      at = at->children;
      continue;
    }
    while (at && at != root && !at->next) at = at->parent;
    if (!at || at == root) break;
    at = at->next;
  }
  return false;
}

// libxml2 checks a start tag's attributes against each other and links each
// new one at the end of the element's list, so reading one tag costs the
// square of its number of attributes: a 200 kB tag holds the parser for a
// minute. The file is therefore scanned before libxml2 reads it, and a tag
// with more attribute marks than kMostAttributesPerElement is refused.
//
// The scan sees the markup characters of the file, whatever its width:
// a document in UTF-16 or UCS-4 is read unit by unit, one in EBCDIC through
// the characters that all EBCDIC pages share, anything else byte by byte.
// Every unit that is not ASCII becomes 'x'.
std::string markupOf(const std::string& bytes) {
  const auto at = [&bytes](size_t i) {
    return static_cast<unsigned char>(bytes[i]);
  };
  const size_t n = bytes.size();
  const auto startsWith = [&](std::initializer_list<unsigned char> prefix) {
    if (n < prefix.size()) return false;
    size_t i = 0;
    for (unsigned char c : prefix) {
      if (at(i++) != c) return false;
    }
    return true;
  };
  std::string markup;
  const auto units = [&](size_t width, bool bigEndian) {
    markup.reserve(n / width);
    for (size_t i = 0; i + width <= n; i += width) {
      uint32_t unit = 0;
      for (size_t k = 0; k < width; ++k) {
        const uint32_t byte = at(i + (bigEndian ? k : width - 1 - k));
        unit = (unit << 8) | byte;
      }
      markup.push_back(unit < 0x80 ? static_cast<char>(unit) : 'x');
    }
  };
  if (startsWith({0x00, 0x00, 0xFE, 0xFF}) ||
      startsWith({0x00, 0x00, 0x00, 0x3C})) {
    units(4, true);
  } else if (startsWith({0xFF, 0xFE, 0x00, 0x00}) ||
             startsWith({0x3C, 0x00, 0x00, 0x00})) {
    units(4, false);
  } else if (startsWith({0xFE, 0xFF}) || startsWith({0x00, 0x3C})) {
    units(2, true);
  } else if (startsWith({0xFF, 0xFE}) || startsWith({0x3C, 0x00})) {
    units(2, false);
  } else if (startsWith({0x4C, 0x6F, 0xA7, 0x94})) {
    markup.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      char c;
      switch (at(i)) {
        case 0x4C: c = '<'; break;
        case 0x6E: c = '>'; break;
        case 0x7E: c = '='; break;
        case 0x50: c = '&'; break;
        case 0x7F: c = '"'; break;
        case 0x7D: c = '\''; break;
        case 0x5A: c = '!'; break;
        case 0x6F: c = '?'; break;
        case 0x61: c = '/'; break;
        case 0x60: c = '-'; break;
        default: c = 'x'; break;
      }
      markup.push_back(c);
    }
  } else {
    return bytes;
  }
  return markup;
}

// True when some start tag carries more attribute marks than any real
// element has attributes. In a start tag written out, every attribute has
// one '=' outside quotes and nothing else does. A start tag inside an entity
// value may spell '=' and quotes as character references; the first '&'
// outside quotes shows one, and from there every '=' and '&' up to the next
// '<' counts. A declaration counts every '=' and '&' up to the next '<', so
// that a start tag spelled entirely with references inside an entity value
// is counted too. Comments, CDATA sections and processing instructions hold
// no tags.
bool hasOverlongTag(const std::string& markup) {
  const size_t n = markup.size();
  size_t i = 0;
  const auto skipPast = [&](const char* end, size_t from) {
    const size_t found = markup.find(end, from);
    return found == std::string::npos ? n : found + strlen(end);
  };
  while (i < n) {
    const size_t open = markup.find('<', i);
    if (open == std::string::npos) break;
    if (markup.compare(open, 4, "<!--") == 0) {
      i = skipPast("-->", open + 4);
    } else if (markup.compare(open, 9, "<![CDATA[") == 0) {
      i = skipPast("]]>", open + 9);
    } else if (markup.compare(open, 2, "<?") == 0) {
      i = skipPast("?>", open + 2);
    } else if (markup.compare(open, 2, "</") == 0) {
      i = open + 2;
    } else {
      bool counting = markup.compare(open, 2, "<!") == 0;
      char quote = 0;
      size_t marks = 0;
      i = open + 1;
      for (; i < n && markup[i] != '<'; ++i) {
        const char c = markup[i];
        if (counting) {
          if (c == '=' || c == '&') ++marks;
        } else if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '>') {
          ++i;
          break;
        } else if (c == '=') {
          ++marks;
        } else if (c == '&') {
          counting = true;
          ++marks;
        }
        if (marks > kMostAttributesPerElement) return true;
      }
    }
  }
  return false;
}

// Reads the file for the scan above; a file that cannot be read is left to
// libxml2, which reports it. A file larger than a configuration document may
// be is not read to its end: it counts as one that does not parse.
bool fileHasOverlongTag(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return false;
  std::string bytes;
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) {
    bytes.append(buffer, got);
    if (bytes.size() > WidgetConfigParser::kLargestDocument) break;
  }
  fclose(file);
  if (bytes.size() > WidgetConfigParser::kLargestDocument) return true;
  return hasOverlongTag(markupOf(bytes));
}

}  // namespace

bool WidgetConfigParser::isTooLargeToValidate(xmlNode* root) {
  return ::isTooLargeToValidate(root);
}

int WidgetConfigParser::parse() {
  QuietLibxml quiet;

  std::unique_ptr<xmlDoc, DocFree> document(
      fileHasOverlongTag(path)
          ? nullptr
          : xmlReadFile(path.c_str(), nullptr, kReadOptions));
  if (document) {
    xmlNode* root = xmlDocGetRootElement(document.get());
    if (root && !EntityBudget(document.get()).fits(root)) document.reset();
  }
  if (!document) {
    refusal::note(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                  "invalid config.xml" + describe(xmlGetLastError()));
    engineOut() << "Document not parsed successfully" << std::endl;
    return -1;
  }

  int valid;
  FirstError firstError;
  {
    std::unique_ptr<xmlRelaxNGParserCtxt, SchemaParserFree> schemaParser(
        xmlRelaxNGNewParserCtxt(schemaPath.c_str()));
    std::unique_ptr<xmlRelaxNG, SchemaFree> schema;
    if (schemaParser) {
      xmlRelaxNGSetParserStructuredErrors(schemaParser.get(),
                                          ignoreStructuredError, nullptr);
      schema.reset(xmlRelaxNGParse(schemaParser.get()));
    }
    if (!schema) {
      refusal::note(WIDGETENGINE_REFUSAL_INTERNAL,
                    "the schema of config.xml cannot be loaded from " +
                        schemaPath);
      // The message names a variable that nothing reads; the schema path is
      // fixed when the library is built.
      engineOut() << "Could not find Relax NG file. Please set WIDGET_VALIDATOR "
                   "directory path."
                << std::endl;
      return -1;
    }
    std::unique_ptr<xmlRelaxNGValidCtxt, ValidatorFree> validator(
        xmlRelaxNGNewValidCtxt(schema.get()));
    if (!validator) {
      engineOut() << "Error while loading Relax NG file" << std::endl;
      return -1;
    }
    xmlRelaxNGSetValidStructuredErrors(validator.get(), rememberFirstError,
                                       &firstError);
    xmlNode* top = xmlDocGetRootElement(document.get());
    valid = top && isTooLargeToValidate(top)
                ? -1
                : xmlRelaxNGValidateDoc(validator.get(), document.get());
  }
  if (valid != 0) {
    refusal::note(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                  "invalid config.xml" + (firstError.text.empty()
                                              ? std::string(": too large to check")
                                              : firstError.text));
    engineOut() << "Widget configuration document is invalid" << std::endl;
    return -1;
  }

  xmlNode* root = xmlDocGetRootElement(document.get());
  if (!root) {
    engineOut() << "Empty document" << std::endl;
    return -1;
  }
  if (!isElement(root, "widget")) {
    refusal::note(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                  "invalid config.xml: the root element is not widget");
    engineOut() << "Document of the wrong type, root node != widget"
              << std::endl;
    return -1;
  }

  doc = document.get();
  node = root;
  walk();
  doc = nullptr;
  node = nullptr;
  return 0;
}

std::string WidgetConfigParser::getText(xmlNode* element, int collapse) {
  xmlChar* text = xmlNodeListGetString(doc, element->children, 1);
  if (!text) return std::string();
  std::string result;
  xmlChar* collapsed = collapse ? xmlSchemaCollapseString(text) : nullptr;
  result = reinterpret_cast<const char*>(collapsed ? collapsed : text);
  xmlFree(collapsed);
  xmlFree(text);
  return result;
}

int32_t WidgetConfigParser::toNumber(const std::string& text) {
  // Unsigned, so that an overlong number wraps like a 32-bit register
  // instead of overflowing.
  uint32_t value = 0;
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (isSpace(byte)) continue;
    if (byte < '0' || byte > '9') break;
    value = value * 10u + static_cast<uint32_t>(byte - '0');
  }
  return static_cast<int32_t>(value);
}

std::string WidgetConfigParser::languageOf(xmlNode* element,
                                           const std::string& fallback) {
  std::string language = fallback;
  if (hasAttribute(element, "lang")) language = getAttribute(element, "lang");
  return language.empty() ? "default" : language;
}

void WidgetConfigParser::walk() {
  // Each trace line comes before its value is read.
  if (hasAttribute(node, "id")) {
    engineOut() << "Parsing id..." << std::endl;
    config->setId(getAttribute(node, "id"));
  }
  if (hasAttribute(node, "version")) {
    engineOut() << "Parsing version..." << std::endl;
    config->setVersion(getAttribute(node, "version"));
  }
  if (hasAttribute(node, "height")) {
    engineOut() << "Parsing height..." << std::endl;
    const int32_t n = toNumber(getAttribute(node, "height"));
    if (n > 0) config->setHeight(n);
  }
  if (hasAttribute(node, "width")) {
    engineOut() << "Parsing width..." << std::endl;
    const int32_t n = toNumber(getAttribute(node, "width"));
    if (n > 0) config->setWidth(n);
  }
  // View modes are announced but not read: the record keeps none.
  if (hasAttribute(node, "viewmodes")) {
    engineOut() << "Parsing viewmodes..." << std::endl;
  }
  const std::string defaultLanguage =
      hasAttribute(node, "lang") ? getAttribute(node, "lang") : "default";

  if (!node->children) {
    engineOut() << "Empty widget configuration" << std::endl;
    return;
  }

  for (xmlNode* child = node->children; child; child = child->next) {
    // Text, comments and the like are skipped; so is an unknown element.
    // Namespaces are not looked at.
    if (child->type != XML_ELEMENT_NODE) continue;
    if (isElement(child, "name")) {
      parseName(child, defaultLanguage);
    } else if (isElement(child, "description")) {
      parseDescription(child, defaultLanguage);
    } else if (isElement(child, "license")) {
      parseLicense(child, defaultLanguage);
    } else if (isElement(child, "icon")) {
      parseIcon(child);
    } else if (isElement(child, "author")) {
      parseAuthor(child);
    } else if (isElement(child, "preference")) {
      parsePreference(child);
    } else if (isElement(child, "content")) {
      parseContent(child);
    } else if (isElement(child, "feature")) {
      parseFeature(child);
    }
  }
}

void WidgetConfigParser::parseName(xmlNode* element,
                                   const std::string& defaultLanguage) {
  engineOut() << "Parsing name..." << std::endl;
  const std::string language = languageOf(element, defaultLanguage);
  config->setName(language, getText(element, 1));
  if (hasAttribute(element, "short")) {
    config->setShortName(language, getAttribute(element, "short"));
  }
}

void WidgetConfigParser::parseDescription(xmlNode* element,
                                          const std::string& defaultLanguage) {
  engineOut() << "Parsing description..." << std::endl;
  const std::string language = languageOf(element, defaultLanguage);
  config->setDescription(language, getText(element, 1));
}

void WidgetConfigParser::parseLicense(xmlNode* element,
                                      const std::string& defaultLanguage) {
  engineOut() << "Parsing license..." << std::endl;
  const std::string language = languageOf(element, defaultLanguage);
  config->setLicense(language, getText(element, 1));
  if (hasAttribute(element, "href")) {
    config->setLicenseHref(language, getAttribute(element, "href"));
  }
}

void WidgetConfigParser::parseIcon(xmlNode* element) {
  engineOut() << "Parsing icon..." << std::endl;
  if (!hasAttribute(element, "src")) return;
  const std::string src = getAttribute(element, "src");
  uint32_t height = WidgetIconInfo::kUnset;
  uint32_t width = WidgetIconInfo::kUnset;
  if (hasAttribute(element, "height")) {
    const uint32_t n =
        static_cast<uint32_t>(toNumber(getAttribute(element, "height")));
    if (n != 0) height = n;
  }
  if (hasAttribute(element, "width")) {
    const uint32_t n =
        static_cast<uint32_t>(toNumber(getAttribute(element, "width")));
    if (n != 0) width = n;
  }
  config->addIcon(WidgetIconInfo(src, width, height));
}

void WidgetConfigParser::parseAuthor(xmlNode* element) {
  engineOut() << "Parsing author..." << std::endl;
  // The first author element is the author; later ones are ignored.
  if (config->getAuthor()) return;
  config->setAuthor(getText(element, 1));
  if (hasAttribute(element, "href")) {
    config->setAuthorHref(getAttribute(element, "href"));
  }
  if (hasAttribute(element, "email")) {
    config->setAuthorEmail(getAttribute(element, "email"));
  }
}

void WidgetConfigParser::parsePreference(xmlNode* element) {
  engineOut() << "Parsing preference..." << std::endl;
  if (!hasAttribute(element, "name") || !hasAttribute(element, "value")) {
    return;
  }
  const std::string name = getAttribute(element, "name");
  if (name.empty()) return;
  // A preference value is the one value kept with its white space.
  const std::string value = getRawAttribute(element, "value");
  const bool readonly = hasAttribute(element, "readonly") &&
                        getAttribute(element, "readonly") == "true";
  config->addPreference(WidgetPreferenceInfo(name, value, readonly));
}

void WidgetConfigParser::parseContent(xmlNode* element) {
  engineOut() << "Parsing content..." << std::endl;
  if (!hasAttribute(element, "src")) return;
  // The first content element that names an acceptable file wins.
  if (config->getStartFile()) return;
  const std::string src = getAttribute(element, "src");
  int accepted;
  if (hasAttribute(element, "type")) {
    // A declared type is trusted as it stands; only the file must exist.
    getAttribute(element, "type");
    accepted = config->setStartFile(src);
  } else {
    accepted = config->trySniffedStartFile(src);
  }
  if (accepted == 1 && hasAttribute(element, "encoding")) {
    config->setContentEncoding(getAttribute(element, "encoding"));
  }
}

void WidgetConfigParser::parseFeature(xmlNode* element) {
  engineOut() << "Parsing feature..." << std::endl;
  if (!hasAttribute(element, "name")) return;
  // Only the exact text "false" makes a feature optional.
  const bool required = !hasAttribute(element, "required") ||
                        getAttribute(element, "required") != "false";
  WidgetFeatureInfo feature(getAttribute(element, "name"), required);
  for (xmlNode* param = element->children; param; param = param->next) {
    if (param->type != XML_ELEMENT_NODE || !isElement(param, "param")) {
      continue;
    }
    if (!hasAttribute(param, "name") || !hasAttribute(param, "value")) {
      continue;
    }
    const std::string name = getAttribute(param, "name");
    const std::string value = getAttribute(param, "value");
    if (!name.empty() && !value.empty()) feature.setParam(name, value);
  }
  config->addFeature(feature);
}
