// SPDX-License-Identifier: Apache-2.0
// A check on a widget configuration record: that it holds nothing but what
// its constructor gives it, the default content encoding and type.
#ifndef WIDGETENGINE_TESTING_CONFIGRECORD_H_
#define WIDGETENGINE_TESTING_CONFIGRECORD_H_

#include "config/WidgetConfig.h"

void expectAsConstructed(const WidgetConfig& config);

#endif  // WIDGETENGINE_TESTING_CONFIGRECORD_H_
