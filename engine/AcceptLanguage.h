// SPDX-License-Identifier: Apache-2.0
// AcceptLanguage turns a browser's Accept-Language header into the plain,
// ordered, comma-separated list of tags that UserAgentLocales reads, which
// takes every piece between commas as a tag just as it stands.
//
//   AcceptLanguage::toLocaleList("en-US,de;q=0.8, fr;q=0.9") == "en-US,fr,de"
#ifndef WIDGETENGINE_ACCEPTLANGUAGE_H_
#define WIDGETENGINE_ACCEPTLANGUAGE_H_

#include <string>

class AcceptLanguage {
 public:
  // The tags by falling quality, equal qualities in the header's order;
  // "*", tags of quality 0, malformed entries and repeats (the one of
  // highest quality stays) are left out.
  static std::string toLocaleList(const std::string& header);
};

#endif  // WIDGETENGINE_ACCEPTLANGUAGE_H_
