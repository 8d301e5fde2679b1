// SPDX-License-Identifier: Apache-2.0
// WidgetIconInfo is one icon of a widget: its file, relative to the widget's
// directory, and its size when the configuration gives one.
#ifndef WIDGETENGINE_WIDGETICONINFO_H_
#define WIDGETENGINE_WIDGETICONINFO_H_

#include <cstdint>
#include <string>

class WidgetIconInfo {
 public:
  // The value of a size that was not given.
  static const uint32_t kUnset = 4294967295u;

  explicit WidgetIconInfo(const std::string& src);
  WidgetIconInfo(const std::string& src, uint32_t width, uint32_t height);

  const std::string& getSrc() const { return src; }
  // Null when the size was not given.
  const uint32_t* getWidth() const { return width == kUnset ? nullptr : &width; }
  const uint32_t* getHeight() const {
    return height == kUnset ? nullptr : &height;
  }

 private:
  std::string src;
  uint32_t width;
  uint32_t height;
};

#endif  // WIDGETENGINE_WIDGETICONINFO_H_
