// SPDX-License-Identifier: Apache-2.0
// UpdateChecker asks installed widgets' update descriptions whether another
// version is on offer. Each check is one conditional HTTP request: the
// ETag and Last-Modified of the description's last full answer, kept in the
// registry, go back as If-None-Match and If-Modified-Since, and a 304 is
// answered from the document kept with them, without a body.
//
//   UpdateChecker checker(&registry, "fr-CA,en", {"fr-ca", "fr", "en"});
//   UpdateCheck check = checker.check(*widget);
//   if (check.outcome.ok() && check.available) ...
#ifndef WIDGETENGINE_UPDATECHECKER_H_
#define WIDGETENGINE_UPDATECHECKER_H_

#include <string>
#include <vector>

#include "base/Outcome.h"

class SqlLite3;
class WidgetsData;

// What one check learnt.
struct UpdateCheck {
  std::string name;
  std::string installedVersion;
  // The widget's update description; "" when its config.xml names none
  // (then nothing was asked, and the outcome is ok).
  std::string href;
  // Why the check has no answer: an unreadable config.xml, a failed
  // request, an HTTP status other than 200 or 304 (a redirect too), a
  // description that is malformed or served as something else than XML.
  Outcome outcome;
  // True when the server answered 304 and the kept document answered.
  bool notModified = false;
  // From the description, when the outcome is ok and href is not "".
  bool available = false;
  std::string version;
  std::string src;
  std::string details;
};

class UpdateChecker {
 public:
  // languages is a reader's language list as getInfo() takes it ("fr-CA,en"),
  // sent as Accept-Language; locales are the same as UserAgentLocales makes
  // them, and pick the details.
  UpdateChecker(SqlLite3* registry, const std::string& languages,
                const std::vector<std::string>& locales);

  UpdateChecker(const UpdateChecker&) = delete;
  UpdateChecker& operator=(const UpdateChecker&) = delete;

  // Checks widget, a row of registry. A refusal leaves one line that says
  // why. The request ends within twice the stall time
  // (WIDGETENGINE_STALL_SECONDS) whatever the server does.
  UpdateCheck check(const WidgetsData& widget);

 private:
  SqlLite3* registry_;
  std::string languages_;
  std::vector<std::string> locales_;
};

#endif  // WIDGETENGINE_UPDATECHECKER_H_
