// SPDX-License-Identifier: Apache-2.0
#include "install/Extractor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "base/EngineOutput.h"
#include "base/Progress.h"
#include "base/ScopedFd.h"
#include "base/TreeRemover.h"
#include "base/TrustedPath.h"
#include "install/EntryName.h"
#include "install/EntryUnpacker.h"
#include "install/FolderWalker.h"
#include "install/FreeSpace.h"
#include "install/UnpackPlan.h"
#include "install/UnpackReport.h"
#include "install/UnpackWorkers.h"
#include "install/zip/ZipHandles.h"
#include "install/zip/ZipReader.h"

Extractor::Extractor(const std::string& zipPath, const std::string& targetDir,
                     Target target)
    : zipPath(zipPath),
      targetDir(targetDir),
      keepFiles(false),
      workers(UnpackWorkers::defaultCount()) {
  // Leftovers of an earlier installation must never mix with this package.
  if (target == kWipeTarget) removeDirectoryTree(targetDir);
}

Extractor::~Extractor() {
  if (!keepFiles) clean();
}

bool Extractor::isAcceptedName(const std::string& name) {
  return EntryName::isAccepted(name);
}

int Extractor::extract(std::vector<std::string>& files) {
  outcome_ = unpack(files);
  return outcome_.ok() ? 0 : -1;
}

Outcome Extractor::unpack(std::vector<std::string>& files) {
  int openError = 0;
  ArchivePtr archive(zip_open(zipPath.c_str(), ZIP_CHECKCONS, &openError));
  if (!archive) {
    return UnpackReport::notAZip(openError);
  }

  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  if (count == 0) {
    return UnpackReport::emptyArchive();
  }

  // Every entry is checked before a single byte is written, so a package
  // that is refused leaves the target directory untouched.
  bool hasFile = false;
  uint64_t declaredBytes = 0;
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive.get(), index, 0, &stat) == -1) {
      return UnpackReport::unreadableStats(openError);
    }
    if ((stat.valid & ZIP_STAT_ENCRYPTION_METHOD) != 0 &&
        stat.encryption_method != ZIP_EM_NONE) {
      return UnpackReport::encrypted();
    }
    const std::string name = EntryName::of(stat);
    if (!isAcceptedName(name)) {
      return UnpackReport::badName(name);
    }
    if (EntryName::isFolder(name)) continue;
    hasFile = true;
    EntryPtr entry(zip_fopen_index(archive.get(), index, ZIP_FL_UNCHANGED));
    if (!entry) {
      return UnpackReport::unreadableEntry(openError);
    }
    if ((stat.valid & ZIP_STAT_SIZE) != 0) {
      declaredBytes += stat.size;
      if (declaredBytes < stat.size) declaredBytes = UINT64_MAX;
    }
  }
  if (!hasFile) {
    return UnpackReport::onlyFolders();
  }

  // A package that cannot fit is refused now rather than half written.
  uint64_t freeBytes = 0;
  if (FreeSpace::available(targetDir, &freeBytes) && declaredBytes > freeBytes) {
    errno = ENOSPC;
    return UnpackReport::noTargetDirectory(errno);
  }
  if (makeDirectories(targetDir, 0755) != 0) {
    return UnpackReport::noTargetDirectory(errno);
  }

  // Entry names are glued to targetDir as they are, so everything is written
  // below the folder that holds targetDir's last "/".
  const size_t baseLength = targetDir.rfind('/') + 1;  // 0 when there is none
  // A file in place of the target passes the folder check above, as mkdir
  // finds something there; its entries then fail one by one.
  ScopedFd baseFd(FolderWalker::openBase(targetDir.substr(0, baseLength)));
  const int baseError = baseFd.get() < 0 ? errno : 0;
  const ZipReader package(zipPath);
  EntryUnpacker unpacker(baseFd.get(), baseError, baseLength, package);
  unpacker.setDigesting(digests_ != nullptr);

  std::vector<UnpackTask> tasks;
  twoThreads = false;
  if (workers > 1 &&
      UnpackPlan::inAnyOrder(archive.get(), count, targetDir, package, &tasks)) {
    Outcome written = UnpackWorkers::run(tasks, unpacker, baseFd.get(),
                                         baseError, baseLength, package, count,
                                         files, digests_, &twoThreads, &first_);
    if (!written.ok()) return written;
    progress::report(WIDGETENGINE_PROGRESS_UNPACK, static_cast<uint64_t>(count),
                     static_cast<uint64_t>(count));
    zip_close(archive.release());
    return Outcome();
  }

  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive.get(), index, 0, &stat) == -1) {
      return UnpackReport::unreadableStats(openError);
    }
    const UnpackTask task = UnpackTask::of(index, stat, targetDir, package);
    UnpackReport::sayEntry(task, count);
    UnpackOutcome outcome;
    if (task.isFolder) {
      outcome = unpacker.unpack(task, nullptr);
    } else {
      EntryPtr entry(zip_fopen_index(archive.get(), index, ZIP_FL_UNCHANGED));
      if (!entry) {
        return UnpackReport::unreadableEntry(openError);
      }
      outcome = unpacker.unpack(task, entry.get());
    }
    Outcome said = UnpackReport::sayOutcome(task, outcome);
    if (!said.ok()) return said;
    if (!task.isFolder) files.push_back(task.name);
    outcome.keepDigest(digests_);
  }

  progress::report(WIDGETENGINE_PROGRESS_UNPACK, static_cast<uint64_t>(count),
                   static_cast<uint64_t>(count));
  zip_close(archive.release());
  return Outcome();
}

