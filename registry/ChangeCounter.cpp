// SPDX-License-Identifier: Apache-2.0
#include "registry/ChangeCounter.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/Strings.h"

namespace {

// The segment holds the counter alone; its size is part of what tells a
// counter of this engine from another program's segment under the same key.
constexpr size_t kSegmentSize = 64;

}  // namespace

// A hash of the file's identity, written out byte by byte so that processes
// of any word size and byte order compute the same one.
key_t ChangeCounter::keyOf(dev_t device, ino_t inode) {
  std::string identity = "widgetengine registry counter ";
  for (uint64_t value : {static_cast<uint64_t>(device), static_cast<uint64_t>(inode)}) {
    for (int shift = 0; shift < 64; shift += 8)
      identity.push_back(static_cast<char>((value >> shift) & 0xff));
  }
  const uint64_t hash = fnv1a64(identity);
  key_t key = static_cast<key_t>(static_cast<uint32_t>(hash ^ (hash >> 32)) & 0x7fffffff);
  // IPC_PRIVATE would make a segment of its own at every call.
  return key == IPC_PRIVATE ? 1 : key;
}

namespace {

// A segment may serve only when this user made it and owns it, nobody else
// may write it, and it has this engine's size.
bool trustworthy(int id) {
  struct shmid_ds status;
  if (shmctl(id, IPC_STAT, &status) != 0) return false;
  const uid_t me = geteuid();
  // The permission bits are looked for in both halves of the mode: qemu's
  // s390x emulation hands them back in the upper one, where a kernel never
  // puts anything.
  const unsigned long mode = status.shm_perm.mode;
  return status.shm_perm.uid == me && status.shm_perm.cuid == me &&
         ((mode | mode >> 16) & 0077) == 0 && status.shm_segsz == kSegmentSize;
}

}  // namespace

ChangeCounter::ChangeCounter()
    : key_(IPC_PRIVATE), id_(-1), value_(nullptr), device_(0), inode_(0) {}

ChangeCounter::~ChangeCounter() { detach(); }

bool ChangeCounter::attach(dev_t device, ino_t inode) {
  detach();
  device_ = device;
  inode_ = inode;
  key_ = keyOf(device, inode);
  int id = shmget(key_, kSegmentSize, IPC_CREAT | IPC_EXCL | 0600);
  if (id < 0 && errno == EEXIST) id = shmget(key_, 0, 0);
  if (id < 0 || !trustworthy(id)) return false;
  void* memory = shmat(id, nullptr, 0);
  if (memory == reinterpret_cast<void*>(-1)) return false;
  id_ = id;
  value_ = static_cast<uint32_t*>(memory);
  return true;
}

void ChangeCounter::detach() {
  if (!value_) return;
  struct shmid_ds status;
  // Only this process is attached: nobody is left to read the counter, and
  // a segment left behind would outlive every process that used it. A
  // process that attaches in between finds it gone at its next revalidate().
  if (shmctl(id_, IPC_STAT, &status) == 0 && status.shm_nattch <= 1) {
    shmctl(id_, IPC_RMID, nullptr);
  }
  shmdt(value_);
  value_ = nullptr;
  id_ = -1;
}

bool ChangeCounter::revalidate() {
  if (!value_) return false;
  const int current = shmget(key_, 0, 0);
  if (current == id_) return true;
  const dev_t device = device_;
  const ino_t inode = inode_;
  shmdt(value_);
  value_ = nullptr;
  id_ = -1;
  attach(device, inode);
  // Whatever it holds now, it was not seen before: the caller looks at the
  // file.
  return false;
}
