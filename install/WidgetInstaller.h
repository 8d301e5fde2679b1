// SPDX-License-Identifier: Apache-2.0
// WidgetInstaller is the job that turns one package URL into one installed
// widget: download, unpack, parse config.xml, choose the start file and icons,
// register the widget and compose its launch URL. One object runs once; a
// failed run is rolled back by destroying the objects it created.
#ifndef WIDGETENGINE_WIDGETINSTALLER_H_
#define WIDGETENGINE_WIDGETINSTALLER_H_

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/Outcome.h"

class Downloader;
class Extractor;
class InstallLock;
class PackageFiles;
class SignatureCheck;
class SqlLite3;
class WidgetConfig;
class WidgetConfigParser;
class WidgetsData;

class WidgetInstaller {
 public:
  // Derives the widget's name and storage directory from the URL and opens a
  // registry connection of its own.
  explicit WidgetInstaller(const std::string& sourceURL);
  ~WidgetInstaller();

  WidgetInstaller(const WidgetInstaller&) = delete;
  WidgetInstaller& operator=(const WidgetInstaller&) = delete;

  // Installs the widget; one of the status codes 0 to 11. The outcome is
  // also the calling thread's last refusal (base/Refusal.h).
  int run();
  // Why the last run failed, from the step that failed; ok after a run that
  // installed the widget or found it installed.
  const Outcome& outcome() const { return outcome_; }
  // The outcome that a run ending with status has: the reason of the step
  // that failed, or of what an earlier step noticed.
  Outcome outcomeOf(int status) const;
  std::string getLaunchURL();
  void clean();

  // $WIDGET_PATH or the built-in widget root; created (one level) if missing.
  static std::string getWidgetBasePath();
  // Sets name and storagePath from the URL.
  void buildStoragePath(const std::string& url);
  // The widget name that an install from url takes.
  static std::string nameFromURL(const std::string& url);
  // Whether a name taken from an address can name a widget: not empty, "."
  // or "..", and free of what would make its launch URL lead elsewhere ("?",
  // "#", "%", control characters). Otherwise *why says what is wrong.
  static bool usableName(const std::string& name, std::string* why);
  // The folder the package files go to: $WIDGET_PATH (or nothing) followed
  // by the system's temporary folder, with a "/" at the end.
  static std::string downloadFolder();
  // False when the download folder under a widget root of the user's own
  // is one that others could write or swap; *untrusted says which.
  static bool downloadFolderTrusted(std::string* untrusted);
  // Where the package is downloaded: $WIDGET_PATH (or nothing) followed by a
  // fresh temporary file name.
  static std::string buildDownloadPath();

  // The steps an installation and an update share, for a package that is to
  // become the widget living in the storage directory: downloads it to
  // downloadPath, unpacks it into folder (made afresh; the storage directory
  // itself for an installation, a folder beside it for an update), reads
  // config.xml there, chooses the start file and icons, and fills record as
  // a widget of the storage directory. 0, or the status of the step that
  // failed, with its line printed and its outcome kept; what the failed run
  // made is gone then, and so is the unpacked folder unless kept
  // (keepUnpacked()).
  int unpackPackage(const std::string& downloadPath, const std::string& folder,
                    WidgetsData* record);
  // Writes the texts of every language that the last unpackPackage() read
  // as the widget's localized items.
  void writeLocalizedItems(SqlLite3& registry, int widgetId) const;
  // The unpacked folder stays when the installer goes, whatever happened:
  // an update moves it, and removes it itself.
  void keepUnpacked() { keepUnpacked_ = true; }
  // The package's signatures are checked whatever the policy (as the report
  // policy checks them), refusing nothing the policy would not refuse.
  void checkSignatures() { checkSignatures_ = true; }
  // A download cut off is taken up where it stopped, up to attempts times
  // (Downloader::resumeCutTransfers); an installation's fails at the first
  // cut, as it always has.
  void resumeCutDownloads(int attempts) { resumeAttempts_ = attempts; }
  // The signature check of the last unpackPackage(), with what it found;
  // null before one ran.
  const SignatureCheck* signatures() const { return signatures_.get(); }
  // The storage directory the widget lives in, as the registry spells it,
  // for a widget that is already installed.
  void setStoragePath(const std::string& path) { storagePath = path; }

  const std::string& getName() const { return name; }
  const std::string& getStoragePath() const { return storagePath; }
  // What the last run read from config.xml and chose (start file, icons);
  // kept until the installer is destroyed.
  const WidgetConfig* getConfig() const { return config.get(); }
  // The archive names of the files the last run unpacked, in archive order.
  const std::vector<std::string>& getFiles() const { return files; }

  // Content types of the widget's files.
  std::string getMimeTypeFromExtension(const std::string& fileName);
  std::string getMimeTypeFromContent(FILE* file);
  // Opens storagePath + fileName for reading; null when it cannot, or when
  // the name would lead out of storagePath.
  FILE* openWidgetFile(const std::string& fileName);
  bool widgetFileExists(const std::string& fileName);
  // The four calls above, as the widget's WidgetConfig asks them.
  PackageFiles* getPackageFiles() const;

 private:
  // run() without settling the outcome.
  int attempt();
  // attempt() without the taking and giving back of the widget's name.
  int runHoldingName();
  // Prints the line of a refusal, keeps why and sets the launch URL of one.
  int refuse(int status, Outcome why, const std::string& line);
  // Refuses a run that could not read the registry, which then says nothing
  // about what is installed.
  int refuseUnreadRegistry();
  // Ends a run that got as far as parsing config.xml with a failure: its
  // objects go, last made first (so their clean-up lines come in that
  // order), and the launch URL is "about:blank".
  int abandonParsed(int status);

  std::string sourceURL;
  std::string basePath;
  std::string storagePath;
  // Where unpackPackage() puts and reads the files; the storage directory
  // unless an update unpacks beside it.
  std::string unpackPath;
  bool keepUnpacked_ = false;
  bool checkSignatures_ = false;
  int resumeAttempts_ = 0;
  // The policy and findings of this installation's signature check, made
  // when the package is unpacked.
  std::unique_ptr<SignatureCheck> signatures_;
  // Whether what a dead run of the name left was settled when the lock was
  // taken, and whether this run wrote its own journal since.
  bool journalSettled_ = false;
  bool journalWritten_ = false;
  std::string launchURL;
  std::string name;
  bool installed;
  std::unique_ptr<Downloader> downloader;
  std::unique_ptr<Extractor> extractor;
  // Made before config and gone after it. The installer itself stays a
  // class without virtual calls, so that programs linking the library need
  // none of its type information.
  class Files;
  std::unique_ptr<Files> packageFiles;
  std::unique_ptr<WidgetConfig> config;
  std::unique_ptr<WidgetConfigParser> parser;
  std::unique_ptr<SqlLite3> database;
  std::unique_ptr<InstallLock> lock;
  std::vector<std::string> files;
  Outcome outcome_;
  // What a step noticed without failing: the error status of an HTTP
  // answer, whose body is stored and refused later. It is why any later
  // step fails.
  Outcome noticed_;
};

#endif  // WIDGETENGINE_WIDGETINSTALLER_H_
