// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetUnInstaller.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/TreeRemover.h"
#include "base/TrustedPath.h"
#include "base/Refusal.h"
#include "install/InstallLock.h"
#include "install/UnInstallerLines.h"
#include "install/WebData.h"
#include "install/WidgetInstaller.h"
#include "registry/SqlLite3.h"

namespace {

void deleteAll(std::vector<WidgetsData*>& records) {
  for (WidgetsData* record : records) delete record;
  records.clear();
}

// path without its trailing slashes, so that a link in its place is seen as
// a link and its last component is the directory's own name.
std::string bare(const std::string& path) {
  std::string result = path;
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

std::string realPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return std::string();
  std::string result(real);
  free(real);
  return result;
}

}  // namespace

bool WidgetUnInstaller::isOwnDirectory(const std::string& path,
                                       const std::string& name) {
  const std::string top = bare(path);
  const size_t slash = top.rfind('/');
  if (slash == std::string::npos || slash == 0) return false;
  return top.compare(slash + 1, std::string::npos, "widget_" + name) == 0;
}

bool WidgetUnInstaller::isInRoot(const std::string& path,
                                 const std::string& root) {
  const std::string top = bare(path);
  const size_t slash = top.rfind('/');
  const std::string parent =
      slash == std::string::npos ? std::string(".") : top.substr(0, slash + 1);
  const std::string realRoot = realPath(root);
  return !realRoot.empty() && realPath(parent) == realRoot;
}

WidgetUnInstaller::WidgetUnInstaller(const std::string& name)
    : alreadyRun(false), name(name), database(new SqlLite3()) {}

WidgetUnInstaller::~WidgetUnInstaller() {
  clean();
  database.reset();
}

void WidgetUnInstaller::clean() { unInstallerLines::clean(&alreadyRun); }

int WidgetUnInstaller::run() {
  const Outcome outcome = attempt();
  // The one place the answer comes from: a widget that is not there is not
  // a failure of the removal.
  const int status = outcome.ok()                                          ? 1
                     : outcome.code() == WIDGETENGINE_REFUSAL_NOT_INSTALLED ? 0
                                                                           : -1;
  outcome_ = refusal::settle(outcome);
  return status;
}

Outcome WidgetUnInstaller::notRemoved() const {
  return Outcome(WIDGETENGINE_REFUSAL_REMOVE_FAILED,
                 "the widget " + name + " could not be removed");
}

