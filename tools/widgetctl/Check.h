// SPDX-License-Identifier: Apache-2.0
// widgetctl check: each package's linter findings, then the engine's verdict
// from a trial installation into a private folder that is removed on every
// path, Ctrl-C included.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_CHECK_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_CHECK_H_

#include <string>
#include <vector>

namespace widgetctl {

int runCheck(const std::vector<std::string>& packages, bool strict);

}  // namespace widgetctl

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_CHECK_H_
