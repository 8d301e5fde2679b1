// SPDX-License-Identifier: Apache-2.0
// Refusal keeps, for the calling thread, the outcome of the engine's last
// installation or removal: what widgetengine_last_refusal() tells the host.
// The jobs settle it when they end, with the outcome their failing step
// returned. Only the trust checks (TrustedPath), which answer their callers
// with a plain true or false, note a refusal here as they find it; a refusal
// noted during a call is why that call fails, whatever the step that then
// gives up returns, as the check that spoke first saw the cause.
#ifndef WIDGETENGINE_REFUSAL_H_
#define WIDGETENGINE_REFUSAL_H_

#include <string>

#include "base/Outcome.h"
#include "base/ToolsExport.h"

namespace refusal {

// Starts a new call: nothing noted.
WIDGETENGINE_TOOLS_EXPORT void begin();
// Notes why the call fails, unless a reason was noted already.
void note(int code, const std::string& reason);
// True once a reason was noted, or a failed outcome settled, in this call.
WIDGETENGINE_TOOLS_EXPORT bool noted();
// Ends the call with outcome: success leaves no reason; a failure keeps the
// reason noted first, if any, else outcome. Returns what is kept.
Outcome settle(const Outcome& outcome);

int code();
WIDGETENGINE_TOOLS_EXPORT const std::string& reason();

}  // namespace refusal

#endif  // WIDGETENGINE_REFUSAL_H_
