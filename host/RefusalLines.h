// SPDX-License-Identifier: Apache-2.0
// RefusalLines writes the lines that say what the browser refused, on
// standard error. A widget decides how often it is refused and what the
// addresses say, so each line is cut to a fixed length and at most
// kPerSecond of them are written a second; those left out are counted in
// one line once the flood has stopped, or at exit. The web processes make
// their lines here too, and hand them to the browser's process to write
// (kMessage), so that one limit and one count cover them all.
#ifndef WIDGETENGINE_HOST_REFUSALLINES_H_
#define WIDGETENGINE_HOST_REFUSALLINES_H_

#include <cstddef>
#include <string>

class RefusalLines {
 public:
  // An address (or any text a page chose) keeps this many bytes at most.
  static constexpr size_t kAddressBytes = 300;
  static constexpr int kPerSecond = 20;
  // A line made by line() and written by write() never exceeds this.
  static constexpr size_t kLineBytes = 1024;
  // The name of the message that carries a web process's line.
  static constexpr char kMessage[] = "refusal-line";

  // "widget-browser: <what> <address>[: <why>]", the address and the
  // reason cut, without a line end.
  static std::string line(const std::string& what, const std::string& address,
                          const std::string& why = std::string());
  // Writes line(what, address, why).
  static void say(const std::string& what, const std::string& address,
                  const std::string& why = std::string());
  // Writes a line made by line(), in another process perhaps: cut to
  // kLineBytes and kept to one line whatever it holds.
  static void write(const std::string& line);

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
