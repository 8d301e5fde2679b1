// SPDX-License-Identifier: Apache-2.0
// How widgetctl answers: its exit statuses, the engine's lines passed on
// (above the answer, or on standard error where the answer is data for a
// script), the one line that says why a command failed, and the JSON
// document that --json prints instead of text.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_REPLY_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_REPLY_H_

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace widgetctl {

extern const char kProgram[];

enum Exit { kOk = 0, kNo = 1, kUsage = 2, kEnvironment = 3 };

// Where the engine's lines go: false, above the answer on standard output
// (what an integrator reads as the engine's log); true, standard error.
extern bool gEngineToStderr;
// Whether install shows its progress (not with --quiet or --json; and only
// ever on a terminal).
extern bool gProgress;
// --json: the answer is gDocument, printed by finish().
extern bool gJson;
extern nlohmann::json gDocument;

// Writes the engine's lines where they go, and into the document.
void passOn(const std::vector<std::string>& lines);
// Ends a command: the reason line (if any) on standard error, the document
// in --json mode; returns status.
int finish(int status, const std::string& reason = std::string());
// A usage error: the reason and where to read more, and in --json mode a
// document with the command (or null) and the reason; returns kUsage.
int usageError(const std::string& reason, const char* command);

// "label:" padded to one column, then the value.
std::string field(const std::string& label, const std::string& value);

// Owns a string that the engine allocated.
struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeDeleter> EngineString;

}  // namespace widgetctl

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_REPLY_H_
