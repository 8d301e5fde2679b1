// SPDX-License-Identifier: Apache-2.0
#include "install/UnpackWorkers.h"

#include <algorithm>
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
  // Those first chooses are taken before all others, by both threads. Then
  // this thread, which reports, goes on in the archive's order, so that the
  // lines and progress come as the entries do; the helper takes the largest
  // left, so that no large entry is left for the end, written (and
  // digested) by one thread while the other has nothing to take.
  std::vector<size_t> chosenOrder;
  std::vector<size_t> archiveOrder;
  std::vector<bool> chosen(n, false);
  std::vector<std::string> firstNames;
  for (size_t i = 0; i < n; ++i) {
    if (first && first->chosen && !tasks[i].isFolder && first->chosen(tasks[i].name)) {
      chosen[i] = true;
      chosenOrder.push_back(i);
      firstNames.push_back(tasks[i].name);
    } else {
      archiveOrder.push_back(i);
    }
  }
  std::vector<size_t> sizeOrder(archiveOrder);
  std::stable_sort(sizeOrder.begin(), sizeOrder.end(),
                   [&](size_t a, size_t b) { return tasks[a].size > tasks[b].size; });
  std::atomic<size_t> firstLeft{firstNames.size()};
  std::atomic<bool> firstTaken{!first || !first->whenWritten};

  std::vector<UnpackOutcome> outcomes(n);
  std::unique_ptr<std::atomic<bool>[]> finished(new std::atomic<bool>[n]());
  std::unique_ptr<std::atomic<bool>[]> claimed(new std::atomic<bool>[n]());
  std::atomic<size_t> nextChosen{0};
  std::atomic<bool> stop{false};
  // The first entry in the archive's order that failed so far; no entry
  // behind it is taken any more, as when they are taken in that order.
  std::atomic<size_t> failedAt{n};

  // The next entry for a thread that goes through its order from *at, or
  // n when none is left.
  auto take = [&](const std::vector<size_t>& order, size_t* at) {
    const size_t c = nextChosen.fetch_add(1, std::memory_order_relaxed);
    if (c < chosenOrder.size()) {
      claimed[chosenOrder[c]].store(true, std::memory_order_relaxed);
      return chosenOrder[c];
    }
    while (*at < order.size()) {
      const size_t i = order[(*at)++];
      if (!claimed[i].exchange(true, std::memory_order_relaxed)) return i;
    }
    return n;
  };

  auto work = [&](EntryUnpacker& mine, const std::vector<size_t>& order,
                  const std::function<void()>& afterEach) {
    size_t at = 0;
    while (!stop.load(std::memory_order_relaxed)) {
      if (firstLeft.load(std::memory_order_acquire) == 0 &&
          !firstTaken.exchange(true, std::memory_order_acq_rel)) {
        try {
          first->whenWritten(firstNames);
        } catch (...) {
          // What it would have done is done after the unpacking.
        }
      }
      const size_t i = take(order, &at);
      if (i >= n) return;
      // Taken out of the archive's order, an entry behind a failed one may
      // come before others that are not.
      if (i > failedAt.load(std::memory_order_relaxed)) continue;
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
        work(other, sizeOrder, [] {});
      } catch (...) {
        // Without memory for its buffers it takes no entry; this thread
        // takes them all.
      }
    });
  } catch (...) {
    // No second thread: this one does it all.
  }
  *started = helper.thread.joinable();
  work(unpacker, archiveOrder, sayFinished);
  if (helper.thread.joinable()) helper.thread.join();
  sayFinished();
  if (!failedEntry.ok() || said == n) return failedEntry;
  return UnpackReport::notUnpacked();
}
