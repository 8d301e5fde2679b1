// SPDX-License-Identifier: Apache-2.0
// ChangeCounter is a number in memory that every process of the engine
// shares for one registry file, moved after each commit, so that a lookup
// can tell from one memory read that nothing was written since it last
// looked at the file. It lives in a System V shared memory segment named
// after the file's device and inode: such a segment has a fixed size, so
// nothing another process does to the registry file can make reading it
// fault, as reading a mapping of the file itself would after a truncation.
// A segment that another user owns, or that others may write, is not used.
// The segment also says which file it counts for, so that one left behind
// by a killed process is removed once that file is gone (see reclaim()).
#ifndef WIDGETENGINE_CHANGECOUNTER_H_
#define WIDGETENGINE_CHANGECOUNTER_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

class ChangeCounter {
 public:
  // A segment's size: no more memory than the kernel gives any segment (a
  // page at least), and room for the registry's path beside the counter.
  static constexpr size_t kSegmentSize = 4096;

  ChangeCounter();
  ~ChangeCounter();

  ChangeCounter(const ChangeCounter&) = delete;
  ChangeCounter& operator=(const ChangeCounter&) = delete;

  // Attaches the counter of the file with this device and inode, making it
  // when no process has it yet; path is the file's name, kept in the
  // segment for reclaim(). False when there is none that can be trusted;
  // the lookups then read the file's header every time. The first call of
  // a process reclaims what killed processes left first.
  bool attach(dev_t device, ino_t inode, const std::string& path);

  // Detaches; the last process to let go of a counter removes it.
  void detach();

  bool attached() const { return value_ != nullptr; }

  // The current value (0 when not attached).
  uint32_t read() const {
    return value_ ? __atomic_load_n(value_, __ATOMIC_ACQUIRE) : 0;
  }

  // Tells every process that the registry has changed.
  void bump() {
    if (value_) __atomic_add_fetch(value_, 1, __ATOMIC_RELEASE);
  }

  // Whether the attached segment is still the one that the file's name
  // gives; re-attaches when not (someone removed it from outside the
  // engine). False when the counter cannot be used now.
  bool revalidate();

  // Removes the counters of this user that no process has attached and
  // whose registry file is gone (or is another file now): what a process
  // killed while attached leaves behind. Never looks at another user's
  // segments. The number removed.
  static int reclaim();

  // The System V key of a file's counter.
  static key_t keyOf(dev_t device, ino_t inode);

 private:
  // Attaches and holds the segment under key_, once.
  enum Outcome { kHeld, kRetry, kRefused };
  Outcome tryAttach(const std::string& path);

  key_t key_;
  int id_;
  uint32_t* value_;
  dev_t device_;
  ino_t inode_;
  std::string path_;
};

#endif  // WIDGETENGINE_CHANGECOUNTER_H_
