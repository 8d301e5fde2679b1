// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackWorkers.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "base/Settings.h"
#include "install/UnpackReport.h"

int UnpackWorkers::defaultCount() { return settings::unpackThreads(); }

Outcome UnpackWorkers::run(const std::vector<UnpackTask>& tasks,
                        EntryUnpacker& unpacker, int baseFd, int baseError,
                        size_t baseLength, const ZipReader& package,
                        zip_int64_t count, std::vector<std::string>& files,
                        FileDigests* digests, bool* started,
                        const FirstEntries* first) {
  const size_t n = tasks.size();
  // The order the entries are taken in: those first chooses, then the
  // others as the archive has them.
  std::vector<size_t> order;
  order.reserve(n);
  std::vector<bool> chosen(n, false);
  std::vector<std::string> firstNames;
  if (first && first->chosen) {
    for (size_t i = 0; i < n; ++i) {
      if (tasks[i].isFolder || !first->chosen(tasks[i].name)) continue;
      chosen[i] = true;
      order.push_back(i);
      firstNames.push_back(tasks[i].name);
    }
  }
  for (size_t i = 0; i < n; ++i) {
    if (!chosen[i]) order.push_back(i);
  }
  std::atomic<size_t> firstLeft{firstNames.size()};
  std::atomic<bool> firstTaken{!first || !first->whenWritten};

  std::vector<UnpackOutcome> outcomes(n);
  std::unique_ptr<std::atomic<bool>[]> finished(new std::atomic<bool>[n]());
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};
  // The first entry in the archive's order that failed so far; no entry
  // behind it is taken any more, as when they are taken in that order.
  std::atomic<size_t> failedAt{n};

  auto work = [&](EntryUnpacker& mine, const std::function<void()>& afterEach) {
    while (!stop.load(std::memory_order_relaxed)) {
      if (firstLeft.load(std::memory_order_acquire) == 0 &&
          !firstTaken.exchange(true, std::memory_order_acq_rel)) {
        try {
          first->whenWritten(firstNames);
        } catch (...) {
          // What it would have done is done after the unpacking.
        }
      }
      const size_t at = next.fetch_add(1, std::memory_order_relaxed);
      if (at >= n) return;
      const size_t i = order[at];
      if (i > failedAt.load(std::memory_order_relaxed)) return;
      UnpackOutcome outcome;
      try {
        outcome = mine.unpack(tasks[i], nullptr);
      } catch (...) {
        outcome.kind = UnpackOutcome::kWriteFailed;
        outcome.error = ENOMEM;
      }
      outcomes[i] = outcome;
      if (outcome.kind != UnpackOutcome::kDone) {
        size_t seen = failedAt.load(std::memory_order_relaxed);
        while (i < seen && !failedAt.compare_exchange_weak(seen, i)) {
        }
      }
      finished[i].store(true, std::memory_order_release);
      if (chosen[i] && outcome.kind == UnpackOutcome::kDone)
        firstLeft.fetch_sub(1, std::memory_order_acq_rel);
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
