// SPDX-License-Identifier: Apache-2.0
// ToolsFacade is the one door into libwidgetengine.so.1 besides the host
// interface (WidgetEngineDelegate.h, WidgetEngineExtensions.h), for the
// tools built from this source tree. widgetctl does everything a browser
// does through the host interface; it comes here only for what a host never
// needs: the installer's own status and words, the places the engine uses,
// the checks and repairs of `widgetctl doctor` and the linter and trial
// download of `widgetctl check`.
//
// It is private to this source tree: no installed header declares it, its
// symbols are the only ones beyond the host interface that the library
// exports (engine/widgetengine.map), the symbols file and the ABI check
// treat them as private, and widgetctl depends on exactly the version of the
// library it was built with. Any release may change it.
//
// Every call runs in the calling thread and writes the engine's lines as the
// engine does (to the log sink, when one is set). Unlike the host interface
// it lets std::bad_alloc through: memory running out ends the tool.
#ifndef WIDGETENGINE_ENGINE_TOOLSFACADE_H_
#define WIDGETENGINE_ENGINE_TOOLSFACADE_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <widgetengine/WidgetsData.h>

#include "base/ToolsExport.h"
#include "lint/LintFinding.h"

class InstallLock;

namespace toolsfacade {

// ---- Installing and removing ---------------------------------------------

struct Installation {
  // The installer's status: 0 installed, 2 installed before (launchURL is
  // that installation's), 3 to 11 refused. widgetctl shows the number and
  // explains each one, which the host interface's launch URL cannot carry.
  int status = 0;
  std::string launchURL;
};

// Installs the package at url as receiveWidget() does, and keeps why it
// was refused for lastRefusal(), as the installer's parts noted it (without
// the reason receiveWidget() gives a status that none noted).
WIDGETENGINE_TOOLS_EXPORT Installation install(const std::string& url);

struct Refusal {
  // What widgetengine_last_refusal() gives.
  int code = 0;
  std::string reason;
  // The engine's own line that said why, where the tool quotes it (a name
  // taken, a registry that refused a write); "" when there was none.
  std::string statement;
  // A removal could not delete the widget's directory, which is still
  // there.
  bool directoryKept = false;
};

// Why the calling thread's last install() or deleteWidget() was refused.
WIDGETENGINE_TOOLS_EXPORT Refusal lastRefusal();

// ---- Places ----------------------------------------------------------------

// The registry file the engine opens now (YRA_DATA_PATH or the built-in
// directory, then "widget.db").
WIDGETENGINE_TOOLS_EXPORT std::string registryPath();
// The widget root the engine installs into now (WIDGET_PATH or the built-in
// root), made (one level) when it is missing, as an installation makes it.
WIDGETENGINE_TOOLS_EXPORT std::string widgetRoot();
// The schema config.xml is held to, compiled in.
WIDGETENGINE_TOOLS_EXPORT std::string schemaPath();
// The name, and so the directory, that an installation from url takes.
WIDGETENGINE_TOOLS_EXPORT std::string nameFromURL(const std::string& url);

// The environment, read by the rules the engine reads its own variables by
// (base/Environment.h): name's value as it is, an empty one too, nothing
// when it is unset; and name's value or fallback when it is unset or empty.
WIDGETENGINE_TOOLS_EXPORT std::optional<std::string> environmentPath(const char* name);
WIDGETENGINE_TOOLS_EXPORT std::string environmentText(const char* name,
                                                      const std::string& fallback);

// ---- The registry and the disk (widgetctl doctor) --------------------------

struct RegistryRows {
  bool opened = false;
  bool read = false;     // every row was read
  std::string error;     // the registry's last error, when it opened unread
  std::vector<std::unique_ptr<WidgetsData>> rows;
};

// Every row of the registry, read on a connection of its own.
WIDGETENGINE_TOOLS_EXPORT RegistryRows readRegistry();

// Removes the shared change counters that processes killed while using a
// registry left for registries that are gone; the number removed.
WIDGETENGINE_TOOLS_EXPORT int reclaimCounters();

// Whether path is a directory that only this user (or root) owns and can
// write, reached through no link another user could have placed; otherwise
// *reason says what is wrong. The engine refuses to work in any other.
WIDGETENGINE_TOOLS_EXPORT bool trustedDirectory(const std::string& path,
                                                std::string* reason);

// Whether the entry path names (never followed) sits directly in root,
// whatever the spelling of either: the only place a widget is removed from.
WIDGETENGINE_TOOLS_EXPORT bool isInRoot(const std::string& path,
                                        const std::string& root);

// The paths, still there, that the journal of the installation lock file at
// lockPath names, when no live installation holds that lock: what an
// installation that died left. Empty when the lock is held, or the file is
// missing, untrusted or names nothing.
WIDGETENGINE_TOOLS_EXPORT std::vector<std::string> deadInstallationLeftovers(
    const std::string& lockPath);

// Whether a live installation holds the name of the directory dirName
// ("widget_NAME") under root.
WIDGETENGINE_TOOLS_EXPORT bool installationRunning(const std::string& root,
                                                   const std::string& dirName);

// Removes what dead installations under root left, as the next
// installation would.
WIDGETENGINE_TOOLS_EXPORT void sweepLeftovers(const std::string& root);

// Removes the directory tree at path without following any link (a link in
// its place is removed itself) and without changing the working directory.
// False, after a line that says why, when it is still there.
WIDGETENGINE_TOOLS_EXPORT bool removeTree(const std::string& path);

// A directory under the widget root that no widget owns, removed as a
// removal of a widget of that name would be: under the name's installation
// lock, and only if no installation registered it meanwhile.
//
//   OrphanDirectory orphan(root, name, path);
//   if (orphan.claim()) orphan.remove();
class WIDGETENGINE_TOOLS_EXPORT OrphanDirectory {
 public:
  OrphanDirectory(const std::string& root, const std::string& name,
                  const std::string& path);
  // Gives the lock back, its journal emptied when claim() settled it.
  ~OrphanDirectory();

