// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetIconInfo.h"

WidgetIconInfo::WidgetIconInfo(const std::string& src)
    : src(src), width(kUnset), height(kUnset) {}

WidgetIconInfo::WidgetIconInfo(const std::string& src, uint32_t width,
                               uint32_t height)
    : src(src), width(width), height(height) {}
