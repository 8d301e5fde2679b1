// SPDX-License-Identifier: Apache-2.0
// UserAgentLocales turns the browser's accept-language string (a comma-
// separated list of language tags) into the ordered list of lower-case locales
// that localized texts and files are looked up with: every accepted tag
// followed by its shorter prefixes ("en-us" then "en").
#ifndef WIDGETENGINE_USERAGENTLOCALES_H_
#define WIDGETENGINE_USERAGENTLOCALES_H_

#include <string>
#include <vector>

class UserAgentLocales {
 public:
  // Bounds that keep the list's cost linear in the string's length: a tag
  // longer than kLongestTag characters (after its stars are applied) is
  // dropped, and so is every tag after the first kMostTags that are kept.
  // The longest registered language tags have about 30 characters; browsers
  // send a handful of tags.
  static constexpr size_t kLongestTag = 64;
  static constexpr size_t kMostTags = 32;

  // Nothing computed; the first non-empty string given later computes.
  UserAgentLocales();
  explicit UserAgentLocales(const std::string& language);

  // Rebuilds the list from language, remembers language as given and prints
  // the list as a verbose trace.
  void compute(std::string language);

  std::string getLanguage() const;
  std::vector<std::string> getLocales() const;

  // True when language is the string the list was last computed from; saves
  // the delegate a copy on its per-call check.
  bool isComputedFrom(const std::string& language) const {
    return language == this->language;
  }

  // Tags that name no usable locale: "i-" tags and the grandfathered ones.
  bool isIrregularTag(const std::string& tag) const;
  // True when a character after the first one is white space.
  bool hasInnerSpace(const std::string& tag) const;

  // Appends the pieces of text between delimiters to out. An empty piece
  // between two delimiters is kept; a trailing delimiter adds none.
  static void splitString(const std::string& text, char delimiter,
                          std::vector<std::string>& out);

 private:
  std::vector<std::string> locales;
  std::string language;
};

#endif  // WIDGETENGINE_USERAGENTLOCALES_H_
