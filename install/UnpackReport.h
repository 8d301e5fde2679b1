// SPDX-License-Identifier: Apache-2.0
// UnpackReport writes the extractor's lines: the progress and trace line of
// each entry, and the one line that says why a package is refused, with the
// reason the host is given for it (base/Refusal.h).
#ifndef WIDGETENGINE_UNPACKREPORT_H_
#define WIDGETENGINE_UNPACKREPORT_H_

#include <zip.h>

#include <string>

#include "install/EntryUnpacker.h"
#include "install/UnpackPlan.h"

class UnpackReport {
 public:
  // A refusal line as it stands.
  static void say(const std::string& message);
  // A refusal line with the number it carries: an errno for the lines about
  // writing, a libzip error for the others.
  static void sayWithNumber(const char* message, long number);
  // Progress and the trace line of the entry task, one of count, about to
  // be (or having been) written.
  static void sayEntry(const UnpackTask& task, zip_int64_t count);
  // Says why the entry failed; false when it did.
  static bool sayOutcome(const UnpackTask& task, const UnpackOutcome& outcome);
};

#endif  // WIDGETENGINE_UNPACKREPORT_H_
