// SPDX-License-Identifier: Apache-2.0
// Small string helpers that the engine, the registry and the installer share.
#ifndef WIDGETENGINE_STRINGS_H_
#define WIDGETENGINE_STRINGS_H_

#include <cstdint>
#include <string>
#include <vector>

// The items in order with "," between neighbours; "" for an empty list.
std::string joinStrings(const std::vector<std::string>& items);

// 64-bit FNV-1a: the same value in every process, whatever its word size,
// byte order or C++ library (std::hash is none of these), for names that
// processes of 32- and 64-bit browsers sharing a widget root must agree on.
uint64_t fnv1a64(const std::string& text);

#endif  // WIDGETENGINE_STRINGS_H_
