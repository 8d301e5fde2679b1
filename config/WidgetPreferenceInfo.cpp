// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetPreferenceInfo.h"

WidgetPreferenceInfo::WidgetPreferenceInfo(const std::string& name,
                                           const std::string& value,
                                           bool readonly)
    : name(name), value(value), readonly(readonly) {}
