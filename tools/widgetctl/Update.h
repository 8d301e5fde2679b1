// SPDX-License-Identifier: Apache-2.0
// "widgetctl update": asks installed widgets' update descriptions whether
// another version is on offer (--check), and replaces a widget in place with
// the package its description offers, or with the one --from names.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_UPDATE_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_UPDATE_H_

#include <string>
#include <vector>

namespace widgetctl {

// update's own options, as main() reads them.
struct UpdateOptions {
  bool check = false;
  bool all = false;
  bool hasFrom = false;
  std::string from;
  bool hasJitter = false;
  std::string jitter;

  bool any() const { return check || all || hasFrom || hasJitter; }
};

// `widgetctl help update`.
extern const char kUpdateHelp[];

// The usage error in these options and names, or "" when there is none.
std::string updateUsageError(const UpdateOptions& options,
                             const std::vector<std::string>& names);

// Runs update (or update --check) of the widgets called names, or of every
// installed widget; language picks the descriptions' details. Ends in
// finish().
int runUpdate(const UpdateOptions& options,
              const std::vector<std::string>& names,
              const std::string& language);

}  // namespace widgetctl

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_UPDATE_H_
