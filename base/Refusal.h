// SPDX-License-Identifier: Apache-2.0
// Refusal keeps, for the calling thread, why the engine's current
// installation or removal was refused: a stable code of
// WidgetEngineExtensions.h and one line of text. The job that sees the cause
// notes it; the first note of a call is kept, as the deepest part speaks
// first and the layers above only repeat that they failed.
#ifndef WIDGETENGINE_REFUSAL_H_
#define WIDGETENGINE_REFUSAL_H_

#include <string>

#include "base/ToolsExport.h"

namespace refusal {

// Starts a new call: nothing noted.
WIDGETENGINE_TOOLS_EXPORT void begin();
// Notes why the call fails, unless a reason was noted already.
void note(int code, const std::string& reason);
// True once a reason was noted in this call.
WIDGETENGINE_TOOLS_EXPORT bool noted();
// Ends the call as a success: no reason is left.
void clear();

int code();
WIDGETENGINE_TOOLS_EXPORT const std::string& reason();

}  // namespace refusal

#endif  // WIDGETENGINE_REFUSAL_H_
