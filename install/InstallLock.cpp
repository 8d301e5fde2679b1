// SPDX-License-Identifier: Apache-2.0
#include "install/InstallLock.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdio.h>  // renameat2

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "base/Strings.h"
#include "base/TrustedPath.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"

namespace {

const char kLockPrefix[] = ".widget_";
const char kLockSuffix[] = ".lock";
const char kPackageLine[] = "package ";
const char kStorageLine[] = "storage ";
// An update's lines: the folder it unpacks into beside the widget's
// directory, and, once it is about to exchange the two, what tells how far
// it came ("switch <widget id> <file row mark> <device> <inode> <directory>").
const char kStagingLine[] = "staging ";
const char kSwitchLine[] = "switch ";
const char kStagingPrefix[] = ".update-";
constexpr size_t kStagingLetters = 8;

// Names longer than this are shortened in the lock file's name (and made
// unique again with a hash), so that the lock file's name fits wherever the
// widget's directory name does.
constexpr size_t kLongestNameKept = 200;

std::string realDirectory(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return std::string();
  std::string result(real);
  free(real);
  if (result.back() != '/') result.push_back('/');
  return result;
}

bool endsWith(const std::string& text, const char* suffix) {
  const size_t n = strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

bool isLetterOrDigit(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         (c >= '0' && c <= '9');
}

// An update's folder: ".update-" and eight letters or digits.
bool isStagingName(const std::string& base) {
  const size_t prefix = strlen(kStagingPrefix);
  if (base.size() != prefix + kStagingLetters ||
      base.compare(0, prefix, kStagingPrefix) != 0) {
    return false;
  }
  for (size_t i = prefix; i < base.size(); ++i) {
    if (!isLetterOrDigit(static_cast<unsigned char>(base[i]))) return false;
  }
  return true;
}

// The downloader's temporary files are "file" and six letters or digits.
bool isPackageFileName(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string base =
      slash == std::string::npos ? path : path.substr(slash + 1);
  if (base.size() != 10 || base.compare(0, 4, "file") != 0) return false;
  for (size_t i = 4; i < base.size(); ++i) {
    if (!isLetterOrDigit(static_cast<unsigned char>(base[i]))) return false;
  }
  return true;
}

std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  off_t offset = 0;
  ssize_t n;
  while ((n = pread(fd, buffer, sizeof buffer, offset)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    offset += n;
    if (text.size() > 3 * PATH_MAX) break;  // not a journal this engine wrote
  }
  return text;
}

// The folder that holds path (its text up to the last "/"), "." for a bare
// name.
std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
}

// The last component of path, without the "/" that may end it, and the
// folder that holds it.
void splitEntry(const std::string& path, std::string* parent, std::string* base) {
  std::string bare = path;
  while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  const size_t slash = bare.rfind('/');
  *parent = parentOf(bare);
  *base = slash == std::string::npos ? bare : bare.substr(slash + 1);
}

// Whether path is the directory "widget_<name>/" directly in root (any
// "widget_" directory there when the name is not known).
bool isWidgetDirectoryOf(const std::string& path, const std::string& root,
                         const std::string& name) {
  std::string parent;
  std::string base;
  splitEntry(path, &parent, &base);
  const bool ownName = name.empty() ? base.compare(0, 7, "widget_") == 0
                                    : base == "widget_" + name;
  return ownName && realDirectory(parent) == root;
}

// Whether the lock taken on fd is the lock of the file name in the folder
// open at dirFd: a holder removes the file before it lets go, and whoever was
// waiting on that removed file then holds a lock that no one else can meet,
// so it must open the file again.
bool isLockOf(int fd, int dirFd, const std::string& name) {
  struct stat held;
  struct stat named;
  return fstat(fd, &held) == 0 &&
         fstatat(dirFd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// Opens the widget root for the lock files: reached without following
// another user's link, and trusted under its real path, which *real receives
// ("/" at the end). Whoever else can write the root can swap a widget's
// directory or plant a journal. -1 with *error set when the root cannot be
// had; errno is ENOENT when it is missing.
int openRoot(const std::string& widgetRoot, std::string* real, std::string* error) {
  std::string reason;
  const int fd = TrustedPath::walk(widgetRoot, &reason);
  if (fd < 0) {
    const int code = errno;
    *error = code == EPERM ? "the widget root is not safe: " + reason
                           : std::string("cannot find the widget root ") +
                                 widgetRoot + ": " + strerror(code);
    errno = code;
    return -1;
  }
  *real = TrustedPath::realPathOf(fd);
  if (real->empty()) *real = realDirectory(widgetRoot);
  if (real->empty() || !TrustedPath::opened(fd, *real, &reason)) {
    *error = "the widget root is not safe: " + reason;
    real->clear();
    close(fd);
    errno = EPERM;
    return -1;
  }
  return fd;
}

}  // namespace

InstallLock::InstallLock(const std::string& widgetRoot, const std::string& name)
    : widgetRoot_(widgetRoot), name_(name), rootFd_(-1), fd_(-1), ended_(false) {}

InstallLock::~InstallLock() {
  if (fd_ >= 0) {
    // A lock file only stays while an installation runs, or when one died
    // and its journal is still to be acted on.
    if (ended_) unlinkat(rootFd_, lockFileName(name_).c_str(), 0);
    // Closing the descriptor releases the lock.
    close(fd_);
  }
  if (rootFd_ >= 0) close(rootFd_);
}

std::string InstallLock::lockFileName(const std::string& name) {
  if (name.size() <= kLongestNameKept) return kLockPrefix + name + kLockSuffix;
  char hash[17];
  snprintf(hash, sizeof hash, "%016" PRIx64, fnv1a64(name));
  return kLockPrefix + name.substr(0, kLongestNameKept) + "-" + hash +
         kLockSuffix;
}

bool InstallLock::acquire() {
  // The lock file is found from the root's descriptor, so the root checked
  // is the root locked in, whatever is renamed or linked meanwhile.
  rootFd_ = openRoot(widgetRoot_, &root_, &error_);
  if (rootFd_ < 0) return false;
  const std::string lockName = lockFileName(name_);
  path_ = root_ + lockName;
  for (;;) {
    fd_ = openat(rootFd_, lockName.c_str(),
                 O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      const int error = errno;
      // Someone else's lock file is often not even open to this user: the
      // reason it is refused says more than the failed open.
      if (!TrustedPath::fileIfPresent(path_, &error_)) {
        error_ = "the lock file is not safe: " + error_;
      } else {
        error_ = "cannot open the lock file " + path_ + ": " + strerror(error);
      }
      errno = error;
      return false;
    }
    // Whoever else owns the lock file can write what it names.
    if (!TrustedPath::opened(fd_, path_, &error_)) {
      error_ = "the lock file is not safe: " + error_;
      close(fd_);
      fd_ = -1;
      errno = EPERM;
      return false;
    }
    int rc;
    while ((rc = flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0) {
      const int error = errno;
      error_ = "cannot lock " + path_ + ": " + strerror(error);
      close(fd_);
      fd_ = -1;
      errno = error;
      return false;
    }
    if (isLockOf(fd_, rootFd_, lockName)) return true;
    close(fd_);
  }
}

bool InstallLock::removeLeftovers(SqlLite3& registry) {
  return fd_ >= 0 && cleanJournal(fd_, root_, name_, registry);
}

bool InstallLock::note(const std::string& packagePath,
                       const std::string& storagePath) {
  if (fd_ < 0 || ftruncate(fd_, 0) != 0) return false;
  return append(kPackageLine + packagePath + "\n" + kStorageLine +
                storagePath + "\n");
}

bool InstallLock::append(const std::string& text) {
  struct stat status;
  if (fd_ < 0 || fstat(fd_, &status) != 0) return false;
  const off_t end = status.st_size;
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = pwrite(fd_, text.data() + written, text.size() - written,
                             end + static_cast<off_t>(written));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

std::string InstallLock::makeStagingFolder(const std::string& packagePath) {
  if (fd_ < 0) return std::string();
  static const char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = kStagingPrefix;
    for (size_t i = 0; i < kStagingLetters; ++i)
      name += kLetters[random() % (sizeof(kLetters) - 1)];
    // Named in the journal before it exists, so that no folder of an
    // update is ever left that the journal does not name.
    if (ftruncate(fd_, 0) != 0 ||
        !append(kPackageLine + packagePath + "\n" + kStagingLine + root_ +
                name + "/\n")) {
      return std::string();
    }
    if (mkdirat(rootFd_, name.c_str(), 0755) == 0) return root_ + name + "/";
    if (errno != EEXIST) break;
  }
  static_cast<void>(ftruncate(fd_, 0) == 0);
  return std::string();
}

bool InstallLock::noteSwitch(int widgetId, int64_t fileMark,
                             const std::string& storagePath) {
  // The folder is the one of the journal's staging line: the last one made.
  const std::string journal = fd_ >= 0 ? readAll(fd_) : std::string();
  // At the start of a line: the package line before it may hold the text.
  const size_t line = journal.find(std::string("\n") + kStagingLine);
  if (line == std::string::npos) return false;
  const size_t start = line + 1 + strlen(kStagingLine);
  const size_t end = journal.find('\n', start);
  if (end == std::string::npos) return false;
  std::string parent;
  std::string base;
  splitEntry(journal.substr(start, end - start), &parent, &base);
  struct stat status;
  if (fstatat(rootFd_, base.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return false;
  char numbers[128];
  snprintf(numbers, sizeof numbers, "%d %" PRId64 " %" PRIu64 " %" PRIu64 " ",
           widgetId, fileMark, static_cast<uint64_t>(status.st_dev),
           static_cast<uint64_t>(status.st_ino));
  return append(kSwitchLine + std::string(numbers) + storagePath + "\n");
}

void InstallLock::clear() {
  if (fd_ >= 0) ended_ = ftruncate(fd_, 0) == 0;
}

bool InstallLock::cleanJournal(int fd, const std::string& root,
                               const std::string& name, SqlLite3& registry) {
  const std::string journal = readAll(fd);
  if (journal.empty()) return true;
  std::string packagePath;
  std::string storagePath;
  std::string stagingPath;
  std::string switchLine;
  size_t start = 0;
  while (start < journal.size()) {
    size_t end = journal.find('\n', start);
    if (end == std::string::npos) end = journal.size();
    const std::string line = journal.substr(start, end - start);
    if (line.compare(0, strlen(kPackageLine), kPackageLine) == 0) {
      packagePath = line.substr(strlen(kPackageLine));
    } else if (line.compare(0, strlen(kStorageLine), kStorageLine) == 0) {
      storagePath = line.substr(strlen(kStorageLine));
    } else if (line.compare(0, strlen(kStagingLine), kStagingLine) == 0) {
      stagingPath = line.substr(strlen(kStagingLine));
    } else if (line.compare(0, strlen(kSwitchLine), kSwitchLine) == 0) {
      switchLine = line.substr(strlen(kSwitchLine));
    }
    start = end + 1;
  }

  // Only a file of the downloader's form, in the folder the downloader
  // uses, made by this user, and only the file itself: a link found there is
  // removed, never what it points to.
  struct stat status;
  if (!packagePath.empty() && isPackageFileName(packagePath) &&
      realDirectory(parentOf(packagePath)) ==
          realDirectory(WidgetInstaller::downloadFolder()) &&
      lstat(packagePath.c_str(), &status) == 0 && status.st_uid == geteuid() &&
      (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) {
    unlink(packagePath.c_str());
  }

  // Only the directory of this very name under this very root, and only when
  // no registered widget lives in it (the installation may have died after
  // its rows were committed).
  if (!storagePath.empty()) {
    std::string bare = storagePath;
    while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
    if (isWidgetDirectoryOf(storagePath, root, name) &&
        lstat(bare.c_str(), &status) == 0) {
      bool ok = false;
      std::unique_ptr<WidgetsData> owner = ownerOf(storagePath, registry, &ok);
      if (ok && !owner) WidgetUnInstaller::removeWidgetDirectory(storagePath);
      if (!ok) return false;  // tried again by the next installation
    }
  }
  if (!stagingPath.empty() &&
      !settleUpdate(root, name, stagingPath, switchLine, registry)) {
    return false;
  }
  return ftruncate(fd, 0) == 0;
}

bool InstallLock::settleUpdate(const std::string& root, const std::string& name,
                               const std::string& stagingPath,
                               const std::string& switchLine,
                               SqlLite3& registry) {
  // Only a folder of the update's own form, directly in this very root.
  std::string parent;
  std::string base;
  splitEntry(stagingPath, &parent, &base);
  if (!isStagingName(base) || realDirectory(parent) != root) return true;
  const std::string staging = root + base;
  struct stat status;
  if (lstat(staging.c_str(), &status) != 0) return true;

  int widgetId = 0;
  int64_t mark = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
  int consumed = 0;
  if (!switchLine.empty() &&
      sscanf(switchLine.c_str(), "%d %" SCNd64 " %" SCNu64 " %" SCNu64 " %n",
             &widgetId, &mark, &device, &inode, &consumed) == 4 &&
      consumed > 0) {
    const std::string storagePath = switchLine.substr(static_cast<size_t>(consumed));
    std::string bare = storagePath;
    while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
    struct stat current;
    // The exchange was made when the widget's directory is the folder that
    // was unpacked; the rows are the new ones when the update's file rows
    // are there. Exchanged without them, the old files go back in place.
    const bool exchanged =
        isWidgetDirectoryOf(storagePath, root, name) &&
        lstat(bare.c_str(), &current) == 0 && S_ISDIR(current.st_mode) &&
        static_cast<uint64_t>(current.st_dev) == device &&
        static_cast<uint64_t>(current.st_ino) == inode;
    if (exchanged) {
      bool read = false;
      const bool committed = registry.hasFilesWrittenAfter(widgetId, mark, &read);
      if (!read) return false;  // tried again by the next engine call
      if (!committed &&
          renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, bare.c_str(),
                    RENAME_EXCHANGE) != 0) {
        return false;
      }
    }
  }
  return WidgetUnInstaller::removeWidgetDirectory(staging);
}

void InstallLock::sweep(const std::string& widgetRoot, SqlLite3& registry) {
  std::string root;
  std::string untrusted;
  const int rootFd = openRoot(widgetRoot, &root, &untrusted);
  if (rootFd < 0) return;
  const int listFd = openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* dir = listFd < 0 ? nullptr : fdopendir(listFd);
  if (!dir) {
    if (listFd >= 0) close(listFd);
    close(rootFd);
    return;
  }
  std::vector<std::string> locks;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, strlen(kLockPrefix), kLockPrefix) == 0 &&
        endsWith(name, kLockSuffix)) {
      locks.push_back(name);
    }
  }
  closedir(dir);
  for (const std::string& lockName : locks) {
    const std::string path = root + lockName;
    const int fd = openat(rootFd, lockName.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat status;
    // An empty journal needs no lock; a held lock is a live installation.
    // A lock file someone else could have written is not acted on.
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
        TrustedPath::opened(fd, path, &untrusted) &&
        flock(fd, LOCK_EX | LOCK_NB) == 0 && isLockOf(fd, rootFd, lockName)) {
      // The name in a shortened lock file's name is not the widget's whole
      // name: then any "widget_" directory of the journal is accepted.
      std::string name = lockName.substr(
          strlen(kLockPrefix),
          lockName.size() - strlen(kLockPrefix) - strlen(kLockSuffix));
      if (lockFileName(name) != lockName) name.clear();
      if (cleanJournal(fd, root, name, registry))
        unlinkat(rootFd, lockName.c_str(), 0);
    }
    close(fd);
  }
  close(rootFd);
}

std::unique_ptr<WidgetsData> InstallLock::ownerOf(const std::string& path,
                                                  SqlLite3& registry,
                                                  bool* ok) {
  std::vector<WidgetsData*> rows = registry.selectAllWidgets(ok);
  std::unique_ptr<WidgetsData> owner;
  struct stat wanted;
  const bool onDisk = stat(path.c_str(), &wanted) == 0;
  for (WidgetsData* row : rows) {
    std::unique_ptr<WidgetsData> record(row);
    if (owner) continue;
    struct stat status;
    if (row->getStoragePath() == path ||
        (onDisk && stat(row->getStoragePath().c_str(), &status) == 0 &&
         status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino)) {
      owner = std::move(record);
    }
  }
  return owner;
}
