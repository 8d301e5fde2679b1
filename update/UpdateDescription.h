// SPDX-License-Identifier: Apache-2.0
// UpdateDescription is one update description document read into memory:
// the <update-info> a widget's update-description points at, with the
// version it offers, the address of that version's package and the texts
// that say what is new, one per language.
//
//   UpdateDescription description;
//   Outcome read = description.parse(bytes, documentUrl);
//   if (read.ok() && description.differsFrom(installedVersion)) ...
#ifndef WIDGETENGINE_UPDATEDESCRIPTION_H_
#define WIDGETENGINE_UPDATEDESCRIPTION_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "base/Outcome.h"

class UpdateDescription {
 public:
  // Real descriptions are a few hundred bytes; one far larger is refused
  // unread, so a hostile server costs the checker little.
  static constexpr size_t kLargestDocument = 64 * 1024;

  // Reads bytes, the document fetched from documentUrl (against which a
  // relative src is resolved). A refusal, with the description left empty,
  // when the document is not well-formed, its root is not update-info in
  // the widgets namespace, its version is missing or blank, or its src is
  // missing or names no http or https address.
  Outcome parse(const std::string& bytes, const std::string& documentUrl);

  // With white space normalized, as config.xml's version is kept.
  const std::string& version() const { return version_; }
  // Absolute.
  const std::string& src() const { return src_; }
  // An update is on offer when the versions differ, whichever is "newer":
  // version strings have no order anyone agrees on.
  bool differsFrom(const std::string& installedVersion) const {
    return version_ != installedVersion;
  }
  // The details for a reader of locales (lower case, most wanted first, as
  // UserAgentLocales gives them): the first details element of the best
  // locale, else the first one without a language, else the first one; ""
  // when there is none. The text is the element's as written.
  std::string details(const std::vector<std::string>& locales) const;

 private:
  std::string version_;
  std::string src_;
  // (language in lower case, "" when the element has none; text), in
  // document order.
  std::vector<std::pair<std::string, std::string>> details_;
};

#endif  // WIDGETENGINE_UPDATEDESCRIPTION_H_
