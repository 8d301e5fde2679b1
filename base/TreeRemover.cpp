// SPDX-License-Identifier: Apache-2.0
#include "base/TreeRemover.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct Entry {
  std::string name;
  bool isDirectory;
};

// One directory of the walk: the name it has in its parent, what was found
// under that name, and the names it held when it was listed.
struct Level {
  std::string name;
  dev_t device = 0;
  ino_t inode = 0;
  int fd = -1;  // -1 while given back to stay within kOpenLevels
  std::vector<Entry> entries;
  size_t next = 0;
};

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' &&
         (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The listing is read whole, so that no directory stream stays open while
// the walk goes deeper. A copy of the descriptor is read from the start: the
// listing needs only read permission, as opening the directory did.
bool list(int fd, std::vector<Entry>* entries) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return false;
  DIR* dir = fdopendir(copy);
  if (!dir) {
    close(copy);
    return false;
  }
  rewinddir(dir);
  while (const dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (isDotOrDotDot(name)) continue;
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat status;
      isDirectory = fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISDIR(status.st_mode);
    }
    entries->push_back(Entry{name, isDirectory});
  }
  closedir(dir);
  return true;
}

// An empty directory goes; a link or file that has taken its place goes too.
void removeName(int parent, const std::string& name) {
  if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno == ENOTDIR) {
    unlinkat(parent, name.c_str(), 0);
  }
}

class Walk {
 public:
  Walk(int topFd, const TreeRemover::OpenFailure& onOpenFailure)
      : onOpenFailure_(onOpenFailure) {
    levels_.emplace_back();
    levels_.back().fd = topFd;
  }

  ~Walk() {
    // The top's descriptor is the caller's.
    for (size_t i = 1; i < levels_.size(); ++i) {
      if (levels_[i].fd >= 0) close(levels_[i].fd);
    }
  }

  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  bool run() {
    if (!list(levels_[0].fd, &levels_[0].entries)) return false;
    while (!levels_.empty()) {
      Level& level = levels_.back();
      if (level.next == level.entries.size()) {
        leaveLevel();
        continue;
      }
      const int fd = reach();
      if (fd < 0) continue;  // reach() has left what it could not reach
      const Entry entry = level.entries[level.next++];
      // A file, link or anything else that is not a directory is unlinked
      // as it stands; one that became a directory since the listing is
      // walked as a directory.
      if (!entry.isDirectory &&
          (unlinkat(fd, entry.name.c_str(), 0) == 0 || errno != EISDIR)) {
        continue;
      }
      enter(fd, entry.name);
    }
    return true;
  }

 private:
  // Opens the directory called name in the one open at parent and makes it
  // the level the walk works on.
  void enter(int parent, const std::string& name) {
    const int child = openat(parent, name.c_str(), kOpenFlags);
    if (child < 0) {
      // ELOOP or ENOTDIR: a link or file stands there now, and goes.
      if (errno != ELOOP && errno != ENOTDIR && onOpenFailure_) {
        onOpenFailure_(errno);
      }
      removeName(parent, name);
      return;
    }
    Level level;
    struct stat status;
    if (fstat(child, &status) != 0 || !list(child, &level.entries)) {
      close(child);
      removeName(parent, name);
      return;
    }
    level.name = name;
    level.device = status.st_dev;
    level.inode = status.st_ino;
    level.fd = child;
    levels_.push_back(std::move(level));
    keepWithinBound();
  }

  // Done with the deepest level: its descriptor goes, and so does the
  // directory itself, from its parent, if it is empty now.
  void leaveLevel() {
    if (levels_.size() == 1) {
      levels_.pop_back();
      return;
    }
    const std::string name = levels_.back().name;
    if (levels_.back().fd >= 0) close(levels_.back().fd);
    levels_.pop_back();
    const int parent = reach();
    if (parent >= 0) removeName(parent, name);
  }

  // The descriptor of the deepest level, opened again if it was given back.
  // Each level on the way is opened from its parent's descriptor and must be
  // the very directory that was found there before (same device and inode).
  // One that cannot be had any more is given up with all below it: what it
  // holds stays, and the walk goes on with the rest of the listing of the
  // level above it.
  int reach() {
    if (levels_.back().fd >= 0) return levels_.back().fd;
    size_t open = levels_.size() - 1;
    while (levels_[open].fd < 0) --open;  // the top is always open
    for (size_t i = open + 1; i < levels_.size(); ++i) {
      Level& level = levels_[i];
      const int fd = openat(levels_[i - 1].fd, level.name.c_str(), kOpenFlags);
      struct stat status;
      const bool same = fd >= 0 && fstat(fd, &status) == 0 &&
                        status.st_dev == level.device &&
                        status.st_ino == level.inode;
      if (!same) {
        if (fd >= 0) close(fd);
        giveUpFrom(i);
        return -1;
      }
      level.fd = fd;
      keepWithinBound();
    }
    return levels_.back().fd;
  }

  // Levels from index on are out of reach: they are left as they are, and
  // the entry of the level above that led to them is done.
  void giveUpFrom(size_t index) {
    while (levels_.size() > index) {
      if (levels_.back().fd >= 0) close(levels_.back().fd);
      levels_.pop_back();
    }
  }

  // Gives back the descriptor of the shallowest open level below the top
  // while more than kOpenLevels are open; the deepest stay, as the walk goes
  // on there.
  void keepWithinBound() {
    int open = 0;
    for (size_t i = 1; i < levels_.size(); ++i) {
      if (levels_[i].fd >= 0) ++open;
    }
    for (size_t i = 1; open > TreeRemover::kOpenLevels && i < levels_.size(); ++i) {
      if (levels_[i].fd < 0) continue;
      close(levels_[i].fd);
      levels_[i].fd = -1;
      --open;
    }
  }

  std::vector<Level> levels_;
  const TreeRemover::OpenFailure& onOpenFailure_;
};

}  // namespace

TreeRemover::TreeRemover(OpenFailure onOpenFailure)
    : onOpenFailure_(std::move(onOpenFailure)) {}

bool TreeRemover::removeContents(int dirFd) const {
  try {
    Walk walk(dirFd, onOpenFailure_);
    return walk.run();
  } catch (...) {
    // Out of memory for a listing: what is left stays, and the removal of
    // the directory itself tells the caller so.
    return true;
  }
}
