// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetUpdater.h"

#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <vector>

#include <nlohmann/json.hpp>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/Refusal.h"
#include "install/InstallLock.h"
#include "install/SignatureCheck.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"

namespace {

std::atomic<WidgetUpdater::StepHook> stepHook{nullptr};

// How many times an update's download is taken up where a lost connection
// or a stall cut it: enough for a bad link, few enough that a server which
// always cuts cannot keep an update busy for long.
constexpr int kResumeAttempts = 3;

void reached(WidgetUpdater::Step step) {
  const WidgetUpdater::StepHook hook = stepHook.load();
  if (hook) hook(step);
}

std::string withoutSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string lastComponent(const std::string& path) {
  const std::string bare = withoutSlash(path);
  const size_t slash = bare.rfind('/');
  return slash == std::string::npos ? bare : bare.substr(slash + 1);
}

// Exchanges two entries of the widget root in one step: neither name is ever
// missing, and a reader of either sees one whole folder or the other.
bool exchange(const std::string& one, const std::string& other) {
  return renameat2(AT_FDCWD, withoutSlash(one).c_str(), AT_FDCWD,
                   withoutSlash(other).c_str(), RENAME_EXCHANGE) == 0;
}

}  // namespace

void WidgetUpdater::setStepHook(StepHook hook) { stepHook.store(hook); }

WidgetUpdater::WidgetUpdater(const std::string& name,
                             const std::string& packageURL)
    : name_(name),
      packageURL_(packageURL),
      basePath_(WidgetInstaller::getWidgetBasePath()),
      database_(new SqlLite3()),
      ran_(false) {}

WidgetUpdater::~WidgetUpdater() = default;

Outcome WidgetUpdater::refuse(Outcome why, const std::string& line) {
  engineError() << line << std::endl;
  return why;
}

Outcome WidgetUpdater::run() { return refusal::settle(attempt()); }

Outcome WidgetUpdater::attempt() {
  if (ran_) {
    return refuse(Outcome(WIDGETENGINE_REFUSAL_INTERNAL,
                          "an update cannot be run twice"),
                  "WidgetUpdater cannot be run twice");
  }
  ran_ = true;
  if (!database_->isOpen()) {
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                          "the widget registry cannot be opened"),
                  "Cannot update " + name_ + ": the widget registry cannot be opened");
  }
  // The address names the widget as an installation from it would: an
  // update never gives a widget another name, nor takes another's.
  const std::string named = WidgetInstaller::nameFromURL(packageURL_);
  if (named != name_) {
    const std::string why = "the package at " + packageURL_ +
                            " would be the widget " + named + ", not " + name_;
    return refuse(Outcome(WIDGETENGINE_REFUSAL_NOT_AN_UPDATE, why),
                  "Cannot update " + name_ + ": " + why);
  }

  // The name is the update's from the first look at the registry to the
  // end, as an installation's is: no installation, removal or other update
  // of it runs meanwhile.
  lock_.reset(new InstallLock(basePath_, name_));
  if (!lock_->acquire()) {
    const std::string reason = lock_->error();
    lock_.reset();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_BUSY, reason),
                  "Cannot update " + name_ + ": " + reason);
  }
  // What a dead update of the name left is settled first: its journal is
  // the only record of folders that may stand exchanged.
  if (!lock_->removeLeftovers(*database_)) {
    lock_.reset();
    const std::string why =
        "what an interrupted update or installation of it left cannot be "
        "settled yet: " + database_->lastError();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY, why),
                  "Cannot update " + name_ + ": " + why);
  }
  InstallLock::sweep(basePath_, *database_);

  bool read = false;
  std::unique_ptr<WidgetsData> installed;
  for (WidgetsData* row : database_->selectAllWidgets(&read)) {
    std::unique_ptr<WidgetsData> record(row);
    if (!installed && row->getName() == name_) installed = std::move(record);
  }
  Outcome outcome;
  if (!read) {
    const std::string error = database_->lastError();
    outcome = refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                             "cannot read the widget registry: " + error),
                     "Cannot read the widget registry: " + error);
  } else if (!installed) {
    outcome = refuse(Outcome(WIDGETENGINE_REFUSAL_NOT_INSTALLED,
                             "no widget is called " + name_),
                     "Cannot update " + name_ + ": no widget is called " + name_);
  } else {
    outcome = update(*installed);
  }
  // A journal that still names something to do stays for the next call.
  if (!keepJournal_) lock_->clear();
  lock_.reset();
  return outcome;
}

