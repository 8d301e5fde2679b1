// SPDX-License-Identifier: Apache-2.0
// Checks on a manual page: how an option is spelled in its roff source, and
// whether man renders it without a complaint.
#ifndef WIDGETENGINE_TESTING_MANUALPAGE_H_
#define WIDGETENGINE_TESTING_MANUALPAGE_H_

#include <string>
#include <vector>

// text with every "-" written as roff's "\-" ("--lang" gives "\-\-lang").
std::string roffDashes(const std::string& text);

// The engine's environment variables and fixed places (the registry, the
// schema, the widget root) that the roff source page does not name in its
// ENVIRONMENT and FILES sections: none, for a host's manual page.
std::vector<std::string> missingEngineEntries(const std::string& page);

// What `man -l` writes on standard error while it renders the page at path
// 80 columns wide: "" when the page renders cleanly.
std::string manualWarnings(const std::string& path);

#endif  // WIDGETENGINE_TESTING_MANUALPAGE_H_
