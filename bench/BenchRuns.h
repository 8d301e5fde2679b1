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

#include <string>
#include <vector>

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

}  // namespace benchruns

#endif  // WIDGETENGINE_BENCH_BENCHRUNS_H_
