// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the benchmark programs that time work on the file
// system or in other programs: fresh run directories that are never reused,
// and running a program the way a shell would, with its output discarded.
#ifndef WIDGETENGINE_BENCH_BENCHRUNS_H_
#define WIDGETENGINE_BENCH_BENCHRUNS_H_

#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

extern char** environ;

namespace benchruns {

inline int dropCachedPages(const char* path, const struct stat* info, int type,
                           struct FTW*) {
  if (type == FTW_F && info->st_size > 0) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
      close(fd);
    }
  }
  return 0;
}

// A directory path under runsDir, never used before (not created). Nothing
// is deleted while measuring: on ext4, creating files right after many were
// deleted costs a scan past every recently freed inode, which would distort
// whichever contender ran next; the runs are removed when all is measured.
// Each run starts with nothing left to write back from the one before (the
// file system holding syncDir is synced), and the previous run's files leave
// the page cache: kept there, the runs' gigabytes would make every later run
// write into memory that this virtual machine's host hands over slowly and
// to whichever contender comes first.
inline std::string freshRunPath(const std::string& syncDir,
                                const std::string& runsDir, const char* kind) {
  static int counter = 0;
  static std::string previous;
  const int fd = open(syncDir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd >= 0) {
    syncfs(fd);
    close(fd);
  }
  if (!previous.empty()) nftw(previous.c_str(), dropCachedPages, 16, FTW_PHYS);
  previous = runsDir + "/" + kind + "-" + std::to_string(++counter);
  return previous;
}

// Runs a program found on PATH with its standard output discarded; its exit
// status, or -1 when it could not be run or did not exit.
inline int runProgram(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t child;
  int status = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(),
                            environ);
  posix_spawn_file_actions_destroy(&actions);
  if (status != 0) return -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Standard output goes to the file at path while the object lives: the
// engine's own lines (one trace line per entry, download messages) are
// written while measuring, as they would be on a device, but not shown.
class StdoutToLog {
 public:
  explicit StdoutToLog(const std::string& path) {
    fflush(stdout);
    saved_ = dup(1);
    int log = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(log, 1);
    close(log);
  }
  ~StdoutToLog() {
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }
  StdoutToLog(const StdoutToLog&) = delete;
  StdoutToLog& operator=(const StdoutToLog&) = delete;

 private:
  int saved_;
};

// The wall-clock seconds of every run, by benchmark name, for the summary.
inline std::map<std::string, std::vector<double>>& seconds() {
  static std::map<std::string, std::vector<double>> runs;
  return runs;
}

// Times each iteration of run under name; a run that fails marks the
// benchmark as failed.
inline void record(benchmark::State& state, const std::string& name,
                   const std::function<bool()>& run) {
  bool ok = true;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    ok = run() && ok;
    seconds()[name].push_back(std::chrono::duration<double>(
                                  std::chrono::steady_clock::now() - start)
                                  .count());
  }
  if (!ok) state.SkipWithError("the run failed");
}

inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// One summary line: both medians, their ratio and whether it meets target.
inline void printRatio(const std::string& ours, const std::string& theirs,
                       double target, int width = 27) {
  const double a = median(seconds()[ours]);
  const double b = median(seconds()[theirs]);
  if (a <= 0 || b <= 0) return;
  printf("%-*s %9.2f ms  %-*s %9.2f ms  ratio %.3f  target <= %.2f  %s\n",
         width, ours.c_str(), a * 1e3, width, theirs.c_str(), b * 1e3, a / b,
         target, a / b <= target ? "met" : "MISSED");
}

}  // namespace benchruns

#endif  // WIDGETENGINE_BENCH_BENCHRUNS_H_
