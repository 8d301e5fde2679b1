// SPDX-License-Identifier: Apache-2.0
// UnpackWorkers writes a planned package (UnpackPlan) on the calling thread
// and one helper thread, which it starts and joins before it returns: the
// calling thread takes the entries in the archive's order, the helper the
// largest left. The lines, progress reports and files are exactly those one
// thread writing the entries in order would give.
#ifndef WIDGETENGINE_UNPACKWORKERS_H_
#define WIDGETENGINE_UNPACKWORKERS_H_

#include <zip.h>

#include <cstddef>
#include <string>
#include <vector>

#include "base/Outcome.h"
#include "install/EntryUnpacker.h"
#include "install/UnpackPlan.h"

class FileDigests;
class ZipReader;

class UnpackWorkers {
 public:
  // Two threads where there are two processors to run them, unless the host
  // says otherwise: WIDGETENGINE_UNPACK_THREADS=1 keeps every installation on
  // the calling thread (2 asks for two threads on one processor too).
  static int defaultCount();

  // Unpacks tasks, the calling thread with unpacker and the helper with one
  // of its own on the same base (baseFd, baseError, baseLength) and package;
  // count is the archive's entry count, for the progress reports. Appends the
  // name of each file written to files. The refusal of the first entry in
  // the archive that failed, after its line: neither thread takes an entry
  // behind a failed one, and whatever was written past the failure goes
  // with the target directory when the failed extraction is cleaned.
  // *started says whether the helper thread ran. With digests, each thread
  // digests the files it writes (unpacker must be digesting already), and
  // the digests go into digests in entry order. With first (when not
  // null), the entries it chooses are taken before the others, and its
  // whenWritten runs on the thread that finds them all written.
  static Outcome run(const std::vector<UnpackTask>& tasks, EntryUnpacker& unpacker,
                  int baseFd, int baseError, size_t baseLength,
                  const ZipReader& package, zip_int64_t count,
                  std::vector<std::string>& files, FileDigests* digests,
                  bool* started, const FirstEntries* first = nullptr);
};

#endif  // WIDGETENGINE_UNPACKWORKERS_H_
