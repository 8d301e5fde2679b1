// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetConfigParser.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlschemastypes.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <cstdint>
#include <iostream>
#include <string>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/TrustedPath.h"
#include "config/DocumentGuards.h"
#include "config/SchemaValidator.h"
#include "config/WidgetConfig.h"
#include "config/WidgetFeatureInfo.h"
#include "config/WidgetIconInfo.h"
#include "config/WidgetPreferenceInfo.h"
#include "config/XmlText.h"

const char* const WidgetConfigParser::kSchemaPath = WIDGETENGINE_SCHEMA_PATH;

namespace {

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

using xmltext::kReadOptions;
using xmltext::isSpace;
using xmltext::normalizeSpace;

using xmltext::getRawAttribute;
using xmltext::hasAttribute;
using xmltext::isElement;

// An attribute's value with its white space normalized.
std::string getAttribute(xmlNode* node, const char* name) {
  return normalizeSpace(getRawAttribute(node, name));
}

// The href of root's first update-description element, when it is a valid
// IRI; "". A later element is never looked at, as with the other elements
// that a widget has only one of.
std::string updateDescriptionIn(xmlNode* root) {
  for (xmlNode* child = root->children; child; child = child->next) {
    if (!isElement(child, "update-description")) continue;
    const std::string href = getAttribute(child, "href");
    return WidgetConfig::isValidIRI(href) ? href : std::string();
  }
  return std::string();
}

// A document refused for no reason of its own to give.
Outcome invalid() {
  return Outcome(WIDGETENGINE_REFUSAL_INVALID_CONFIG, "invalid config.xml");
}

}  // namespace

WidgetConfigParser::WidgetConfigParser(const std::string& path,
                                       WidgetConfig* config,
                                       const std::string& schemaPath)
    : path(path), config(config), schemaPath(schemaPath), doc(nullptr),
      node(nullptr) {}

WidgetConfigParser::~WidgetConfigParser() {}

bool WidgetConfigParser::isTooLargeToValidate(xmlNode* root) {
  return documentGuards::isTooLargeToValidate(root);
}

int WidgetConfigParser::parse() {
  outcome_ = read();
  return outcome_.ok() ? 0 : -1;
}

Outcome WidgetConfigParser::read() {
  // Only the one result line is for the caller to see.
  xmltext::ErrorRoute quiet(xmltext::ignoreError, nullptr,
                            xmltext::ErrorRoute::kQuiet);

  // A file too large, or too costly for libxml2 to read, counts as one that
  // does not parse.
  xmltext::DocPtr document(
      documentGuards::refusesFile(path, kLargestDocument)
          ? nullptr
          : xmlReadFile(path.c_str(), nullptr, kReadOptions));
  if (document) {
    xmlNode* root = xmlDocGetRootElement(document.get());
    if (root && !documentGuards::expandsWithinBounds(document.get(), root))
      document.reset();
  }
  if (!document) {
    Outcome why(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                "invalid config.xml" + describe(xmlGetLastError()));
    engineError() << "Document not parsed successfully" << std::endl;
    return why;
  }

  int valid;
  FirstError firstError;
  {
    SchemaValidator validator(schemaPath);
    if (!validator.loaded()) {
      // The message names a variable that nothing reads; the schema path is
      // fixed when the library is built.
      engineError() << "Could not find Relax NG file. Please set WIDGET_VALIDATOR "
                   "directory path."
                << std::endl;
      return Outcome(WIDGETENGINE_REFUSAL_INTERNAL,
                     "the schema of config.xml cannot be loaded from " +
                         schemaPath);
    }
    if (!validator.prepare()) {
      engineError() << "Error while loading Relax NG file" << std::endl;
      return invalid();
    }
    xmlNode* top = xmlDocGetRootElement(document.get());
    valid = top && isTooLargeToValidate(top)
                ? -1
                : validator.validate(document.get(), rememberFirstError,
                                     &firstError);
  }
  if (valid != 0) {
    engineError() << "Widget configuration document is invalid" << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                   "invalid config.xml" +
                       (firstError.text.empty()
                            ? std::string(": too large to check")
                            : firstError.text));
  }

  xmlNode* root = xmlDocGetRootElement(document.get());
  if (!root) {
    engineError() << "Empty document" << std::endl;
    return invalid();
  }
  if (!isElement(root, "widget")) {
    engineError() << "Document of the wrong type, root node != widget"
              << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                   "invalid config.xml: the root element is not widget");
  }

  doc = document.get();
  node = root;
  walk();
  doc = nullptr;
  node = nullptr;
  return Outcome();
}

Outcome WidgetConfigParser::readUpdateDescription(const std::string& configPath,
                                                  std::string* href) {
  href->clear();
  xmltext::ErrorRoute quiet(xmltext::ignoreError, nullptr,
                            xmltext::ErrorRoute::kQuiet);
  // The widget's folder and its config.xml are read only when they are the
  // calling user's and no one else can change them, and through no link.
  const size_t slash = configPath.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : configPath.substr(0, slash + 1);
  std::string why;
  const int folderFd = TrustedPath::openDirectory(folder, &why);
  if (folderFd < 0) {
    return Outcome(errno == EPERM ? WIDGETENGINE_REFUSAL_UNTRUSTED
                                  : WIDGETENGINE_REFUSAL_NO_CONFIG,
                   why, errno);
  }
  const int fd = openat(folderFd, configPath.c_str() + (slash + 1),
                        O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const int openError = errno;
  close(folderFd);
  if (fd < 0) {
    return Outcome(WIDGETENGINE_REFUSAL_NO_CONFIG,
                   "cannot read " + configPath + ": " + strerror(openError),
                   openError);
  }
  if (!TrustedPath::opened(fd, configPath, &why)) {
    close(fd);
    return Outcome(WIDGETENGINE_REFUSAL_UNTRUSTED, why);
  }
  std::string bytes;
  struct stat info;
  const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  if (regular && static_cast<uint64_t>(info.st_size) <= kLargestDocument) {
    bytes.resize(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::read(fd, &bytes[done], bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    bytes.resize(done);
  }
  close(fd);
  if (!regular) {
    return Outcome(WIDGETENGINE_REFUSAL_NO_CONFIG,
                   configPath + " is not a regular file");
  }
  xmltext::DocPtr document(
      documentGuards::refusesText(bytes, kLargestDocument) ||
              bytes.size() > static_cast<size_t>(INT32_MAX)
          ? nullptr
          : xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()),
                          nullptr, nullptr, kReadOptions));
  xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  if (!root || !documentGuards::expandsWithinBounds(document.get(), root) ||
      !isElement(root, "widget")) {
    return Outcome(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
                   "invalid config.xml: " + configPath);
  }
  *href = updateDescriptionIn(root);
  return Outcome();
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

  // Kept without a line: the lines of an installation stay as they were.
  const std::string updateDescription = updateDescriptionIn(node);
  if (!updateDescription.empty())
    config->setUpdateDescription(updateDescription);

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
    if (!isElement(param, "param")) continue;
    if (!hasAttribute(param, "name") || !hasAttribute(param, "value")) {
      continue;
    }
    const std::string name = getAttribute(param, "name");
    const std::string value = getAttribute(param, "value");
    if (!name.empty() && !value.empty()) feature.setParam(name, value);
  }
  config->addFeature(feature);
}