Outcome WidgetUpdater::update(const WidgetsData& installed) {
  const std::string& storagePath = installed.getStoragePath();
  if (!WidgetUnInstaller::isOwnDirectory(storagePath, name_) ||
      !WidgetUnInstaller::isInRoot(storagePath, lock_->root())) {
    const std::string why = "its directory " + storagePath +
                            " is not widget_" + name_ + "/ of the widget root";
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY, why),
                  "Cannot update " + name_ + ": " + why);
  }
  std::string untrusted;
  if (!WidgetInstaller::downloadFolderTrusted(&untrusted)) {
    const std::string why = "the download folder is not safe: " + untrusted;
    return refuse(Outcome(WIDGETENGINE_REFUSAL_UNTRUSTED, why),
                  "Cannot update " + name_ + ": " + why);
  }
  const std::string downloadPath = WidgetInstaller::buildDownloadPath();
  const std::string staging = lock_->makeStagingFolder(downloadPath);
  if (staging.empty()) {
    const std::string why = std::string("cannot make the update's folder in ") +
                            lock_->root() + ": " + strerror(errno);
    return refuse(Outcome(WIDGETENGINE_REFUSAL_WRITE_FAILED, why),
                  "Cannot update " + name_ + ": " + why);
  }
  reached(kStaged);

  // From here on every way out that leaves the widget as it was removes the
  // update's folder, whatever it holds.
  struct Discard {
    const std::string& folder;
    bool armed = true;
    ~Discard() {
      if (armed) WidgetUnInstaller::removeWidgetDirectory(folder);
    }
  } discard{staging};

  // The live directory is the one the row names, under the root's real
  // path, so that the exchange is made within one folder.
  const std::string live = lock_->root() + lastComponent(storagePath) + "/";
  // A widget whose installed version has a valid author signature takes
  // updates from that author only, whatever the policy.
  Signer signer;
  if (!installedSigner(&signer)) {
    const std::string error = database_->lastError();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                          "cannot read the widget registry: " + error),
                  "Cannot read the widget registry: " + error);
  }
  WidgetInstaller installer(packageURL_);
  installer.setStoragePath(storagePath);
  installer.keepUnpacked();
  // An update is worth finishing: a device on a bad link takes up a cut
  // download instead of starting it over.
  installer.resumeCutDownloads(kResumeAttempts);
  if (!signer.fingerprint.empty()) installer.checkSignatures();
  WidgetsData record;
  record.setSourceURL(installed.getSourceURL());
  record.setName(name_);
  const int status = installer.unpackPackage(downloadPath, staging, &record);
  if (status != 0) return installer.outcomeOf(status);
  reached(kUnpacked);

  // The browser's addresses of the widget stay valid only with the same
  // start page.
  if (record.getLaunchURL() != installed.getLaunchURL()) {
    const std::string why = "its start page would be " + record.getLaunchURL() +
                            " instead of " + installed.getLaunchURL();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_NOT_AN_UPDATE, why),
                  "Cannot update " + name_ + ": " + why);
  }
  const SignatureCheck& signatures = *installer.signatures();
  if (!signer.fingerprint.empty() &&
      !(signatures.validAuthor() &&
        signatures.row().authorFingerprint == signer.fingerprint)) {
    const std::string why =
        "another-author: the installed version is signed by " + signer.subject +
        (signatures.validAuthor()
             ? ", the package by " + signatures.row().authorSubject
             : ", the package has no valid author signature");
    return refuse(Outcome(WIDGETENGINE_REFUSAL_SIGNATURE, why),
                  "Cannot update " + name_ + ": " + why);
  }

  const int widgetId = installed.getId();
  int64_t fileMark = 0;
  if (!database_->beginExclusiveJob() || !database_->lastFileRow(&fileMark) ||
      !database_->replaceWidgetRows(widgetId, record)) {
    const std::string error = database_->lastError();
    database_->rollbackJob();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                          "cannot write the update to the widget registry: " + error),
                  "Cannot write the update to the widget registry: " + error);
  }
  installer.writeLocalizedItems(*database_, widgetId);
  // The record of the old package's signatures goes with its rows; the new
  // package's takes its place when it was checked.
  if (!(signatures.active()
            ? database_->writeSignatures(widgetId, signatures.row())
            : database_->forgetSignatures(name_))) {
    const std::string error = database_->lastError();
    database_->rollbackJob();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                          "cannot write the update to the widget registry: " + error),
                  "Cannot write the update to the widget registry: " + error);
  }
  reached(kRowsWritten);

  if (!lock_->noteSwitch(widgetId, fileMark, live)) {
    database_->rollbackJob();
    const std::string why = "cannot write the update's journal in " + lock_->root();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_WRITE_FAILED, why),
                  "Cannot update " + name_ + ": " + why);
  }
  reached(kSwitchNoted);

  // Lookups that answer from memory could go on answering the old rows
  // beside the new files: they are sent to the registry first, where they
  // wait on this transaction, so that the files and the rows change for
  // them at one moment: at the commit. (That is the rollback journal the
  // engine keeps; in a registry another program switched to WAL, readers
  // go on with the old rows until the commit.)
  database_->announceChange();
  if (!exchange(staging, live)) {
    const std::string why = std::string("cannot put the new files in place: ") +
                            strerror(errno);
    database_->rollbackJob();
    return refuse(Outcome(WIDGETENGINE_REFUSAL_WRITE_FAILED, why),
                  "Cannot update " + name_ + ": " + why);
  }
  reached(kExchanged);

  if (!database_->endJob()) {
    const std::string error = database_->lastError();
    // The old files go back to the rows that stayed; should that fail, the
    // journal says so to the next engine call, which puts them back.
    if (!exchange(staging, live)) {
      discard.armed = false;
      keepJournal_ = true;
    }
    return refuse(Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                          "cannot commit the update to the widget registry: " + error),
                  "Cannot commit the update to the widget registry: " + error);
  }
  reached(kCommitted);

  // The folder holds the old files now. One that cannot go entirely stays
  // named in the journal, for the next engine call to remove.
  discard.armed = false;
  if (!WidgetUnInstaller::removeWidgetDirectory(staging)) keepJournal_ = true;
  reached(kOldRemoved);
  engineOut() << "Widget " << name_ << " updated to version "
              << (record.getVersion().empty() ? "(none)" : record.getVersion())
              << std::endl;
  return Outcome();
}

