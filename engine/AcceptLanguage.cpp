// SPDX-License-Identifier: Apache-2.0
#include "engine/AcceptLanguage.h"

#include <widgetengine/WidgetEngineExtensions.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string trimmed(const std::string& text) {
  size_t start = 0;
  size_t end = text.size();
  while (start < end && isBlank(text[start])) ++start;
  while (end > start && isBlank(text[end - 1])) --end;
  return text.substr(start, end - start);
}

// A quality value in thousandths ("0", "0.5", "1.000"), or -1 when the text
// is none. Read by hand: strtod would follow the process's locale.
int qualityOf(const std::string& text) {
  if (text.empty() || (text[0] != '0' && text[0] != '1')) return -1;
  int value = (text[0] - '0') * 1000;
  if (text.size() == 1) return value;
  if (text[1] != '.' || text.size() > 5) return -1;
  int scale = 100;
  for (size_t i = 2; i < text.size(); ++i, scale /= 10) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value += (text[i] - '0') * scale;
  }
  return value > 1000 ? -1 : value;
}

bool sameTag(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

struct Entry {
  std::string tag;
  int quality;
};

}  // namespace

std::string AcceptLanguage::toLocaleList(const std::string& header) {
  std::vector<Entry> entries;
  size_t start = 0;
  while (start <= header.size()) {
    size_t comma = header.find(',', start);
    if (comma == std::string::npos) comma = header.size();
    const std::string item = header.substr(start, comma - start);
    start = comma + 1;

    const size_t semicolon = item.find(';');
    const std::string tag = trimmed(item.substr(0, semicolon));
    int quality = 1000;
    if (semicolon != std::string::npos) {
      // Parameters: only q is defined; an entry with a malformed one is
      // dropped, as a header parser is told to do.
      std::string parameter = trimmed(item.substr(semicolon + 1));
      const size_t equals = parameter.find('=');
      if (equals == std::string::npos ||
          !sameTag(trimmed(parameter.substr(0, equals)), "q")) {
        continue;
      }
      quality = qualityOf(trimmed(parameter.substr(equals + 1)));
    }
    if (tag.empty() || tag == "*" || quality <= 0) continue;
    if (std::any_of(tag.begin(), tag.end(),
                    [](char c) { return isBlank(c) || c == ';'; })) {
      continue;
    }
    auto same = std::find_if(entries.begin(), entries.end(),
                             [&](const Entry& e) { return sameTag(e.tag, tag); });
    if (same == entries.end()) {
      entries.push_back({tag, quality});
    } else if (quality > same->quality) {
      same->quality = quality;
    }
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& a, const Entry& b) { return a.quality > b.quality; });
  std::string list;
  for (const Entry& entry : entries) {
    if (!list.empty()) list += ',';
    list += entry.tag;
  }
  return list;
}

extern "C" char* widgetengine_accept_language(const char* header) {
  try {
    return strdup(AcceptLanguage::toLocaleList(header ? header : "").c_str());
  } catch (...) {
    return nullptr;
  }
}
