// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Doctor.h"

#include <dirent.h>
#include <sys/stat.h>
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstdlib>
#include <memory>
#include <set>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/Signatures.h"

namespace {

std::string realDirectory(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return std::string();
  std::string result(real);
  free(real);
  return result;
}

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (!d) return names;
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

// Without its trailing slashes, so that a link in its place is seen as a
// link and not resolved.
std::string bare(const std::string& path) {
  std::string result = path;
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

// path with every run of "/" made one, so that a root given with a trailing
// "/" prints and compares like one given without.
std::string cleanPath(const std::string& path) {
  std::string clean;
  clean.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !clean.empty() && clean.back() == '/') continue;
    clean += c;
  }
  return clean;
}

bool isDirectory(const std::string& path) {
  struct stat status;
  return lstat(bare(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isLink(const std::string& path) {
  struct stat status;
  return lstat(bare(path).c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

}  // namespace

bool Doctor::run(std::vector<DoctorProblem>& problems,
                 std::vector<std::string>& engineLines) {
  // What processes killed while using a registry left in shared memory.
  toolsfacade::reclaimCounters();
  const std::string root = toolsfacade::widgetRoot();
  std::string untrusted;
  if (!toolsfacade::trustedDirectory(root, &untrusted)) {
    error_ = "the widget root is not safe: " + untrusted +
             "; make it yours and writable by you alone, or set WIDGET_PATH";
    return false;
  }
  toolsfacade::RegistryRows registry;
  {
    EngineLines capture(&engineLines);
    registry = toolsfacade::readRegistry();
    if (!registry.read) {
      error_ = "the registry " + toolsfacade::registryPath() +
               " cannot be read; check YRA_DATA_PATH and its permissions";
      return false;
    }
  }

  // Widgets whose directory is gone: listed, answered by isWidget, but
  // neither removable (the removal fails on the directory) nor
  // reinstallable (the address is installed already).
  std::set<std::string> owned;
  for (const auto& widget : registry.rows) {
    const std::string dir = widget->getStoragePath();
    const std::string real = realDirectory(dir);
    if (!real.empty()) owned.insert(real);
    if (isDirectory(dir)) {
      std::vector<std::string> changes;
      {
        EngineLines capture(&engineLines);
        changes = widgetctl::changesSinceInstalled(widget->getName(), dir);
      }
      if (changes.empty()) continue;
      // Not repaired: which copy is the right one, the signed package or
      // the files as they are now, is for a person to say, and removing
      // the widget would lose both.
      DoctorProblem problem;
      problem.kind = "signature-mismatch";
      problem.name = widget->getName();
      problem.path = cleanPath(dir);
      std::string list;
      for (size_t i = 0; i < changes.size() && i < 5; ++i)
        list += (i ? "; " : "") + changes[i];
      if (changes.size() > 5) list += "; and " + std::to_string(changes.size() - 5) + " more";
      problem.detail = "the files of widget " + widget->getName() +
                       " no longer match its signatures (" + list +
                       "); doctor does not repair this: \"widgetctl remove " +
                       widget->getName() + "\" and install it again from " +
                       widget->getSourceURL();
      problems.push_back(problem);
      continue;
    }
    if (isLink(dir)) {
      // The engine never follows it: lookups answer as before, but the
      // pages the browser opens are wherever the link points.
      DoctorProblem problem;
      problem.kind = "linked-directory";
      problem.name = widget->getName();
      problem.path = dir;
      problem.detail = "the directory of widget " + widget->getName() +
                       " was replaced by a link; \"widgetctl remove " +
                       widget->getName() +
                       "\" removes the link (not what it points to) and the "
                       "widget";
      problems.push_back(problem);
      continue;
    }
    if (!toolsfacade::isInRoot(dir, root)) {
      // Nothing is made or removed there: the engine removes widgets only
      // inside the widget root.
      DoctorProblem problem;
      problem.kind = "outside-root";
      problem.name = widget->getName();
      problem.path = dir;
      problem.detail = "the registry places widget " + widget->getName() +
                       " outside the widget root " + root +
                       "; it cannot be removed from there (set WIDGET_PATH "
                       "to the root it was installed in)";
      problems.push_back(problem);
      continue;
    }
    DoctorProblem problem;
    problem.kind = "missing-directory";
    problem.name = widget->getName();
    problem.path = cleanPath(dir);
    problem.detail = "the files of widget " + widget->getName() +
                     " (installed from " + widget->getSourceURL() +
                     ") are gone; \"widgetctl doctor --repair\" removes it, "
                     "--reinstall installs it again";
    if (options_.repair) {
      // A wiped root lost the folder downloads go to as well.
      mkdir((root + "tmp").c_str(), 0755);
      EngineLines capture(&engineLines);
      RefPtr<WebWidgetEngineDelegate> engine =
          WidgetEngineDelegate::createInstance();
      // An empty directory in its place makes the widget removable again.
      mkdir(dir.c_str(), 0755);
      problem.repaired = engine->deleteWidget(widget->getName().c_str(), nullptr) == 1;
      if (problem.repaired && options_.reinstall) {
        char* launch = engine->receiveWidget(widget->getSourceURL().c_str(), nullptr);
        problem.repaired = launch != nullptr;
        if (!launch) problem.detail += "; its source address could not be installed again";
        free(launch);
      }
    }
    problems.push_back(problem);
  }

  // What dead installations left: lock files that no live installation
  // holds, whose journal still names a package file or a directory. Looked
  // for first, so that a half-unpacked directory is reported once, as what
  // it is, and not also as an orphan.
  std::vector<DoctorProblem> leftovers;
  std::set<std::string> leftoverPaths;
  for (const std::string& name : entries(root)) {
    if (name.compare(0, 8, ".widget_") != 0) continue;
    for (const std::string& path : toolsfacade::deadInstallationLeftovers(root + name)) {
      DoctorProblem problem;
      problem.kind = "leftover-installation";
      problem.path = cleanPath(path);
      problem.detail = "left by an installation that did not finish; the next "
                       "installation removes it, or \"widgetctl doctor --repair\"";
      if (!leftoverPaths.insert(problem.path).second) continue;
      // The journal names the root by its real path, which may not be the
      // spelling of the root given here.
      const std::string real = realDirectory(path);
      if (!real.empty()) leftoverPaths.insert(real);
      leftovers.push_back(problem);
    }
  }

  // Directories of the widget root that no widget owns, as the registry
  // stands after the repairs above.
  if (options_.repair) {
    EngineLines capture(&engineLines);
    owned.clear();
    for (const auto& row : toolsfacade::readRegistry().rows) {
      const std::string real = realDirectory(row->getStoragePath());
      if (!real.empty()) owned.insert(real);
    }
  }
  for (const std::string& name : entries(root)) {
    const std::string path = cleanPath(root + name);
    if (name.compare(0, 7, "widget_") != 0 || !isDirectory(path)) continue;
    if (owned.count(realDirectory(path))) continue;
    if (toolsfacade::installationRunning(root, name)) continue;
    if (leftoverPaths.count(path + "/") || leftoverPaths.count(realDirectory(path)))
      continue;
    DoctorProblem problem;
    problem.kind = "orphan-directory";
    problem.path = path + "/";
    problem.detail = "no installed widget owns this directory; "
                     "\"widgetctl doctor --repair --remove-orphans\" removes it";
    if (options_.repair && options_.removeOrphans) {
      // Removed under the name's installation lock, as a removal of the
      // widget would be, and only if no installation registered it while
      // the lock was waited for; a lock that cannot be had (one another
      // user owns, say) leaves the directory where it is.
      toolsfacade::OrphanDirectory orphan(root, name.substr(7), problem.path);
      bool unowned;
      {
        EngineLines capture(&engineLines);
        unowned = orphan.claim();
      }
      if (!orphan.locked()) problem.detail += "; not removed: " + orphan.error();
      if (unowned) problem.repaired = orphan.remove();
    }
    problems.push_back(problem);
  }

  if (!leftovers.empty() && options_.repair) {
    {
      EngineLines capture(&engineLines);
      toolsfacade::sweepLeftovers(root);
    }
    for (DoctorProblem& problem : leftovers) {
      struct stat status;
      problem.repaired = lstat(problem.path.c_str(), &status) != 0;
    }
  }
  problems.insert(problems.end(), leftovers.begin(), leftovers.end());
  return true;
}
