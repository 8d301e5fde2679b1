// SPDX-License-Identifier: Apache-2.0
#include "update/UpdateDescription.h"

#include <curl/curl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cctype>
#include <climits>
#include <cstring>

#include <widgetengine/WidgetEngineExtensions.h>

#include "config/DocumentGuards.h"
#include "config/WidgetConfig.h"
#include "config/XmlText.h"

namespace {

const char kWidgetsNamespace[] = "http://www.w3.org/ns/widgets";

Outcome malformed(const std::string& url, const std::string& why) {
  return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                 "the update description " + url + " is malformed: " + why);
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// src as an absolute address: as it is when it names a scheme, else
// resolved against the document's own address. "" when libcurl cannot read
// either.
std::string absoluteSource(const std::string& src, const std::string& base) {
  CURLU* url = curl_url();
  if (url == nullptr) return std::string();
  std::string result;
  char* text = nullptr;
  const bool absolute = WidgetConfig::isValidIRI(src);
  if ((absolute || curl_url_set(url, CURLUPART_URL, base.c_str(), 0) == CURLUE_OK) &&
      curl_url_set(url, CURLUPART_URL, src.c_str(), 0) == CURLUE_OK &&
      curl_url_get(url, CURLUPART_URL, &text, 0) == CURLUE_OK) {
    result = text;
  }
  curl_free(text);
  curl_url_cleanup(url);
  return result;
}

bool isWebAddress(const std::string& url) {
  const std::string start = lowerCase(url.substr(0, 8));
  return start.compare(0, 7, "http://") == 0 || start == "https://";
}

// The element's language: its own xml:lang or the nearest ancestor's, in
// lower case.
std::string languageOf(xmlNode* element) {
  xmlChar* lang = xmlNodeGetLang(element);
  std::string result = lang ? reinterpret_cast<const char*>(lang) : "";
  xmlFree(lang);
  return lowerCase(xmltext::normalizeSpace(result));
}

std::string textOf(xmlNode* element) {
  xmlChar* text = xmlNodeGetContent(element);
  std::string result = text ? reinterpret_cast<const char*>(text) : "";
  xmlFree(text);
  return result;
}

}  // namespace

Outcome UpdateDescription::parse(const std::string& bytes,
                                 const std::string& documentUrl) {
  version_.clear();
  src_.clear();
  details_.clear();
  xmltext::ErrorRoute quiet(xmltext::ignoreError, nullptr,
                            xmltext::ErrorRoute::kQuiet);
  if (bytes.size() > kLargestDocument) {
    return malformed(documentUrl, "larger than " +
                                      std::to_string(kLargestDocument / 1024) +
                                      " KiB");
  }
  xmltext::DocPtr document(
      documentGuards::refusesText(bytes, kLargestDocument)
          ? nullptr
          : xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()),
                          documentUrl.c_str(), nullptr, xmltext::kReadOptions));
  xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  if (root == nullptr || !documentGuards::expandsWithinBounds(document.get(), root))
    return malformed(documentUrl, "not well-formed XML");
  if (!xmltext::isElement(root, "update-info") || root->ns == nullptr ||
      root->ns->href == nullptr ||
      strcmp(reinterpret_cast<const char*>(root->ns->href), kWidgetsNamespace) != 0)
    return malformed(documentUrl, "the root is not update-info in the widgets namespace");

  const std::string version =
      xmltext::normalizeSpace(xmltext::getRawAttribute(root, "version"));
  if (version.empty()) return malformed(documentUrl, "no version");
  const std::string given =
      xmltext::normalizeSpace(xmltext::getRawAttribute(root, "src"));
  const std::string src = given.empty() ? given : absoluteSource(given, documentUrl);
  if (src.empty()) return malformed(documentUrl, "no valid src");
  if (!isWebAddress(src))
    return malformed(documentUrl, "src " + src + " is not an http or https address");

  for (xmlNode* child = root->children; child; child = child->next) {
    if (xmltext::isElement(child, "details"))
      details_.emplace_back(languageOf(child), textOf(child));
  }
  version_ = version;
  src_ = src;
  return Outcome();
}

std::string UpdateDescription::details(
    const std::vector<std::string>& locales) const {
  for (const std::string& locale : locales) {
    for (const auto& text : details_) {
      if (text.first == locale) return text.second;
    }
  }
  for (const auto& text : details_) {
    if (text.first.empty()) return text.second;
  }
  return details_.empty() ? std::string() : details_.front().second;
}
