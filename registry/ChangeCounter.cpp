// SPDX-License-Identifier: Apache-2.0
#include "registry/ChangeCounter.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "base/Strings.h"

// What a segment holds. Every field is of fixed width, so that processes of
// any word size read the same layout.
//
// Removal and attaching are kept apart by state, without a lock: a process
// uses a segment only once it has "held" it, by moving the number in state
// up by one while kDead is clear; it never uses one that says kDead. A
// process removes a segment only by setting kDead with a compare-and-swap
// from a value it read before it saw, in shm_nattch, that it was the only
// process attached. Any process holding the segment at the time of that
// swap either held it before the value was read, and was then attached
// when shm_nattch was looked at (so nothing is removed), or held it after,
// and so changed the value the swap expects (so the swap fails). A segment
// that says kDead is therefore used by nobody and never will be; any
// process may finish its removal. Nothing waits on another process, so a
// process killed at any point leaves no one stuck.
namespace {

struct Segment {
  uint32_t value;   // the counter itself
  uint32_t state;   // kDead | the number of holds taken (wrapping)
  uint32_t format;  // kReady once device, inode and path are written
  uint32_t unused;
  uint64_t device;
  uint64_t inode;
  char reserved[32];
  char path[ChangeCounter::kSegmentSize - 64];  // NUL-terminated; "" unknown
};
static_assert(sizeof(Segment) == ChangeCounter::kSegmentSize,
              "the layout fills the segment exactly");

constexpr uint32_t kDead = 0x80000000u;
constexpr uint32_t kWriting = 1;
constexpr uint32_t kReady = 0x57454331;  // "WEC1"

// Attaching gives up after this many segments were removed under it in a
// row: each retry means another process made progress, but not forever.
constexpr int kAttachTries = 64;

// A reclaim looks at so many segments at most, so that its cost stays
// bounded whatever is left on the system; the next process goes on.
constexpr int kMostIndexes = 1 << 16;
constexpr int kMostExamined = 1024;

// A segment may serve only when this user made it and owns it, nobody else
// may write it, and it has this engine's size.
bool ours(const struct shmid_ds& status) {
  const uid_t me = geteuid();
  // The permission bits are looked for in both halves of the mode: qemu's
  // s390x emulation hands them back in the upper one, where a kernel never
  // puts anything.
  const unsigned long mode = status.shm_perm.mode;
  return status.shm_perm.uid == me && status.shm_perm.cuid == me &&
         ((mode | mode >> 16) & 0077) == 0 &&
         status.shm_segsz == ChangeCounter::kSegmentSize;
}

// Takes a hold on the segment (see Segment); false when it is being
// removed.
bool hold(uint32_t* state) {
  uint32_t seen = __atomic_load_n(state, __ATOMIC_ACQUIRE);
  for (;;) {
    if (seen & kDead) return false;
    if (__atomic_compare_exchange_n(state, &seen, (seen + 1) & ~kDead, false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      return true;
    }
  }
}

// Removes the segment id, which the caller has attached at state, when no
// other process is attached to it. True when it was removed.
bool removeIfAlone(int id, uint32_t* state) {
  // Read before shm_nattch: see Segment for why this order matters.
  uint32_t seen = __atomic_load_n(state, __ATOMIC_ACQUIRE);
  if (!(seen & kDead)) {
    struct shmid_ds status;
    if (shmctl(id, IPC_STAT, &status) != 0 || status.shm_nattch > 1) return false;
    if (!__atomic_compare_exchange_n(state, &seen, seen | kDead, false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      return false;
    }
  }
  return shmctl(id, IPC_RMID, nullptr) == 0 || errno == EINVAL || errno == EIDRM;
}

// Whether the segment still counts for a file that exists under the name
// it keeps, with the device and inode it was made for.
bool fileStillThere(const Segment& segment) {
  if (__atomic_load_n(&segment.format, __ATOMIC_ACQUIRE) != kReady) return false;
  const dev_t device = static_cast<dev_t>(segment.device);
  const ino_t inode = static_cast<ino_t>(segment.inode);
  const size_t length = strnlen(segment.path, sizeof segment.path);
  if (length == 0 || length == sizeof segment.path) return false;
  const std::string path(segment.path, length);
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_dev == device &&
         status.st_ino == inode;
}

}  // namespace

// A hash of the file's identity, written out byte by byte so that processes
// of any word size and byte order compute the same one. The "2" keeps the
// page-sized counters away from the 64-byte ones of earlier releases, which
// a process of such a release may still hold for the same file.
key_t ChangeCounter::keyOf(dev_t device, ino_t inode) {
  std::string identity = "widgetengine registry counter 2 ";
  for (uint64_t value : {static_cast<uint64_t>(device), static_cast<uint64_t>(inode)}) {
    for (int shift = 0; shift < 64; shift += 8)
      identity.push_back(static_cast<char>((value >> shift) & 0xff));
  }
  const uint64_t hash = fnv1a64(identity);
  key_t key = static_cast<key_t>(static_cast<uint32_t>(hash ^ (hash >> 32)) & 0x7fffffff);
  // IPC_PRIVATE would make a segment of its own at every call.
  return key == IPC_PRIVATE ? 1 : key;
}

ChangeCounter::ChangeCounter()
    : key_(IPC_PRIVATE), id_(-1), value_(nullptr), device_(0), inode_(0) {}

ChangeCounter::~ChangeCounter() { detach(); }

bool ChangeCounter::attach(dev_t device, ino_t inode, const std::string& path) {
  detach();
  // Once in each process (a forked child is a process of its own), before
  // its first counter: what killed processes left is bounded by what one
  // engine meets, not by how many of them ever ran.
  static std::atomic<pid_t> reclaimedIn{0};
  const pid_t self = getpid();
  if (reclaimedIn.exchange(self) != self) reclaim();

  device_ = device;
  inode_ = inode;
  path_ = path;
  key_ = keyOf(device, inode);
  for (int i = 0; i < kAttachTries; ++i) {
    const Outcome outcome = tryAttach(path);
    if (outcome == kHeld) return true;
    if (outcome == kRefused) return false;
  }
  return false;
}

ChangeCounter::Outcome ChangeCounter::tryAttach(const std::string& path) {
  int id = shmget(key_, kSegmentSize, IPC_CREAT | IPC_EXCL | 0600);
  if (id < 0 && errno == EEXIST) {
    id = shmget(key_, 0, 0);
    // Removed between the two calls: the next try makes it.
    if (id < 0 && errno == ENOENT) return kRetry;
  }
  if (id < 0) return kRefused;
  struct shmid_ds status;
  if (shmctl(id, IPC_STAT, &status) != 0) {
    // Gone since shmget(): its last user let go meanwhile.
    return errno == EINVAL || errno == EIDRM ? kRetry : kRefused;
  }
  if (!ours(status)) return kRefused;
  void* memory = shmat(id, nullptr, 0);
  if (memory == reinterpret_cast<void*>(-1)) {
    return errno == EINVAL || errno == EIDRM ? kRetry : kRefused;
  }
  Segment* segment = static_cast<Segment*>(memory);
  if (!hold(&segment->state)) {
    // Its remover may have been killed before it could finish.
    shmctl(id, IPC_RMID, nullptr);
    shmdt(memory);
    return kRetry;
  }
  // Says which file the segment counts for, unless it says so already. A
  // file whose inode was used before by a registry now gone finds the old
  // segment under its key and takes it over.
  uint32_t format = __atomic_load_n(&segment->format, __ATOMIC_ACQUIRE);
  const bool described =
      format == kReady && segment->device == static_cast<uint64_t>(device_) &&
      segment->inode == static_cast<uint64_t>(inode_) &&
      strncmp(segment->path, path.c_str(), sizeof segment->path) == 0;
  // A process killed while writing leaves kWriting: the segment then stays
  // undescribed, and is reclaimed like one whose file is gone, once nobody
  // is attached.
  if (!described && format != kWriting &&
      __atomic_compare_exchange_n(&segment->format, &format, kWriting, false,
                                  __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    segment->device = static_cast<uint64_t>(device_);
    segment->inode = static_cast<uint64_t>(inode_);
    memset(segment->path, 0, sizeof segment->path);
    // A name too long to keep is left out: the file then counts as gone.
    if (path.size() < sizeof segment->path) memcpy(segment->path, path.data(), path.size());
    __atomic_store_n(&segment->format, kReady, __ATOMIC_RELEASE);
  }
  id_ = id;
  value_ = &segment->value;
  return kHeld;
}

void ChangeCounter::detach() {
  if (!value_) return;
  Segment* segment = reinterpret_cast<Segment*>(value_);
  // The last process to let go removes it: nobody is left to read the
  // counter, and a segment left behind would outlive every process that
  // used it.
  const int id = id_;
  const bool removed = removeIfAlone(id, &segment->state);
  shmdt(segment);
  value_ = nullptr;
  id_ = -1;
  // Two processes that let go at once may each have seen the other still
  // attached; one that finds nobody attached afterwards tries again.
  struct shmid_ds status;
  if (!removed && shmctl(id, IPC_STAT, &status) == 0 && status.shm_nattch == 0 &&
      ours(status)) {
    void* memory = shmat(id, nullptr, 0);
    if (memory != reinterpret_cast<void*>(-1)) {
      removeIfAlone(id, &static_cast<Segment*>(memory)->state);
      shmdt(memory);
    }
  }
}

bool ChangeCounter::revalidate() {
  if (!value_) return false;
  const int current = shmget(key_, 0, 0);
  if (current == id_) return true;
  const std::string path = path_;
  detach();
  attach(device_, inode_, path);
  // Whatever it holds now, it was not seen before: the caller looks at the
  // file.
  return false;
}

int ChangeCounter::reclaim() {
  struct shm_info info;
  const int highest = shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds*>(&info));
  if (highest < 0) return 0;
  int removed = 0;
  int examined = 0;
  for (int index = 0; index <= highest && index < kMostIndexes && examined < kMostExamined;
       ++index) {
    struct shmid_ds status;
    // SHM_STAT answers only for segments this user may read; another
    // user's private ones are not even seen.
    const int id = shmctl(index, SHM_STAT, &status);
    if (id < 0 || !ours(status) || status.shm_nattch != 0) continue;
    ++examined;
    void* memory = shmat(id, nullptr, 0);
    if (memory == reinterpret_cast<void*>(-1)) continue;
    Segment* segment = static_cast<Segment*>(memory);
    // Whatever it says, the segment is removed only if no process attached
    // it meanwhile (removeIfAlone), so a wrong answer here costs a counter
    // nobody uses, never one in use.
    if (!fileStillThere(*segment) && removeIfAlone(id, &segment->state)) ++removed;
    shmdt(memory);
  }
  return removed;
}
