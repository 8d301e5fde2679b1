// SPDX-License-Identifier: Apache-2.0
// Environment reads environment variables, one function for each kind of
// value, so that every variable of a kind follows the same rule. The library
// (base/Settings.h), widgetctl and widget-browser all read theirs here; the
// functions keep no state and read the variable at each call.
//
// The rule for a value that cannot be used: the default applies, silently.
// An unset variable and an empty one are the same, except for paths (an
// empty path is the working directory, as it always was) and for clamped().
#ifndef WIDGETENGINE_ENVIRONMENT_H_
#define WIDGETENGINE_ENVIRONMENT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace environment {

// name's value as it is, an empty one too; nothing when name is unset.
std::optional<std::string> path(const char* name);

// name's value; fallback when it is unset or empty.
std::string text(const char* name, const std::string& fallback);

// A whole decimal number from minimum to maximum, read as strtoll() reads
// it (leading blanks and a sign allowed; one past the range of a 64-bit
// number counts as the nearest end of it, on every machine, so that a
// value means the same where long has 32 bits); fallback for anything else.
long count(const char* name, long minimum, long maximum, long fallback);

// A number of seconds: a count of at least one.
long seconds(const char* name, long fallback);

// A size given in mebibytes, returned in bytes: a whole decimal number
// without a minus sign (not even "-0") whose bytes fit in 64 bits;
// fallbackBytes for anything else.
uint64_t mebibytes(const char* name, uint64_t fallbackBytes);

// What choice() does with a value that is none of the choices.
enum class Unknown {
  kIgnore,  // take the fallback without a word
  kName,    // also name it on standard error, with the fallback taken
};

// The index in choices of name's value, compared exactly; fallback when it
// is unset, empty or none of them. With Unknown::kName, fallback must be an
// index of choices: the line then reads "widgetengine: NAME=VALUE is not one
// of a, b, c; using FALLBACK", with control bytes of the value shown as "?"
// and a long value cut after 64 bytes.
int choice(const char* name, const std::vector<const char*>& choices,
           int fallback, Unknown unknown);

// A switch: on when name is set to anything but "" or "0".
bool flag(const char* name);

// The number that name's value starts with, as strtol() reads it (0 when it
// starts with none, an empty value too), brought within minimum and maximum;
// fallback only when name is unset. The browser's automation knobs have
// always read their numbers so.
long clamped(const char* name, long minimum, long maximum, long fallback);

}  // namespace environment

#endif  // WIDGETENGINE_ENVIRONMENT_H_
