// SPDX-License-Identifier: Apache-2.0
// Small string helpers that the engine, the registry and the installer share.
#ifndef WIDGETENGINE_STRINGS_H_
#define WIDGETENGINE_STRINGS_H_

#include <string>
#include <vector>

// The items in order with "," between neighbours; "" for an empty list.
std::string joinStrings(const std::vector<std::string>& items);

#endif  // WIDGETENGINE_STRINGS_H_