Outcome WidgetUnInstaller::attempt() {
  if (alreadyRun) {
    engineError() << unInstallerLines::kRunTwice << std::endl;
    return notRemoved();
  }
  if (database->isOpen() != 1) {
    return Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                   "the widget registry cannot be opened");
  }

  // A root that someone else can write may hold their directories and
  // journals under the widget's name: nothing in it is touched.
  const std::string root = WidgetInstaller::getWidgetBasePath();
  std::string untrusted;
  if (!TrustedPath::directory(root, &untrusted)) {
    engineOut() << "Refusing to remove widget " << name
                << ": the widget root is not safe: " << untrusted << std::endl;
    return notRemoved();
  }

  // Not while an installation of the same name runs: it may be about to
  // register the directory this removal would find half-written. Without a
  // widget root to lock in there can be no such installation either. A lock
  // that cannot be had otherwise (one that another user owns or can write,
  // say) ends the removal: going on without it is what such a lock is there
  // to prevent. The lock file goes when the lock does, unless it still names
  // what a dead installation left and that could not be removed now.
  InstallLock lock(root, name);
  if (lock.acquire()) {
    if (lock.removeLeftovers(*database)) lock.clear();
  } else if (errno != ENOENT) {
    engineOut() << "Refusing to remove widget " << name << ": " << lock.error()
                << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_BUSY, lock.error());
  }

  std::vector<WidgetsData*> records = database->selectWidgetsByName(name);
  if (records.empty()) {
    return Outcome(WIDGETENGINE_REFUSAL_NOT_INSTALLED,
                   "no widget named " + name + " is installed");
  }
  if (records.size() > 1) {
    engineError() << unInstallerLines::kIntegrityProblem << std::endl;
    engineError() << unInstallerLines::kNameMustBeUnique << std::endl;
    deleteAll(records);
    return Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                   "the widget registry holds " + name + " more than once");
  }

  const std::string storagePath = records[0]->getStoragePath();
  deleteAll(records);

  // The row decides what is deleted, so it must name the widget's own
  // directory: a row pointing at the widget root, or anywhere else, would
  // take a whole tree with it.
  if (!isOwnDirectory(storagePath, name)) {
    engineError() << "Refusing to delete " << storagePath << ": it is not the "
              << "directory widget_" << name << "/ of widget " << name
              << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_REMOVE_FAILED,
                   "the registry names " + storagePath +
                       ", not the directory widget_" + name + "/");
  }
  // Nor anything outside the widget root, whatever its last name: the row
  // may come from a registry that others could write, or from a root that
  // has moved since.
  if (!isInRoot(storagePath, root)) {
    engineError() << "Refusing to delete " << storagePath
                << ": it is not inside the widget root " << root << std::endl;
    return notRemoved();
  }

  engineOut() << "Try to delete directory on fileSystem : " << storagePath
            << std::endl;
  if (!removeWidgetDirectory(storagePath)) {
    const Outcome why(WIDGETENGINE_REFUSAL_REMOVE_FAILED,
                      "cannot remove " + storagePath + ": " + strerror(errno),
                      errno);
    refusal::noteDirectoryKept();
    engineError() << "Error : can't delete this directory : " << storagePath
              << std::endl;
    return why;
  }

  engineOut() << "Delete OK !!!" << std::endl;
  engineOut() << "Delete from database ..." << std::endl;
  if (database->deleteWidgetByName(name) != 0) {
    const Outcome why(WIDGETENGINE_REFUSAL_REGISTRY,
                      "cannot remove " + name + " from the widget registry: " +
                          database->lastError());
    engineError() << "Error, can't delete this widget in database !!!" << std::endl;
    engineError() << "Integrity problem because widget is in database, but not in "
                 "fileSystem :("
              << std::endl;
    return why;
  }
  engineOut() << "Delete OK !!!" << std::endl;
  // Deleting the row retired the widget's installation, if a host ever
  // asked for one. The widget is gone whatever becomes of its web data; a
  // folder that cannot go now is said, and taken by a later sweep.
  WebData::sweep(*database, false);
  return Outcome();
}

bool WidgetUnInstaller::removeWidgetDirectory(const std::string& path) {
  const std::string top = bare(path);

  const int fd =
      open(top.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    struct stat status;
    if (lstat(top.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      // A link to a directory stands for the directory: the link goes, what
      // it points to stays. Any other link fails as its target would.
      struct stat target;
      if (stat(top.c_str(), &target) == 0) {
        if (S_ISDIR(target.st_mode)) {
          if (unlink(top.c_str()) == 0) return true;
          engineError() << "Could not remove the link " << top << ": "
                      << strerror(errno) << std::endl;
          return false;
        }
        error = ENOTDIR;
      } else {
        error = errno;
      }
    }
    errno = error;
    enginePerror("Error opendir()");
    return false;
  }
  // A folder inside that cannot be opened is said, as the top one is; what
  // cannot be removed shows in the removal of the top below.
  const TreeRemover remover([](int error) {
    errno = error;
    enginePerror("Error opendir()");
  });
  remover.removeContents(fd);
  close(fd);
  // Only a directory that is really gone counts as removed.
  if (rmdir(top.c_str()) != 0) {
    engineError() << "Could not remove the directory " << top << ": "
                << strerror(errno) << std::endl;
    return false;
  }
  return true;
}