void Extractor::setKeepFiles(bool keep) { keepFiles = keep; }

void Extractor::setWorkers(int count) { workers = count; }

void Extractor::clean() {
  removeDirectoryTree(targetDir);
  engineOut() << "Extraction cleaned" << std::endl;
}

int Extractor::makeDirectories(const std::string& path, mode_t mode) {
  if (path.empty()) return 2;
  int result = 0;
  size_t search = path[0] == '/' ? 1 : 0;
  for (;;) {
    const size_t slash = path.find('/', search);
    if (slash == std::string::npos) break;
    // Only the last attempt decides: a component that exists or is made
    // afterwards clears an earlier failure. Each is made from its folder's
    // descriptor, reached without following another user's link, and a
    // link standing at the name itself is not followed either.
    std::string last;
    std::string untrusted;
    const int parent =
        TrustedPath::walkToParent(path.substr(0, slash), &last, &untrusted);
    if (parent < 0) {
      result = errno;
    } else {
      result = mkdirat(parent, last.c_str(), mode) == 0 || errno == EEXIST ? 0 : errno;
      close(parent);
    }
    search = slash + 1;
  }
  return result;
}

void Extractor::removeDirectoryTree(const std::string& path) {
  // Looked at without following: a link is removed itself, never descended,
  // so nothing outside the tree can be deleted through it.
  std::string bare = path;
  while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  struct stat info;
  if (bare.empty() || lstat(bare.c_str(), &info) != 0) return;
  if (S_ISLNK(info.st_mode)) {
    unlink(bare.c_str());
    return;
  }
  if (!S_ISDIR(info.st_mode)) return;
  ScopedFd tree(
      open(bare.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (tree.get() < 0) return;
  if (!TreeRemover().removeContents(tree.get())) return;

  // Deliberately, the process is left in the folder that held the tree, as
  // it always has been after this removal, and the tree is then removed by
  // the path it was given, from there; hosts may rely on both. This is the
  // one place where the engine changes the working directory. When that
  // folder cannot be entered, the process is left in the emptied tree and
  // the tree stays.
  ScopedFd parent(openat(tree.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0 || fchdir(parent.get()) != 0) {
    static_cast<void>(fchdir(tree.get()) == 0);
    return;
  }
  rmdir(path.c_str());
}
