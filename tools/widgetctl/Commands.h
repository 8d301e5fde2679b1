// SPDX-License-Identifier: Apache-2.0
// The commands that do what a browser does through the engine's interface
// (install, list, info, map, is-widget, remove) and doctor, each ending in
// finish(); and what they share with check: package addresses and the
// reasons behind the installer's refusals.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_COMMANDS_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_COMMANDS_H_

#include <string>

#include "tools/widgetctl/Doctor.h"

class WebWidgetEngineDelegate;

namespace widgetctl {

int runInstall(const std::string& argument);
int runList(WebWidgetEngineDelegate* engine);
int runInfo(WebWidgetEngineDelegate* engine, const std::string& name,
            const std::string& language);
int runMap(WebWidgetEngineDelegate* engine, const std::string& url,
           const std::string& language);
int runIsWidget(WebWidgetEngineDelegate* engine, const std::string& url);
int runRemove(WebWidgetEngineDelegate* engine, const std::string& name);
int runDoctor(const Doctor::Options& options);

// The registry, opened as the engine opens it; an unusable one is the
// environment's failure, not the widget's.
bool registryUsable(std::string* reason);

// A plain path as the file:// address of its absolute form, escaped by
// libcurl's URL API; "" and *error when it cannot be made.
std::string fileURL(const std::string& path, std::string* error);
// Whether the argument is an address rather than a plain path.
bool isAddress(const std::string& text);

// What each refusal of the installer means, and what to do.
std::string installReason(int status, const std::string& url);
// What the engine adds to the reason of the installation it just refused
// with this status, ready to append: the reason it noted for a download or
// an archive (an HTTP status, a damaged entry, a bound) in brackets, or its
// own line that names a taken name or a failed commit; empty when it adds
// nothing.
std::string refusalDetail(int status);

}  // namespace widgetctl

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_COMMANDS_H_
