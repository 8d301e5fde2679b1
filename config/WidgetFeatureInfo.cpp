// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetFeatureInfo.h"

WidgetFeatureInfo::WidgetFeatureInfo(const std::string& name, bool required)
    : name(name), required(required) {}

void WidgetFeatureInfo::setParam(const std::string& paramName,
                                 const std::string& value) {
  params[paramName] = value;
}
