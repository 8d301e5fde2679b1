// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/CheckFolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/EngineLines.h"

namespace {

const char kMarker[] = "/.alive";
const char kMarkerBeingMade[] = "/.alive-new";

}  // namespace

const char CheckFolders::kPrefix[] = "widgetctl-check-";

bool CheckFolders::markAlive(const std::string& folder) {
  // Locked under another name first and renamed into place, so that the
  // marker is never seen without its lock. The descriptor stays open (and
  // the lock held) until the process ends, however it ends.
  const std::string making = folder + kMarkerBeingMade;
  const int fd = open(making.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  if (flock(fd, LOCK_EX) != 0 ||
      rename(making.c_str(), (folder + kMarker).c_str()) != 0) {
    unlink(making.c_str());
    close(fd);
    return false;
  }
  return true;
}

int CheckFolders::removeDead(const std::string& tmp) {
  DIR* dir = opendir(tmp.c_str());
  if (!dir) return 0;
  std::vector<std::string> candidates;
  const size_t prefixLength = strlen(kPrefix);
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() == prefixLength + 6 &&
        name.compare(0, prefixLength, kPrefix) == 0) {
      candidates.push_back(tmp + "/" + name);
    }
  }
  closedir(dir);
  int removed = 0;
  for (const std::string& folder : candidates) {
    struct stat status;
    if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != geteuid()) {
      continue;
    }
    // A folder without its marker may be one that a check has just made.
    const int fd = open((folder + kMarker).c_str(),
                        O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;
    const bool dead = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    if (!dead) continue;
    std::vector<std::string> lines;
    EngineLines quiet(&lines);
    if (toolsfacade::removeTree(folder)) ++removed;
  }
  return removed;
}
