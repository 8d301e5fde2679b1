// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackPlan.h"

#include <climits>
#include <unordered_set>
#include <utility>

#include "install/EntryName.h"
#include "install/zip/ZipReader.h"

namespace {

// Below this many entries a second thread costs more than it saves.
constexpr zip_int64_t kEntriesForTwoThreads = 16;

// Lower-cased, for comparing names as a file system that ignores case
// would; names are ASCII (EntryName::isAccepted).
std::string foldCase(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

}  // namespace

UnpackTask UnpackTask::of(zip_int64_t index, const zip_stat_t& stat,
                          const std::string& targetDir, const ZipReader& package) {
  UnpackTask task;
  task.index = index;
  task.name = EntryName::of(stat);
  task.full = targetDir + task.name;
  task.isFolder = EntryName::isFolder(task.name);
  task.size = stat.size;
  task.hasCrc = (stat.valid & ZIP_STAT_CRC) != 0;
  task.crc = stat.crc;
  if (!task.isFolder) {
    task.spanned = package.span(index, stat, &task.at, &task.length, &task.method);
  }
  return task;
}

bool UnpackPlan::inAnyOrder(zip_t* archive, zip_int64_t count,
                            const std::string& targetDir, const ZipReader& package,
                            std::vector<UnpackTask>* tasks) {
  if (count < kEntriesForTwoThreads) return false;
  std::vector<UnpackTask> planned;
  planned.reserve(static_cast<size_t>(count));
  std::unordered_set<std::string> files;
  std::unordered_set<std::string> folders;
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive, index, 0, &stat) == -1) return false;
    UnpackTask task = UnpackTask::of(index, stat, targetDir, package);
    if (task.full.size() >= PATH_MAX) return false;
    if (!task.isFolder && !task.spanned) return false;
    const std::string path = foldCase(
        task.isFolder ? task.name.substr(0, task.name.size() - 1) : task.name);
    size_t start = 0;
    for (;;) {
      size_t end = path.find('/', start);
      if (end == std::string::npos) end = path.size();
      if (end == start || (end - start == 1 && path[start] == '.')) return false;
      if (end == path.size()) break;
      folders.insert(path.substr(0, end));
      start = end + 1;
    }
    if (task.isFolder) {
      folders.insert(path);
    } else if (!files.insert(path).second) {
      return false;
    }
    planned.push_back(std::move(task));
  }
  for (const std::string& file : files) {
    if (folders.count(file) != 0) return false;
  }
  tasks->swap(planned);
  return true;
}
