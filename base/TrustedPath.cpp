// SPDX-License-Identifier: Apache-2.0
#include "base/TrustedPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Refusal.h"

namespace {

std::string octal(mode_t mode) {
  char text[8];
  snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// As many links as the kernel itself follows in one lookup.
constexpr int kMostLinks = 40;

// The names of path, in order; "" and "." are left out.
void pushNames(const std::string& path, std::deque<std::string>* names) {
  std::deque<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string name = path.substr(start, end - start);
    if (!name.empty() && name != ".") parts.push_back(name);
    start = end + 1;
  }
  names->insert(names->begin(), parts.begin(), parts.end());
}

// The root directory, reached from the working directory by "..": an
// emulator that runs programs of another architecture against a system
// image of it (qemu-user with -L) answers open("/") with the image's root,
// while names below it are the machine's own. Climbing is only ever done
// relative to a descriptor, which no emulator rewrites; the root is the
// directory that is its own parent.
int openRoot() {
  int here = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  // Bounded as a path is: a deeper working directory is not one to climb.
  for (int step = 0; here >= 0 && step < PATH_MAX / 2; ++step) {
    const int up = openat(here, "..", O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct stat mine, parent;
    if (up < 0 || fstat(here, &mine) != 0 || fstat(up, &parent) != 0) {
      if (up >= 0) close(up);
      break;
    }
    if (mine.st_dev == parent.st_dev && mine.st_ino == parent.st_ino) {
      close(up);
      return here;
    }
    close(here);
    here = up;
  }
  // The working directory is gone (removed, or no longer reachable).
  if (here >= 0) close(here);
  return open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
}

int openStart(const std::string& path) {
  if (!path.empty() && path[0] == '/') return openRoot();
  return open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
}

}  // namespace

int TrustedPath::walk(const std::string& path, std::string* reason) {
  // As open() has it, an empty path names nothing.
  int current = path.empty() ? (errno = ENOENT, -1) : openStart(path);
  if (current < 0) {
    const int error = errno;
    *reason = "cannot open the directory " + path + ": " + strerror(error);
    errno = error;
    return -1;
  }
  std::deque<std::string> names;
  pushNames(path, &names);
  // What has been walked, spelled as the caller and the links spelled it,
  // so that a refused link is named the way the user would find it.
  std::string walked = path.empty() || path[0] != '/' ? "" : "/";
  int links = 0;
  int error = 0;
  while (!names.empty() && error == 0) {
    const std::string name = names.front();
    names.pop_front();
    const std::string here = walked + name;
    const int next = openat(current, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat status;
    if (next < 0 || fstat(next, &status) != 0) {
      error = errno;
      *reason = "cannot open the directory " + path + ": " + strerror(error);
      if (next >= 0) close(next);
      break;
    }
    if (S_ISLNK(status.st_mode)) {
      if (status.st_uid != geteuid() && status.st_uid != 0) {
        *reason = here + " is a link that belongs to another user (uid " +
                  std::to_string(status.st_uid) + ")";
        refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, *reason);
        error = EPERM;
      } else if (++links > kMostLinks) {
        error = ELOOP;
        *reason = "cannot open the directory " + path + ": " + strerror(error);
      } else {
        char target[PATH_MAX];
        const ssize_t n = readlinkat(next, "", target, sizeof target);
        if (n <= 0 || static_cast<size_t>(n) >= sizeof target) {
          error = n < 0 ? errno : ENAMETOOLONG;
          *reason = "cannot open the directory " + path + ": " + strerror(error);
        } else {
          const std::string text(target, static_cast<size_t>(n));
          pushNames(text, &names);
          if (text[0] == '/') {
            const int top = openStart(text);
            if (top < 0) {
              error = errno;
              *reason = "cannot open the directory " + path + ": " + strerror(error);
            } else {
              close(current);
              current = top;
              walked = "/";
            }
          }
        }
      }
      close(next);
      continue;
    }
    if (!S_ISDIR(status.st_mode)) {
      error = ENOTDIR;
      *reason = "cannot open the directory " + path + ": " + strerror(error);
      close(next);
      break;
    }
    close(current);
    current = next;
    walked = here + "/";
  }
  if (error != 0) {
    close(current);
    errno = error;
    return -1;
  }
  return current;
}

int TrustedPath::walkToParent(const std::string& path, std::string* last,
                              std::string* reason) {
  std::string bare = path;
  while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  const size_t slash = bare.rfind('/');
  *last = slash == std::string::npos ? bare : bare.substr(slash + 1);
  if (last->empty() || *last == "/") {
    *reason = "cannot open the directory " + path + ": " + strerror(EINVAL);
    errno = EINVAL;
    return -1;
  }
  return walk(slash == std::string::npos ? std::string(".")
              : slash == 0               ? std::string("/")
                                         : bare.substr(0, slash),
              reason);
}

std::string TrustedPath::realPathOf(int fd) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  const ssize_t n = readlink(link, target, sizeof target);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof target || target[0] != '/')
    return std::string();
  std::string result(target, static_cast<size_t>(n));
  if (result.back() != '/') result.push_back('/');
  return result;
}

int TrustedPath::openDirectory(const std::string& path, std::string* reason) {
  const int fd = walk(path, reason);
  if (fd < 0) return -1;
  if (!opened(fd, path, reason)) {
    close(fd);
    errno = EPERM;
    return -1;
  }
  return fd;
}

bool TrustedPath::opened(int fd, const std::string& path, std::string* reason) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    *reason = "cannot look at " + path + ": " + strerror(errno);
    return false;
  }
  const uid_t self = geteuid();
  if (status.st_uid != self && status.st_uid != 0) {
    *reason = path + " belongs to another user (uid " +
              std::to_string(status.st_uid) + ")";
    refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, *reason);
    return false;
  }
  // A directory with the sticky bit still lets others add names to it; only
  // a path that nobody else can write at all is trusted.
  if (status.st_mode & (S_IWGRP | S_IWOTH)) {
    *reason = path + " is writable by other users (mode " +
              octal(status.st_mode) + ")";
    refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, *reason);
    return false;
  }
  return true;
}

// O_PATH opens without reading: a file its owner made unreadable is still
// looked at, and a fifo planted at the name cannot hold the caller.
bool TrustedPath::directory(const std::string& path, std::string* reason) {
  std::string why;
  const int fd = openDirectory(path, &why);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    *reason = why;
    return false;
  }
  close(fd);
  return true;
}

bool TrustedPath::fileIfPresent(const std::string& path, std::string* reason) {
  const int fd = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    *reason = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  struct stat status;
  bool trusted = fstat(fd, &status) == 0;
  if (!trusted) {
    *reason = "cannot look at " + path + ": " + strerror(errno);
  } else if (S_ISLNK(status.st_mode)) {
    *reason = path + " is a link";
    refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, *reason);
    trusted = false;
  } else {
    // Whatever else stands there (a directory, say) is the caller's to
    // fail on, as long as nobody else could have put it there.
    trusted = opened(fd, path, reason);
  }
  close(fd);
  return trusted;
}

bool TrustedPath::fileAndFolder(const std::string& path,
                                std::initializer_list<const char*> suffixes,
                                std::string* reason) {
  const size_t slash = path.rfind('/');
  const std::string folder =
      slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
  if (!directory(folder, reason) || !fileIfPresent(path, reason)) return false;
  for (const char* suffix : suffixes) {
    if (!fileIfPresent(path + suffix, reason)) return false;
  }
  return true;
}
