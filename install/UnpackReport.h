// SPDX-License-Identifier: Apache-2.0
// UnpackReport writes the extractor's lines: the progress and trace line of
// each entry, and the one line that says why a package is refused. Each
// refusal is its own call, which prints the line and returns the outcome
// that stands for it, so the line and the code never part.
#ifndef WIDGETENGINE_UNPACKREPORT_H_
#define WIDGETENGINE_UNPACKREPORT_H_

#include <zip.h>

#include <string>

#include "base/Outcome.h"
#include "install/EntryUnpacker.h"
#include "install/UnpackPlan.h"

class UnpackReport {
 public:
  // The package as a whole; zipError is libzip's error, as the line shows.
  static Outcome notAZip(int zipError);
  static Outcome emptyArchive();
  static Outcome encrypted();
  static Outcome onlyFolders();
  // One entry, before anything is written.
  static Outcome badName(const std::string& name);
  static Outcome unreadableStats(int zipError);
  static Outcome unreadableEntry(int zipError);
  // The target directory; error is the errno of its creation (ENOSPC when
  // the package cannot fit).
  static Outcome noTargetDirectory(int error);

  // Progress and the trace line of the entry task, one of count, about to
  // be (or having been) written.
  static void sayEntry(const UnpackTask& task, zip_int64_t count);
  // Says why the entry failed, if it did; the outcome is ok when it did not.
  static Outcome sayOutcome(const UnpackTask& task, const UnpackOutcome& outcome);
  // A package that could not be unpacked for no reason an entry gave; no
  // line.
  static Outcome notUnpacked();
};

#endif  // WIDGETENGINE_UNPACKREPORT_H_
