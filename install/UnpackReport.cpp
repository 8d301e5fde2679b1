// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackReport.h"

#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <utility>

#include "base/EngineOutput.h"
#include "base/Progress.h"

namespace {

const char kModule[] = "Extractor";

// A refusal and its line, which most refusals give as an error.
Outcome refuse(const std::string& line, int code, const std::string& reason,
               int level = WIDGETENGINE_LOG_ERROR) {
  engineLines(level) << line << std::endl;
  return Outcome(code, reason);
}

// The lines that carry a number show it after the text.
Outcome refuseWithNumber(const char* line, long number, int code,
                         std::string reason) {
  engineError() << line << " (error " << number << ")" << std::endl;
  return Outcome(code, std::move(reason), number);
}

// A folder or file of the package could not be written: error, the errno,
// tells a full disk, and an entry that holds more than it declares, from the
// rest.
Outcome refuseWrite(const char* line, long error, const char* reason) {
  if (error == ENOSPC) {
    return refuseWithNumber(line, error, WIDGETENGINE_REFUSAL_NO_SPACE,
                            "no space left for the package");
  }
  if (error == EFBIG) {
    return refuseWithNumber(line, error, WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                            "damaged entry in the package: it holds more "
                            "than it declares");
  }
  return refuseWithNumber(
      line, error, WIDGETENGINE_REFUSAL_WRITE_FAILED,
      error > 0 ? std::string(reason) + ": " + strerror(static_cast<int>(error))
                : std::string(reason));
}

}  // namespace

Outcome UnpackReport::notAZip(int zipError) {
  return refuseWithNumber("Zip archive is not valid", zipError,
                          WIDGETENGINE_REFUSAL_NOT_A_ZIP,
                          "the package is not a zip archive");
}

Outcome UnpackReport::emptyArchive() {
  return refuse("Empty archive", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
                "the package is an empty archive");
}

Outcome UnpackReport::encrypted() {
  return refuse("Zip archive must not be encrypted",
                WIDGETENGINE_REFUSAL_BAD_PACKAGE, "the package is encrypted");
}

Outcome UnpackReport::onlyFolders() {
  return refuse("Zip archive contains only folders",
                WIDGETENGINE_REFUSAL_BAD_PACKAGE,
                "the package holds only folders");
}

Outcome UnpackReport::badName(const std::string& name) {
  return refuse("Incorrect file name: " + name,
                WIDGETENGINE_REFUSAL_BAD_ENTRY_NAME,
                "incorrect file name in the package: " + name);
}

Outcome UnpackReport::unreadableStats(int zipError) {
  return refuseWithNumber("Could not get stats from file inside the zip",
                          zipError, WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                          "damaged entry in the package");
}

Outcome UnpackReport::unreadableEntry(int zipError) {
  return refuseWithNumber("Could not read file in archive", zipError,
                          WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                          "damaged entry in the package");
}

Outcome UnpackReport::noTargetDirectory(int error) {
  return refuseWrite("Directory could not be created to extract the zip",
                     error, "cannot create the widget's directory");
}

void UnpackReport::sayEntry(const UnpackTask& task, zip_int64_t count) {
  progress::report(WIDGETENGINE_PROGRESS_UNPACK,
                   static_cast<uint64_t>(task.index),
                   static_cast<uint64_t>(count));
  enginePrintf(WIDGETENGINE_LOG_VERBOSE, "[%s:%s] filename: %s\n", "V", kModule,
               task.full.c_str());
}

Outcome UnpackReport::sayOutcome(const UnpackTask& task,
                                 const UnpackOutcome& outcome) {
  switch (outcome.kind) {
    case UnpackOutcome::kDone:
      return Outcome();
    case UnpackOutcome::kFolderFailed:
      return refuseWrite("Subdirectory could not be created to extract the zip",
                         outcome.error, "cannot create a folder of the package");
    case UnpackOutcome::kWriteFailed:
      return refuseWrite("Error opening file", outcome.error,
                         "cannot write a file of the package");
    case UnpackOutcome::kDamaged:
      // Told as a step of the job, as it always has been, not as an error.
      return refuse("Damaged file in archive: " + task.name,
                    WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                    "damaged entry in the package: " + task.name,
                    WIDGETENGINE_LOG_INFO);
  }
  return notUnpacked();
}

Outcome UnpackReport::notUnpacked() {
  return Outcome(WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                 "the package could not be unpacked");
}
