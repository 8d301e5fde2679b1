// SPDX-License-Identifier: Apache-2.0
#include "base/Environment.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The value, or null when name is unset or empty.
const char* nonEmpty(const char* name) {
  const char* value = getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// Bytes of an unknown value that its warning shows.
constexpr size_t kShownValue = 64;

// Said on standard error, whatever else the variable steers: a mistyped
// value would otherwise be ignored without a word. Control bytes are shown
// as '?', so that the value cannot rewrite the terminal, and a long one is
// cut.
void nameUnknownValue(const char* name, const char* value,
                      const std::vector<const char*>& choices,
                      const char* taken) {
  std::string shown;
  size_t i = 0;
  for (; value[i] != '\0' && i < kShownValue; ++i) {
    const unsigned char c = static_cast<unsigned char>(value[i]);
    shown.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
  }
  if (value[i] != '\0') shown += "...";
  std::string line = std::string("widgetengine: ") + name + "=" + shown +
                     " is not one of ";
  for (size_t c = 0; c < choices.size(); ++c) {
    if (c > 0) line += ", ";
    line += choices[c];
  }
  line += std::string("; using ") + taken + "\n";
  fputs(line.c_str(), stderr);
  fflush(stderr);
}

}  // namespace

namespace environment {

std::optional<std::string> path(const char* name) {
  const char* value = getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::string text(const char* name, const std::string& fallback) {
  const char* value = nonEmpty(name);
  return value != nullptr ? value : fallback;
}

long count(const char* name, long minimum, long maximum, long fallback) {
  const char* value = nonEmpty(name);
  if (value == nullptr) return fallback;
  char* end = nullptr;
  const long long number = strtoll(value, &end, 10);
  if (*end != '\0' || number < minimum || number > maximum) return fallback;
  return static_cast<long>(number);
}

long seconds(const char* name, long fallback) {
  return count(name, 1, LONG_MAX, fallback);
}

uint64_t mebibytes(const char* name, uint64_t fallbackBytes) {
  constexpr uint64_t kMiB = 1024 * 1024;
  const char* value = nonEmpty(name);
  if (value == nullptr) return fallbackBytes;
  char* end = nullptr;
  const unsigned long long number = strtoull(value, &end, 10);
  if (*end != '\0' || value[0] == '-' || number > UINT64_MAX / kMiB)
    return fallbackBytes;
  return number * kMiB;
}

int choice(const char* name, const std::vector<const char*>& choices,
           int fallback, Unknown unknown) {
  const char* value = nonEmpty(name);
  if (value == nullptr) return fallback;
  for (size_t i = 0; i < choices.size(); ++i) {
    if (strcmp(value, choices[i]) == 0) return static_cast<int>(i);
  }
  if (unknown == Unknown::kName)
    nameUnknownValue(name, value, choices, choices[fallback]);
  return fallback;
}

bool flag(const char* name) {
  const char* value = nonEmpty(name);
  return value != nullptr && strcmp(value, "0") != 0;
}

long clamped(const char* name, long minimum, long maximum, long fallback) {
  const char* value = getenv(name);
  if (value == nullptr) return fallback;
  return std::clamp(strtol(value, nullptr, 10), minimum, maximum);
}

}  // namespace environment
