// SPDX-License-Identifier: Apache-2.0
#include "engine/UserAgentLocales.h"

#include <cctype>
#include <cstdio>
#include <sstream>

#include "base/EngineOutput.h"
#include "base/Strings.h"

namespace {

// Compared in this order; the "i-" ones are also caught by the prefix test.
const char* const kIrregularTags[] = {
    "art-lojban", "i-ami",       "i-bnn",       "i-hak",     "i-klingon",
    "i-lux",      "i-navajo",    "i-pwn",       "i-tao",     "i-tay",
    "i-tsu",      "no-bok",      "no-nyn",      "sgn-be-fr", "sgn-be-nl",
    "sgn-ch-de",  "zh-guoyu",    "zh-hakka",    "zh-min",    "zh-xiang",
    "sgn-br",     "sgn-co",      "sgn-de",      "sgn-dk",    "sgn-es",
    "sgn-fr",     "sgn-gb",      "sgn-gr",      "sgn-ie",    "sgn-it",
    "sgn-jp",     "sgn-mx",      "sgn-ni",      "sgn-nl",    "sgn-no",
    "sgn-pt",     "sgn-se",      "sgn-us",      "sgn-za",    "zh-cmn",
    "zh-cmn-hans", "zh-cmn-hant", "zh-gan",     "zh-wuu",    "zh-yue",
};

}  // namespace

UserAgentLocales::UserAgentLocales() {}

UserAgentLocales::UserAgentLocales(const std::string& language) {
  compute(language);
}

void UserAgentLocales::compute(std::string language) {
  this->language = language;
  for (char& c : language) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }

  std::vector<std::string> tokens;
  splitString(language, ',', tokens);
  locales.clear();
  size_t accepted = 0;

  for (std::string& token : tokens) {
    // A token that is empty reads '\0' here, which is no star.
    if (token[0] == '*') continue;
    // Cannot hold once the test above passed; kept so that the filters read
    // as the list of rules they implement.
    if (token.compare(0, 2, "*-") == 0) continue;
    if (hasInnerSpace(token)) continue;
    if (isIrregularTag(token)) continue;

    // "en-*" becomes "en" and "en-*-us" becomes "en-us": each star goes with
    // the character before it. Erasing can bring a later star to the front
    // ("a**" leaves "*"); with nothing before it, it goes alone. Read from
    // the left, the characters before the first star are all kept ones, so
    // one pass that drops a star together with the last character kept
    // gives the same tag as erasing star after star, in linear time.
    size_t kept = 0;
    for (char c : token) {
      if (c != '*') {
        token[kept++] = c;
      } else if (kept > 0) {
        --kept;
      }
    }
    token.resize(kept);

    // Every tag yields itself and each of its prefixes, so a tag of n
    // characters costs up to n * n / 2 bytes: longer tags than any real one,
    // and tags beyond the number any reader sets, are dropped.
    if (token.size() > kLongestTag) continue;
    if (++accepted > kMostTags) break;

    locales.push_back(token);
    for (size_t dash = token.rfind('-'); dash != std::string::npos;
         dash = token.rfind('-')) {
      token.erase(dash);
      locales.push_back(token);
    }
  }

  enginePrintf(WIDGETENGINE_LOG_VERBOSE, "[%s:%s] Computed locales : %s\n", "V", "UserAgentLocales",
         joinStrings(locales).c_str());
}

std::string UserAgentLocales::getLanguage() const { return language; }

std::vector<std::string> UserAgentLocales::getLocales() const {
  return locales;
}

bool UserAgentLocales::isIrregularTag(const std::string& tag) const {
  if (tag.compare(0, 2, "i-") == 0) return true;
  for (const char* irregular : kIrregularTags) {
    if (tag == irregular) return true;
  }
  return false;
}

bool UserAgentLocales::hasInnerSpace(const std::string& tag) const {
  for (size_t i = 1; i < tag.size(); ++i) {
    if (isspace(static_cast<unsigned char>(tag[i]))) return true;
  }
  return false;
}

void UserAgentLocales::splitString(const std::string& text, char delimiter,
                                   std::vector<std::string>& out) {
  std::istringstream stream(text);
  std::string piece;
  while (std::getline(stream, piece, delimiter)) out.push_back(piece);
}
