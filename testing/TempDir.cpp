// SPDX-License-Identifier: Apache-2.0
#include "testing/TempDir.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") +
                        "/widgetengine-test-XXXXXX";
  if (!mkdtemp(&pattern[0])) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() { removeTree(path_); }

std::string TempDir::file(const std::string& name) const {
  return path_ + "/" + name;
}

void TempDir::writeFile(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << contents;
}

std::string TempDir::readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool TempDir::exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

bool TempDir::isDirectory(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> TempDir::listDirectory(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (!dir) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

namespace {
int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  // Directories are visited after their contents (FTW_DEPTH); links are
  // removed themselves (FTW_PHYS).
  ::remove(path);
  return 0;
}
}  // namespace

void TempDir::removeTree(const std::string& path) {
  // Give back write and search permission that a test may have taken away.
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  nftw(
      path.c_str(),
      [](const char* p, const struct stat* s, int type, struct FTW*) {
        if (type == FTW_D || type == FTW_DNR) chmod(p, 0700);
        (void)s;
        return 0;
      },
      16, FTW_PHYS);
  nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}