  OrphanDirectory(const OrphanDirectory&) = delete;
  OrphanDirectory& operator=(const OrphanDirectory&) = delete;

  // Takes the name's lock, removes what a dead installation of the name
  // left, and tells whether the registry, read, names no owner of the
  // directory. False also when the lock cannot be had (locked() is false,
  // error() says why).
  bool claim();
  bool locked() const { return locked_; }
  const std::string& error() const { return error_; }

  // Removes the directory once claimed (and only then); false, after a
  // line, when it stays.
  bool remove();

 private:
  std::string path_;
  std::unique_ptr<InstallLock> lock_;
  std::string error_;
  bool locked_ = false;
  bool settled_ = false;
  bool claimed_ = false;
};

// ---- Packages (widgetctl check) -------------------------------------------

// Downloads url to path as the installer downloads a package. False when
// the download fails or its file cannot be moved to path.
WIDGETENGINE_TOOLS_EXPORT bool download(const std::string& url,
                                        const std::string& path);

// Every finding of the linter on the package file packagePath, to be
// installed from sourceURL, in a stable order. Reads the package in memory
// and writes no file.
WIDGETENGINE_TOOLS_EXPORT std::vector<LintFinding> lint(
    const std::string& packagePath, const std::string& sourceURL);

// ---- Signatures (widgetctl sign, check, doctor) ----------------------------

// Unpacks the package file at packagePath into folder (whatever is there is
// removed first) as an installation unpacks it, with the same checks of
// every entry, and keeps the files; the working directory stays where it
// is. False with *reason, and nothing left in folder, when the package
// cannot be unpacked.
WIDGETENGINE_TOOLS_EXPORT bool unpack(const std::string& packagePath,
                                      const std::string& folder, std::string* reason);

// The signature policy installations follow now: "off", "report" or
// "require".
WIDGETENGINE_TOOLS_EXPORT std::string signaturePolicy();

// The signature documents among the entries of the package file at
// packagePath, in the order they are checked (the author's first); empty
// when it has none or its list of entries cannot be read.
WIDGETENGINE_TOOLS_EXPORT std::vector<std::string> signatureDocuments(
    const std::string& packagePath);
// The same for the files at the root of the unpacked widget in folder;
// empty when it has none or cannot be listed.
WIDGETENGINE_TOOLS_EXPORT std::vector<std::string> signatureDocumentsInFolder(
    const std::string& folder);

struct SignatureReport {
  // The folder of trust anchors installations use now.
  std::string anchorsFolder;
  // How many anchors were read from it, and why any part of it was not.
  size_t anchors = 0;
  std::vector<std::string> anchorProblems;
  // The verdict as JSON text, in the form an installation keeps it:
  // "signed", "valid", "author", "distributors", "failures".
  std::string record;
};

// Checks the signatures of the unpacked package in folder against those
// trust anchors, reading its files as they are now.
WIDGETENGINE_TOOLS_EXPORT SignatureReport checkSignatures(const std::string& folder);

// Signs the unpacked package in folder as its author, or as its next
// distributor, with a PEM key and its certificate chain (the signer's
// certificate first), both as text. The name of the document written in
// *written; false with *reason, nothing written, when it cannot sign.
WIDGETENGINE_TOOLS_EXPORT bool signFolder(const std::string& folder,
                                          const std::string& keyPem,
                                          const std::string& chainPem,
                                          bool distributor, bool exclusiveC14n,
                                          std::string* written, std::string* reason);

}  // namespace toolsfacade

#endif  // WIDGETENGINE_ENGINE_TOOLSFACADE_H_
