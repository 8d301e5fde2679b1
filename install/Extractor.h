// SPDX-License-Identifier: Apache-2.0
// Extractor checks a widget package (a zip archive) entry by entry and then
// unpacks it into a target directory. Unless told to keep its files,
// destroying it removes the whole target directory again.
#ifndef WIDGETENGINE_EXTRACTOR_H_
#define WIDGETENGINE_EXTRACTOR_H_

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "base/Outcome.h"
#include "install/UnpackPlan.h"

class FileDigests;

class Extractor {
 public:
  // What is at targetDir (which must end with "/") when the extractor is
  // made: anything (it is wiped), or an empty folder the caller has just
  // made exclusively, which is used as it is.
  enum Target { kWipeTarget, kFreshFolder };
  Extractor(const std::string& zipPath, const std::string& targetDir,
            Target target = kWipeTarget);
  ~Extractor();

  Extractor(const Extractor&) = delete;
  Extractor& operator=(const Extractor&) = delete;

  // 0 on success, with the archive name of every extracted file appended to
  // files; -1 on any failure, with one message on standard output.
  int extract(std::vector<std::string>& files);
  // Why the last extract() failed; ok after a success.
  const Outcome& outcome() const { return outcome_; }
  void setKeepFiles(bool keep);
  // How many threads write a package of 16 entries or more whose entries
  // could be written in any order (distinct plain names): by default two on
  // a machine with more than one processor, unless WIDGETENGINE_UNPACK_THREADS
  // is 1; 1 keeps to the calling thread. The lines, files and status are the
  // same either way.
  void setWorkers(int count);
  // While digests is set (it stays the caller's), extract() puts in it the
  // SHA-256 digest of every file it writes, of the bytes as they are
  // written; unset, as by default, nothing is digested.
  void setDigests(FileDigests* digests) { digests_ = digests; }
  // When extract() writes on two threads, the entries first chooses are
  // taken before the others and first's whenWritten runs as soon as they
  // are all written (UnpackWorkers); in one thread, whenWritten never runs. Lines,
  // files and refusals are the same either way.
  void setFirst(FirstEntries first) { first_ = std::move(first); }
  // True when the last extract() wrote on two threads.
  bool wroteOnTwoThreads() const { return twoThreads; }
  void clean();

  // True when an entry name is one the extractor accepts: printable ASCII
  // without the characters some file systems or shells treat specially, and
  // no ".." component.
  static bool isAcceptedName(const std::string& name);

  // Creates every missing folder of path that is followed by a "/".
  int makeDirectories(const std::string& path, mode_t mode);
  // Deletes a directory and all below it; never follows a symbolic link (a
  // link in its place is removed itself). Leaves the process in the folder
  // that held the directory, which is removed last by path from there.
  void removeDirectoryTree(const std::string& path);

 private:
  // extract() without keeping the outcome.
  Outcome unpack(std::vector<std::string>& files);

  std::string zipPath;
  std::string targetDir;
  bool keepFiles;
  int workers;
  bool twoThreads = false;
  FileDigests* digests_ = nullptr;
  FirstEntries first_;
  Outcome outcome_;
};

#endif  // WIDGETENGINE_EXTRACTOR_H_
