// SPDX-License-Identifier: Apache-2.0
// Refusal keeps, for the calling thread, why the engine's current
// installation or removal was refused: a stable code of
// WidgetEngineExtensions.h and one line of text. The job that sees the cause
// notes it; the first note of a call is kept, as the deepest part speaks
// first and the layers above only repeat that they failed.
#ifndef WIDGETENGINE_REFUSAL_H_
#define WIDGETENGINE_REFUSAL_H_

#include <string>

namespace refusal {

// Starts a new call: nothing noted.
void begin();
// Notes why the call fails, unless a reason was noted already.
void note(int code, const std::string& reason);
// True once a reason was noted in this call.
bool noted();
// Ends the call as a success: no reason is left.
void clear();

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
