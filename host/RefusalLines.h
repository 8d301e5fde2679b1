// SPDX-License-Identifier: Apache-2.0
// RefusalLines writes the lines that say what the browser refused, on
// standard error, in both of its processes. A widget decides how often it is
// refused and what the addresses say, so each line is cut to a fixed length
// and at most kPerSecond of them are written a second; those left out are
// counted in one line once the flood has stopped, or at exit.
#ifndef WIDGETENGINE_HOST_REFUSALLINES_H_
#define WIDGETENGINE_HOST_REFUSALLINES_H_

#include <cstddef>
#include <string>

class RefusalLines {
 public:
  // An address (or any text a page chose) keeps this many bytes at most.
  static constexpr size_t kAddressBytes = 300;
  static constexpr int kPerSecond = 20;

  // Writes "widget-browser: <what> <address>[: <why>]", the address cut.
  static void say(const std::string& what, const std::string& address,
                  const std::string& why = std::string());

  // Writes the count of the lines left out, if any. The browser calls it
  // at exit; the count is also written by itself a second after the last
  // line left out.
  static void flush();

  // text cut to kAddressBytes on a character boundary, with a marker that
  // says how much was left out; control characters become '?', so that a
  // line stays one line.
  static std::string cut(const std::string& text);
};

#endif  // WIDGETENGINE_HOST_REFUSALLINES_H_
