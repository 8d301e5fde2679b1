// SPDX-License-Identifier: Apache-2.0
// WidgetFeatureInfo is one feature that a widget asks for, with its params.
#ifndef WIDGETENGINE_WIDGETFEATUREINFO_H_
#define WIDGETENGINE_WIDGETFEATUREINFO_H_

#include <map>
#include <string>

class WidgetFeatureInfo {
 public:
  WidgetFeatureInfo(const std::string& name, bool required);

  const std::string& getName() const { return name; }
  bool isRequired() const { return required; }
  const std::map<std::string, std::string>& getParams() const { return params; }
  // A later param of the same name replaces the earlier one.
  void setParam(const std::string& paramName, const std::string& value);

 private:
  std::string name;
  bool required;
  std::map<std::string, std::string> params;
};

#endif  // WIDGETENGINE_WIDGETFEATUREINFO_H_