bool WidgetUpdater::installedSigner(Signer* signer) {
  std::string kept;
  const int found = database_->readSignatures(name_, &kept);
  if (found < 0) return false;
  if (found < 2) return true;
  const nlohmann::json record = nlohmann::json::parse(kept, nullptr, false);
  if (!record.is_object()) return true;
  // A record of another shape (a registry some other program wrote) names
  // no signer rather than failing the update.
  const auto author = record.find("author");
  if (author == record.end() || !author->is_object()) return true;
  const auto valid = author->find("valid");
  if (valid == author->end() || !valid->is_boolean() || !valid->get<bool>()) return true;
  const auto text = [&](const char* key) {
    const auto value = author->find(key);
    return value != author->end() && value->is_string() ? value->get<std::string>()
                                                         : std::string();
  };
  signer->fingerprint = text("fingerprint");
  signer->subject = text("subject");
  return true;
}

extern "C" int widgetengine_update_widget(const char* name,
                                          const char* packageUrl) {
  refusal::begin();
  if (!name || !packageUrl) {
    return refusal::settle(Outcome(WIDGETENGINE_REFUSAL_BAD_ARGUMENT,
                                   name ? "no package address" : "no widget name"))
        .code();
  }
  try {
    WidgetUpdater updater(name, packageUrl);
    return updater.run().code();
  } catch (...) {
    return refusal::settle(Outcome(WIDGETENGINE_REFUSAL_INTERNAL, "out of memory"))
        .code();
  }
}
