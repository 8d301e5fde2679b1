// SPDX-License-Identifier: Apache-2.0
// FuzzSandbox gives a fuzz target a private folder for the life of its
// process, with a widget root (holding the tmp/ folder downloads go to) and a
// registry directory that WIDGET_PATH and YRA_DATA_PATH point at, and sends
// the engine's standard output to /dev/null so that libFuzzer's own report
// stays readable. Header-only: each target is one source file.
#ifndef WIDGETENGINE_FUZZ_FUZZSANDBOX_H_
#define WIDGETENGINE_FUZZ_FUZZSANDBOX_H_

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

class FuzzSandbox {
 public:
  FuzzSandbox() {
    char pattern[] = "/tmp/widgetengine-fuzz-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (!made) abort();
    path_ = made;
    root_ = path_ + "/widgets/";
    conf_ = path_ + "/conf/";
    mkdir(root_.c_str(), 0755);
    mkdir((root_ + "tmp").c_str(), 0755);
    mkdir(conf_.c_str(), 0755);
    setenv("WIDGET_PATH", root_.c_str(), 1);
    setenv("YRA_DATA_PATH", conf_.c_str(), 1);
    if (!getenv("FUZZ_SHOW_ENGINE_OUTPUT")) {
      fflush(stdout);
      const int devnull = open("/dev/null", O_WRONLY);
      if (devnull >= 0) dup2(devnull, 1);
    }
  }
  ~FuzzSandbox() { removeTree(path_); }

  const std::string& path() const { return path_; }
  const std::string& root() const { return root_; }
  const std::string& conf() const { return conf_; }

  static void writeFile(const std::string& file, const uint8_t* data,
                        size_t size) {
    FILE* out = fopen(file.c_str(), "wb");
    if (!out) abort();
    if (size && fwrite(data, 1, size, out) != size) abort();
    if (fclose(out) != 0) abort();
  }

  static std::vector<std::string> list(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
    return names;
  }

  static void removeTree(const std::string& dir) {
    nftw(dir.c_str(),
         [](const char* p, const struct stat*, int, struct FTW*) {
           return remove(p);
         },
         16, FTW_DEPTH | FTW_PHYS);
  }

  // Removes everything the engine made, keeping the empty folders.
  void reset() {
    for (const std::string& name : list(root_))
      if (name != "tmp") removeTree(root_ + name);
    for (const std::string& name : list(root_ + "tmp")) removeTree(root_ + "tmp/" + name);
    for (const std::string& name : list(conf_)) removeTree(conf_ + name);
  }

 private:
  std::string path_;
  std::string root_;
  std::string conf_;
};

#endif  // WIDGETENGINE_FUZZ_FUZZSANDBOX_H_
