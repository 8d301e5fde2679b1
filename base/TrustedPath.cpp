// SPDX-License-Identifier: Apache-2.0
#include "base/TrustedPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Refusal.h"

namespace {

std::string octal(mode_t mode) {
  char text[8];
  snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

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
  const int fd = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    *reason = "cannot open the directory " + path + ": " + strerror(errno);
    return false;
  }
  const bool trusted = opened(fd, path, reason);
  close(fd);
  return trusted;
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
