// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackReport.h"

#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "base/EngineOutput.h"
#include "base/Progress.h"
#include "base/Refusal.h"

namespace {

const char kModule[] = "Extractor";

// The reason a refused package gives the host (Refusal.h), from the line
// that refuses it; number is what the line carries: an errno for the lines
// about writing, a libzip error for the others.
void noteRefusal(const std::string& message, long number) {
  struct Known {
    const char* line;
    int code;
    const char* reason;
  };
  static const Known kKnown[] = {
      {"Zip archive is not valid", WIDGETENGINE_REFUSAL_NOT_A_ZIP,
       "the package is not a zip archive"},
      {"Empty archive", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package is an empty archive"},
      {"Zip archive must not be encrypted", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package is encrypted"},
      {"Zip archive contains only folders", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package holds only folders"},
      {"Incorrect file name: ", WIDGETENGINE_REFUSAL_BAD_ENTRY_NAME,
       "incorrect file name in the package: "},
      {"Could not get stats from file inside the zip",
       WIDGETENGINE_REFUSAL_DAMAGED_ENTRY, "damaged entry in the package"},
      {"Could not read file in archive", WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
       "damaged entry in the package"},
      {"Damaged file in archive: ", WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
       "damaged entry in the package: "},
      {"Directory could not be created", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot create the widget's directory"},
      {"Subdirectory could not be created", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot create a folder of the package"},
      {"Error opening file", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot write a file of the package"},
  };
  for (const Known& known : kKnown) {
    const size_t length = strlen(known.line);
    if (message.compare(0, length, known.line) != 0) continue;
    const bool writing = known.code == WIDGETENGINE_REFUSAL_WRITE_FAILED;
    if (writing && number == ENOSPC) {
      refusal::note(WIDGETENGINE_REFUSAL_NO_SPACE,
                    "no space left for the package");
    } else if (writing && number == EFBIG) {
      refusal::note(WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                    "damaged entry in the package: it holds more than it "
                    "declares");
    } else if (known.line[length - 1] == ' ') {
      // The line names the entry: so does the reason.
      refusal::note(known.code, known.reason + message.substr(length));
    } else if (writing && number > 0) {
      refusal::note(known.code, std::string(known.reason) + ": " +
                                    strerror(static_cast<int>(number)));
    } else {
      refusal::note(known.code, known.reason);
    }
    return;
  }
}

}  // namespace

void UnpackReport::say(const std::string& message) {
  noteRefusal(message, 0);
  engineOut() << message << std::endl;
}

void UnpackReport::sayWithNumber(const char* message, long number) {
  noteRefusal(message, number);
  engineOut() << message << " (error " << number << ")" << std::endl;
}

void UnpackReport::sayEntry(const UnpackTask& task, zip_int64_t count) {
  progress::report(WIDGETENGINE_PROGRESS_UNPACK,
                   static_cast<uint64_t>(task.index),
                   static_cast<uint64_t>(count));
  enginePrintf("[%s:%s] filename: %s\n", "V", kModule, task.full.c_str());
}

bool UnpackReport::sayOutcome(const UnpackTask& task,
                              const UnpackOutcome& outcome) {
  switch (outcome.kind) {
    case UnpackOutcome::kDone:
      return true;
    case UnpackOutcome::kFolderFailed:
      sayWithNumber("Subdirectory could not be created to extract the zip",
                    outcome.error);
      return false;
    case UnpackOutcome::kWriteFailed:
      sayWithNumber("Error opening file", outcome.error);
      return false;
    case UnpackOutcome::kDamaged:
      say("Damaged file in archive: " + task.name);
      return false;
  }
  return false;
}
