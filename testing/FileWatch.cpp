// SPDX-License-Identifier: Apache-2.0
#include "testing/FileWatch.h"

#include <dirent.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

const uint32_t kChanges = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_MODIFY |
                          IN_ATTRIB | IN_DELETE | IN_MOVED_FROM;

}  // namespace

FileWatch::FileWatch(const std::string& directory)
    : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (fd_ < 0) abort();
  watchTree(directory);
}

FileWatch::~FileWatch() { close(fd_); }

// Folders made before their watch was added are found here, and their
// contents by the condition, which is asked after every batch of events.
void FileWatch::watchTree(const std::string& directory) {
  const int watch =
      inotify_add_watch(fd_, directory.c_str(), kChanges | IN_ONLYDIR | IN_DONT_FOLLOW);
  if (watch < 0) return;
  folders_[watch] = directory;
  DIR* listing = opendir(directory.c_str());
  if (!listing) return;
  while (const dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || entry->d_type != DT_DIR) continue;
    watchTree(directory + "/" + name);
  }
  closedir(listing);
}

bool FileWatch::waitFor(const std::function<bool()>& condition,
                        std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    if (condition()) return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd ready = {fd_, POLLIN, 0};
    const int n = poll(&ready, 1, static_cast<int>(left.count()));
    if (n < 0 && errno != EINTR) return condition();
    alignas(inotify_event) char buffer[16384];
    ssize_t got;
    while ((got = read(fd_, buffer, sizeof buffer)) > 0) {
      for (char* at = buffer; at < buffer + got;) {
        const inotify_event* event = reinterpret_cast<const inotify_event*>(at);
        if ((event->mask & IN_ISDIR) && (event->mask & (IN_CREATE | IN_MOVED_TO)) &&
            event->len > 0) {
          const auto folder = folders_.find(event->wd);
          if (folder != folders_.end()) watchTree(folder->second + "/" + event->name);
        }
        at += sizeof(inotify_event) + event->len;
      }
    }
  }
}
