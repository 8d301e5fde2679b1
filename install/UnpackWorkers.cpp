// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackWorkers.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "base/Settings.h"
#include "install/UnpackReport.h"

int UnpackWorkers::defaultCount() { return settings::unpackThreads(); }

Outcome UnpackWorkers::run(const std::vector<UnpackTask>& tasks,
                        EntryUnpacker& unpacker, int baseFd, int baseError,
                        size_t baseLength, const ZipReader& package,
                        zip_int64_t count, std::vector<std::string>& files,
                        FileDigests* digests, bool* started) {
  const size_t n = tasks.size();
  std::vector<UnpackOutcome> outcomes(n);
  std::unique_ptr<std::atomic<bool>[]> finished(new std::atomic<bool>[n]());
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};

  auto work = [&](EntryUnpacker& mine, const std::function<void()>& afterEach) {
    while (!stop.load(std::memory_order_relaxed)) {
      const size_t i = next.fetch_add(1, std::memory_order_relaxed);
      if (i >= n) return;
      UnpackOutcome outcome;
      try {
        outcome = mine.unpack(tasks[i], nullptr);
      } catch (...) {
        outcome.kind = UnpackOutcome::kWriteFailed;
        outcome.error = ENOMEM;
      }
      outcomes[i] = outcome;
      if (outcome.kind != UnpackOutcome::kDone) {
        stop.store(true, std::memory_order_relaxed);
      }
      finished[i].store(true, std::memory_order_release);
      afterEach();
    }
  };

  size_t said = 0;
  Outcome failedEntry;
  auto sayFinished = [&]() {
    while (failedEntry.ok() && said < n &&
           finished[said].load(std::memory_order_acquire)) {
      const UnpackTask& task = tasks[said];
      UnpackReport::sayEntry(task, count);
      failedEntry = UnpackReport::sayOutcome(task, outcomes[said]);
      if (!failedEntry.ok()) return;
      if (!task.isFolder) files.push_back(task.name);
      outcomes[said].keepDigest(digests);
      ++said;
    }
  };

  // Joins the other thread however this one leaves, after telling it to
  // take no more entries.
  struct Helper {
    std::atomic<bool>& stop;
    std::thread thread;
    ~Helper() {
      if (!thread.joinable()) return;
      stop.store(true, std::memory_order_relaxed);
      thread.join();
    }
  } helper{stop, std::thread()};
  try {
    helper.thread = std::thread([&] {
      try {
        EntryUnpacker other(baseFd, baseError, baseLength, package);
        other.setDigesting(digests != nullptr);
        work(other, [] {});
      } catch (...) {
        // Without memory for its buffers it takes no entry; this thread
        // takes them all.
      }
    });
  } catch (...) {
    // No second thread: this one does it all.
  }
  *started = helper.thread.joinable();
  work(unpacker, sayFinished);
  if (helper.thread.joinable()) helper.thread.join();
  sayFinished();
  if (!failedEntry.ok() || said == n) return failedEntry;
  return UnpackReport::notUnpacked();
}
