// SPDX-License-Identifier: Apache-2.0
// WidgetUpdater is the job that replaces an installed widget with the package
// at an address, in place: the widget keeps its id, name, directory and launch
// URL, and takes the package's files and what its config.xml says. The
// package goes through the installation's own steps, into a folder beside the
// widget's directory; then one exclusive registry transaction, with the
// directory exchanged for that folder inside it, switches the two together.
// The installation lock's journal tells the next engine call how to finish or
// undo an update that died half-way. One object runs once.
#ifndef WIDGETENGINE_WIDGETUPDATER_H_
#define WIDGETENGINE_WIDGETUPDATER_H_

#include <memory>
#include <string>

#include "base/Outcome.h"

class InstallLock;
class SqlLite3;
class WidgetsData;

class WidgetUpdater {
 public:
  // The points an update passes, in this order, for the fault tests' hook.
  enum Step {
    kStaged,      // the journal names the new folder, which exists, empty
    kUnpacked,    // the package is unpacked and read there
    kRowsWritten, // inside the transaction, the new rows are written
    kSwitchNoted, // the journal says how to tell what happened next
    kExchanged,   // the folder and the widget's directory are exchanged
    kCommitted,   // the new rows are committed
    kOldRemoved,  // the old files are gone; the journal is emptied next
  };
  using StepHook = void (*)(Step step);
  // Called at every step by every later update of the process; null for
  // none. For tests that stop an update at a chosen point.
  static void setStepHook(StepHook hook);

  WidgetUpdater(const std::string& name, const std::string& packageURL);
  ~WidgetUpdater();

  WidgetUpdater(const WidgetUpdater&) = delete;
  WidgetUpdater& operator=(const WidgetUpdater&) = delete;

  // Updates the widget; the outcome, which is also the calling thread's
  // last refusal (base/Refusal.h). After a failure the widget is as it was.
  Outcome run();

 private:
  // run() without settling the outcome.
  Outcome attempt();
  // attempt() once the name's lock is held and the installed widget read.
  Outcome update(const WidgetsData& installed);
  // The signer of the installed version's valid author signature, as its
  // record keeps it; empty when there is none. False when the registry
  // cannot be read.
  struct Signer {
    std::string subject;
    std::string fingerprint;
  };
  bool installedSigner(Signer* signer);
  // Prints the line of a refusal and returns it.
  Outcome refuse(Outcome why, const std::string& line);

  std::string name_;
  std::string packageURL_;
  std::string basePath_;
  std::unique_ptr<SqlLite3> database_;
  std::unique_ptr<InstallLock> lock_;
  bool ran_;
  // Set when the journal names what only the next engine call can finish.
  bool keepJournal_ = false;
};

#endif  // WIDGETENGINE_WIDGETUPDATER_H_
