// SPDX-License-Identifier: Apache-2.0
// WidgetPreferenceInfo is one preference declared by a widget's configuration.
#ifndef WIDGETENGINE_WIDGETPREFERENCEINFO_H_
#define WIDGETENGINE_WIDGETPREFERENCEINFO_H_

#include <string>

class WidgetPreferenceInfo {
 public:
  WidgetPreferenceInfo(const std::string& name, const std::string& value,
                       bool readonly);

  const std::string& getName() const { return name; }
  const std::string& getValue() const { return value; }
  bool isReadonly() const { return readonly; }

 private:
  std::string name;
  std::string value;
  bool readonly;
};

#endif  // WIDGETENGINE_WIDGETPREFERENCEINFO_H_
