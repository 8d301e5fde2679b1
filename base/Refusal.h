// SPDX-License-Identifier: Apache-2.0
// Refusal keeps, for the calling thread, the outcome of the engine's last
// installation or removal: what widgetengine_last_refusal() tells the host.
// The jobs settle it when they end, with the outcome their failing step
// returned. Only the trust checks (TrustedPath), which answer their callers
// with a plain true or false, note a refusal here as they find it; a refusal
// noted during a call is why that call fails, whatever the step that then
// gives up returns, as the check that spoke first saw the cause.
//
// Beside the outcome it keeps two facts that only the tools ask for (through
// engine/ToolsFacade): the engine's own line nearest the refusal, and whether
// a removal left the widget's directory on disk.
#ifndef WIDGETENGINE_REFUSAL_H_
#define WIDGETENGINE_REFUSAL_H_

#include <string>

#include "base/Outcome.h"

namespace refusal {

// Starts a new call: nothing noted.
void begin();
// Notes why the call fails, unless a reason was noted already.
void note(int code, const std::string& reason);
// True once a reason was noted, or a failed outcome settled, in this call.
bool noted();
// Ends the call with outcome: success leaves no reason; a failure keeps the
// reason noted first, if any, else outcome. Returns what is kept.
Outcome settle(const Outcome& outcome);

int code();
const std::string& reason();

// The engine's own line that says why, for the tools that quote it after a
// reason of their own (a name taken, a registry that refused a write). Of
// the lines stated in a call the last is kept: it is the one nearest the
// refusal.
void state(const std::string& line);
const std::string& statement();

// Notes that a removal could not delete the widget's directory, which is
// still on disk, so that a tool can say how to get rid of it.
void noteDirectoryKept();
bool directoryKept();

}  // namespace refusal

#endif  // WIDGETENGINE_REFUSAL_H_
