// SPDX-License-Identifier: Apache-2.0
// One finding of the package linter, as widgetctl check prints it: a level,
// a stable tag, what it is about and one sentence of explanation. Kept apart
// from the linter so that the tools' facade can hand findings over without
// showing the linter itself.
#ifndef WIDGETENGINE_LINT_LINTFINDING_H_
#define WIDGETENGINE_LINT_LINTFINDING_H_

#include <string>

struct LintFinding {
  std::string level;  // "error" | "warning" | "info"
  std::string tag;
  std::string detail;
  std::string explanation;
};

#endif  // WIDGETENGINE_LINT_LINTFINDING_H_
