// SPDX-License-Identifier: Apache-2.0
#include "host/ResourceMapper.h"

#include <glib.h>

#include <cstdlib>
#include <utility>

ResourceMapper::ResourceMapper(WebWidgetEngineDelegate* engine,
                               std::string language)
    : engine_(engine), language_(std::move(language)) {}

std::string ResourceMapper::map(const std::string& url) const {
  if (engine_ == nullptr) return std::string();
  // The engine only knows file:// addresses of installed widgets and says so
  // itself, but an http page with hundreds of images should not pay a
  // database round trip per image to learn it.
  if (url.compare(0, 7, "file://") != 0) return std::string();
  char* mapped = engine_->mapResource(url.c_str(), language_.c_str());
  if (mapped == nullptr) return std::string();
  std::string result = collapseSlashes(mapped);
  free(mapped);
  if (result == url) return std::string();
  return result;
}

// The engine joins the widget directory (which ends with "/") and the stored
// path with one more "/". The file is the same, but relative links of the
// localized page would then resolve to ".../widget_x//style.css", an address
// the engine does not know, and its sub-resources would never be mapped.
std::string ResourceMapper::collapseSlashes(const std::string& url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url;
  const size_t pathStart = scheme + 3;
  size_t pathEnd = url.find_first_of("?#", pathStart);
  if (pathEnd == std::string::npos) pathEnd = url.size();
  std::string out = url.substr(0, pathStart);
  for (size_t i = pathStart; i < pathEnd; ++i) {
    // Keep the first "/" of "file:///" (the empty host) as it is.
    if (url[i] == '/' && i > pathStart && url[i - 1] == '/' &&
        i - 1 != pathStart)
      continue;
    out += url[i];
  }
  out += url.substr(pathEnd);
  return out;
}

// The engine stores plain paths in its file:// addresses; WebKit hands out
// percent-escaped ones. Asking with WebKit's form would miss every widget
// installed under a directory whose name needs escaping.
std::string ResourceMapper::engineAddress(const std::string& uri) {
  if (uri.compare(0, 7, "file://") != 0) return uri;
  char* plain = g_uri_unescape_string(uri.c_str(), nullptr);
  if (plain == nullptr) return uri;
  std::string result = plain;
  g_free(plain);
  return result;
}
