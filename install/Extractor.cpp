// SPDX-License-Identifier: Apache-2.0
#include "install/Extractor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/EngineOutput.h"
#include "base/Progress.h"
#include "base/Refusal.h"
#include "base/TreeRemover.h"
#include "base/TrustedPath.h"

namespace {

// Whether a damaged entry fails the extraction (widgetengine_set_verify_entries).
std::atomic<bool> gVerifyEntries{false};

// Large enough that a typical resource is copied in one or two calls.
constexpr size_t kCopyBufferSize = 1024 * 1024;

const char kModule[] = "Extractor";

// Names may use printable ASCII only, minus the characters that some file
// systems or shells treat specially. Bytes are taken as signed so that every
// byte from 0x80 up (all of UTF-8 beyond ASCII) is refused as well.
bool isValidFileName(const std::string& name) {
  for (char c : name) {
    const signed char b = static_cast<signed char>(c);
    if (b < 32) return false;
    switch (b) {
      case '!': case '"': case '*': case ':': case '<': case '>': case '?':
      case '\\': case '^': case '`': case '{': case '|': case '}': case 127:
        return false;
      default:
        break;
    }
  }
  return true;
}

// A ".." component would climb out of the target directory.
bool climbsOut(const std::string& name) {
  size_t start = 0;
  for (;;) {
    size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (end - start == 2 && name.compare(start, 2, "..") == 0) return true;
    if (end == name.size()) return false;
    start = end + 1;
  }
}

bool endsWithSlash(const std::string& s) {
  return !s.empty() && s.back() == '/';
}

std::string entryName(const zip_stat_t& stat) {
  if ((stat.valid & ZIP_STAT_NAME) == 0 || stat.name == nullptr) return "";
  return stat.name;
}

struct ArchiveDiscarder {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchivePtr = std::unique_ptr<zip_t, ArchiveDiscarder>;

struct EntryCloser {
  void operator()(zip_file_t* entry) const { zip_fclose(entry); }
};
using EntryPtr = std::unique_ptr<zip_file_t, EntryCloser>;

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }
  // Closes now and reports close's own result (0, or -1 with errno).
  int reset(int fd = -1) {
    int result = 0;
    if (fd_ >= 0) result = close(fd_);
    fd_ = fd;
    return result;
  }

 private:
  int fd_;
};

// Bytes that the file system holding dir can still give to this user. The
// directory itself may not exist yet, so its nearest existing ancestor is
// asked. Returns false when nothing could be asked.
bool freeSpaceFor(const std::string& dir, uint64_t* bytes) {
  std::string probe = dir;
  for (;;) {
    struct statvfs vfs;
    if (statvfs(probe.empty() ? "." : probe.c_str(), &vfs) == 0) {
      *bytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
      return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) return false;
    while (endsWithSlash(probe) && probe.size() > 1) probe.pop_back();
    size_t slash = probe.rfind('/');
    if (probe.empty() || probe == "/") return false;
    probe = slash == std::string::npos ? "" : probe.substr(0, slash + 1);
  }
}

// The longest leading part of folder (relative to the base, which is
// baseLength bytes long) whose whole path the system still accepts, cut at a
// "/"; folder itself when it fits. Every path handed to the system is shorter
// than PATH_MAX.
std::string reachableFolder(const std::string& folder, size_t baseLength) {
  if (baseLength + folder.size() < PATH_MAX) return folder;
  if (baseLength >= PATH_MAX) return "";
  const size_t cut = folder.rfind('/', PATH_MAX - 1 - baseLength);
  return cut == std::string::npos ? "" : folder.substr(0, cut);
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Opens, creating when missing, the folders below one base directory without
// ever following a symbolic link, so that a link planted inside the tree
// cannot lead a write elsewhere. The chain of the last folder stays open:
// archives list the files of one folder together, so most entries need no
// lookup at all.
class FolderWalker {
 public:
  // baseFd may be -1, with baseError telling why the base could not be
  // opened; every folder below it then fails with that error.
  FolderWalker(int baseFd, int baseError)
      : baseFd_(baseFd), baseError_(baseError) {}
  ~FolderWalker() {
    truncate(0);
    closeDeep();
  }
  FolderWalker(const FolderWalker&) = delete;
  FolderWalker& operator=(const FolderWalker&) = delete;

  // Returns a descriptor of folder `relative` ("" is the base itself), valid
  // until the next call, or -1 with *error set. *created receives what
  // creating the folder came to: 0 when its last component was made or
  // already there, else an errno.
  int open(const std::string& relative, int* error, int* created) {
    *created = 0;
    closeDeep();
    std::vector<std::string> parts;
    size_t start = 0;
    while (start < relative.size()) {
      size_t end = relative.find('/', start);
      if (end == std::string::npos) end = relative.size();
      if (end > start) parts.push_back(relative.substr(start, end - start));
      start = end + 1;
    }
    if (baseFd_ < 0) {
      // The base is there (it was made) but is no folder: nothing below it
      // can be made, while a path naming the base alone counts as made.
      *error = baseError_;
      if (!parts.empty()) *created = baseError_;
      return -1;
    }
    size_t common = 0;
    while (common < parts.size() && common < names_.size() &&
           parts[common] == names_[common]) {
      ++common;
    }
    truncate(common);
    int current = common == 0 ? baseFd_ : fds_[common - 1];
    for (size_t i = common; i < parts.size(); ++i) {
      const char* name = parts[i].c_str();
      *created = mkdirat(current, name, 0755) == 0 || errno == EEXIST ? 0 : errno;
      int fd = openat(current, name,
                      O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd < 0) {
        // Something other than a folder (or a link) in place of the last
        // component still counts as made, as mkdir says; anything deeper
        // cannot be made without going through it. A file below fails as
        // opening its path would: the folder is missing or not a folder.
        *error = errno;
        if (i + 1 != parts.size()) *created = *error;
        return -1;
      }
      if (i == fds_.size() && i < kMaxChain) {
        names_.push_back(parts[i]);
        fds_.push_back(fd);
      } else {
        // Very deep folders are walked with one descriptor at a time, so
        // that no archive can exhaust the process's descriptors.
        closeDeep();
        deepFd_ = fd;
      }
      current = fd;
    }
    return current;
  }

 private:
  static constexpr size_t kMaxChain = 32;

  void truncate(size_t keep) {
    while (fds_.size() > keep) {
      close(fds_.back());
      fds_.pop_back();
      names_.pop_back();
    }
  }
  void closeDeep() {
    if (deepFd_ >= 0) close(deepFd_);
    deepFd_ = -1;
  }

  int baseFd_;
  int baseError_;
  int deepFd_ = -1;
  std::vector<std::string> names_;
  std::vector<int> fds_;
};

// Opens dir (a path that may end with "/") as the root of an extraction. A
// link in its place is not followed, nor one on the way that another user
// made.
int openBase(const std::string& dir) {
  std::string last;
  std::string untrusted;
  const int parent = TrustedPath::walkToParent(dir.empty() ? "." : dir, &last,
                                               &untrusted);
  if (parent < 0) return -1;
  const int fd = openat(parent, last.c_str(),
                        O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const int error = errno;
  close(parent);
  errno = error;
  return fd;
}

// The package file read in bounded pieces, with the data span of each entry
// found through its own central directory. libzip stays the judge of the
// archive (opening, consistency, names, the checks); this reader only lets
// the data of stored and deflated entries go to the disk without the buffer
// layers of a read through libzip. Nothing of the package is mapped or held
// whole: memory stays the same whatever the package's size. Any entry that
// this simple reader does not fully understand, or on which it disagrees
// with libzip, is read through libzip instead.
class PackageReader {
 public:
  explicit PackageReader(const std::string& path) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return;
    struct stat info;
    if (fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0)
      return;
    size_ = static_cast<uint64_t>(info.st_size);
    posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    readDirectory();
  }
  ~PackageReader() {
    if (fd_ >= 0) close(fd_);
  }
  PackageReader(const PackageReader&) = delete;
  PackageReader& operator=(const PackageReader&) = delete;

  // Where the compressed bytes of entry index lie in the file, when they can
  // be used directly: stored or deflated, not encrypted, and described alike
  // by libzip.
  bool span(zip_int64_t index, const zip_stat_t& stat, uint64_t* at,
            uint64_t* length, uint16_t* method) const {
    if (index < 0 || static_cast<size_t>(index) >= entries_.size()) return false;
    const Entry& entry = entries_[static_cast<size_t>(index)];
    // The same entry as libzip's, down to its name and checksum: an archive
    // that could be read two ways (two end records, say) is left to libzip.
    const zip_uint64_t need = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE |
                              ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC |
                              ZIP_STAT_NAME;
    if ((stat.valid & need) != need || stat.comp_method != entry.method ||
        stat.comp_size != entry.compressedSize || stat.size != entry.size ||
        stat.crc != entry.crc || !stat.name || stat.name != entry.name) {
      return false;
    }
    if (entry.method != ZIP_CM_STORE && entry.method != ZIP_CM_DEFLATE) {
      return false;
    }
    if (entry.method == ZIP_CM_STORE && entry.size != entry.compressedSize) {
      return false;
    }
    if ((entry.flags & 1) != 0) return false;  // encrypted
    const uint64_t local = entry.localOffset;
    unsigned char header[30];
    if (local > size_ || size_ - local < 30 ||
        !readAt(local, header, sizeof header) || get32(header) != 0x04034b50) {
      return false;
    }
    const uint64_t start = local + 30 + get16(header + 26) + get16(header + 28);
    if (start > size_ || size_ - start < entry.compressedSize) return false;
    *at = start;
    *length = entry.compressedSize;
    *method = entry.method;
    return true;
  }

  // Reads size bytes at offset, whole.
  bool readAt(uint64_t offset, unsigned char* data, size_t size) const {
    while (size > 0) {
      const ssize_t n = pread(fd_, data, size, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
      offset += static_cast<uint64_t>(n);
    }
    return true;
  }

 private:
  struct Entry {
    uint16_t flags;
    uint16_t method;
    uint32_t crc;
    uint64_t compressedSize;
    uint64_t size;
    uint64_t localOffset;
    std::string name;
  };

  static uint16_t get16(const unsigned char* at) {
    return static_cast<uint16_t>(at[0] | (at[1] << 8));
  }
  static uint32_t get32(const unsigned char* at) {
    return static_cast<uint32_t>(get16(at)) |
           (static_cast<uint32_t>(get16(at + 2)) << 16);
  }

  // Fills entries_ from the end-of-central-directory record; leaves it empty
  // for anything unusual (archives of the 64-bit format, several disks).
  void readDirectory() {
    if (size_ < 22) return;
    const uint64_t tailSize = size_ < 22 + 65535 ? size_ : 22 + 65535;
    std::vector<unsigned char> tail(static_cast<size_t>(tailSize));
    const uint64_t tailStart = size_ - tailSize;
    if (!readAt(tailStart, tail.data(), tail.size())) return;
    size_t end = tail.size() - 22;
    for (;; --end) {
      if (get32(&tail[end]) == 0x06054b50) break;
      if (end == 0) return;
    }
    const uint32_t count = get16(&tail[end + 10]);
    const uint64_t directorySize = get32(&tail[end + 12]);
    const uint64_t directoryStart = get32(&tail[end + 16]);
    if (count == 0xffff || directoryStart == 0xffffffffu ||
        directoryStart > size_ || size_ - directoryStart < directorySize) {
      return;
    }
    // Only the directory itself is held: a few dozen bytes an entry.
    std::vector<unsigned char> directory(static_cast<size_t>(directorySize));
    if (!readAt(directoryStart, directory.data(), directory.size())) return;
    std::vector<Entry> entries;
    entries.reserve(count);
    size_t at = 0;
    for (uint32_t i = 0; i < count; ++i) {
      if (directory.size() - at < 46 || get32(&directory[at]) != 0x02014b50)
        return;
      const unsigned char* record = &directory[at];
      Entry entry;
      entry.flags = get16(record + 8);
      entry.method = get16(record + 10);
      entry.crc = get32(record + 16);
      entry.compressedSize = get32(record + 20);
      entry.size = get32(record + 24);
      entry.localOffset = get32(record + 42);
      const size_t nameLength = get16(record + 28);
      const size_t recordSize = 46 + nameLength + get16(record + 30) +
                                static_cast<size_t>(get16(record + 32));
      if (directory.size() - at < recordSize) return;
      entry.name.assign(reinterpret_cast<const char*>(record + 46), nameLength);
      if (entry.compressedSize == 0xffffffffu || entry.size == 0xffffffffu ||
          entry.localOffset == 0xffffffffu) {
        entry.method = 0xffff;  // sizes live in a 64-bit extra field
      }
      entries.push_back(std::move(entry));
      at += recordSize;
    }
    entries_.swap(entries);
  }

  int fd_ = -1;
  uint64_t size_ = 0;
  std::vector<Entry> entries_;
};

// Writes the next bytes of an entry, never letting the entry grow beyond
// the size its directory record declares: that size is what the free-space
// check counted, and an archive whose data holds more (a stored entry whose
// sizes disagree, a deflate stream that inflates further than announced)
// would otherwise fill the disk. Such an entry fails as a write that found
// the file full would, with EFBIG. The CRC-32 of what was written is kept,
// so that a damaged entry is known once its last byte is out.
class EntryWriter {
 public:
  EntryWriter(int fd, uint64_t declared) : fd_(fd), left_(declared) {}
  bool write(const char* data, size_t size) {
    if (size > left_) {
      errno = EFBIG;
      return false;
    }
    left_ -= size;
    crc_ = crc32Of(crc_, data, size);
    return writeAll(fd_, data, size);
  }
  // True when every declared byte was written and they sum to crc.
  bool matches(uint32_t crc) const { return left_ == 0 && crc_ == crc; }

 private:
  static uLong crc32Of(uLong crc, const char* data, size_t size) {
    // zlib takes at most a uInt at a time.
    while (size > 0) {
      const uInt chunk = size < (1u << 30) ? static_cast<uInt>(size) : (1u << 30);
      crc = crc32(crc, reinterpret_cast<const Bytef*>(data), chunk);
      data += chunk;
      size -= chunk;
    }
    return crc;
  }

  int fd_;
  uint64_t left_;
  uLong crc_ = 0;
};

// How much of the package one read takes in.
constexpr size_t kReadBufferSize = 256 * 1024;

// Copies a stored entry, or inflates a deflated one, from the package file
// at [at, at + length) through the two buffers. Returns false with errno set
// when writing fails; data that cannot be read or does not inflate ends the
// copy early, and the entry's checksum then tells it is damaged.
bool copySpan(const PackageReader& package, EntryWriter& out, uint64_t at,
              uint64_t length, uint16_t method, unsigned char* input,
              char* buffer, size_t bufferSize) {
  if (method == ZIP_CM_STORE) {
    while (length > 0) {
      const size_t chunk =
          static_cast<size_t>(length < bufferSize ? length : bufferSize);
      if (!package.readAt(at, reinterpret_cast<unsigned char*>(buffer), chunk))
        return true;
      if (!out.write(buffer, chunk)) return false;
      at += chunk;
      length -= chunk;
    }
    return true;
  }
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return true;
  bool ok = true;
  for (;;) {
    if (stream.avail_in == 0 && length > 0) {
      const size_t chunk = static_cast<size_t>(
          length < kReadBufferSize ? length : kReadBufferSize);
      if (!package.readAt(at, input, chunk)) break;
      stream.next_in = input;
      stream.avail_in = static_cast<uInt>(chunk);
      at += chunk;
      length -= chunk;
    }
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = static_cast<uInt>(bufferSize);
    const int status = inflate(&stream, Z_NO_FLUSH);
    const size_t produced = bufferSize - stream.avail_out;
    if (produced > 0 && !out.write(buffer, produced)) {
      ok = false;
      break;
    }
    if (status != Z_OK || (produced == 0 && stream.avail_in == 0 && length == 0)) {
      break;
    }
  }
  const int saved = errno;
  inflateEnd(&stream);
  errno = saved;
  return ok;
}

// The reason a refused package gives the host (Refusal.h), from the line
// that refuses it; number is what the line carries: an errno for the lines
// about writing, a libzip error for the others.
void noteRefusal(const std::string& message, long number) {
  struct Known {
    const char* line;
    int code;
    const char* reason;
  };
  static const Known kKnown[] = {
      {"Zip archive is not valid", WIDGETENGINE_REFUSAL_NOT_A_ZIP,
       "the package is not a zip archive"},
      {"Empty archive", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package is an empty archive"},
      {"Zip archive must not be encrypted", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package is encrypted"},
      {"Zip archive contains only folders", WIDGETENGINE_REFUSAL_BAD_PACKAGE,
       "the package holds only folders"},
      {"Incorrect file name: ", WIDGETENGINE_REFUSAL_BAD_ENTRY_NAME,
       "incorrect file name in the package: "},
      {"Could not get stats from file inside the zip",
       WIDGETENGINE_REFUSAL_DAMAGED_ENTRY, "damaged entry in the package"},
      {"Could not read file in archive", WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
       "damaged entry in the package"},
      {"Damaged file in archive: ", WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
       "damaged entry in the package: "},
      {"Directory could not be created", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot create the widget's directory"},
      {"Subdirectory could not be created", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot create a folder of the package"},
      {"Error opening file", WIDGETENGINE_REFUSAL_WRITE_FAILED,
       "cannot write a file of the package"},
  };
  for (const Known& known : kKnown) {
    const size_t length = strlen(known.line);
    if (message.compare(0, length, known.line) != 0) continue;
    const bool writing = known.code == WIDGETENGINE_REFUSAL_WRITE_FAILED;
    if (writing && number == ENOSPC) {
      refusal::note(WIDGETENGINE_REFUSAL_NO_SPACE,
                    "no space left for the package");
    } else if (writing && number == EFBIG) {
      refusal::note(WIDGETENGINE_REFUSAL_DAMAGED_ENTRY,
                    "damaged entry in the package: it holds more than it "
                    "declares");
    } else if (known.line[length - 1] == ' ') {
      // The line names the entry: so does the reason.
      refusal::note(known.code, known.reason + message.substr(length));
    } else if (writing && number > 0) {
      refusal::note(known.code, std::string(known.reason) + ": " +
                                    strerror(static_cast<int>(number)));
    } else {
      refusal::note(known.code, known.reason);
    }
    return;
  }
}

void say(const std::string& message) {
  noteRefusal(message, 0);
  engineOut() << message << std::endl;
}

void sayWithNumber(const char* message, long number) {
  noteRefusal(message, number);
  engineOut() << message << " (error " << number << ")" << std::endl;
}

// One entry of the package as the write pass needs it.
struct Task {
  zip_int64_t index = 0;
  std::string name;  // as the archive spells it
  std::string full;  // the target directory and the name
  bool isFolder = false;
  uint64_t size = 0;
  bool hasCrc = false;
  uint32_t crc = 0;
  // Where the entry's data lies in the package, when the reader can take
  // it from there itself (spanned); otherwise it is read through libzip.
  bool spanned = false;
  uint64_t at = 0;
  uint64_t length = 0;
  uint16_t method = 0;
};

Task taskOf(zip_int64_t index, const zip_stat_t& stat, const std::string& targetDir,
            const PackageReader& package) {
  Task task;
  task.index = index;
  task.name = entryName(stat);
  task.full = targetDir + task.name;
  task.isFolder = endsWithSlash(task.name);
  task.size = stat.size;
  task.hasCrc = (stat.valid & ZIP_STAT_CRC) != 0;
  task.crc = stat.crc;
  if (!task.isFolder) {
    task.spanned = package.span(index, stat, &task.at, &task.length, &task.method);
  }
  return task;
}

// What unpacking one entry came to. The lines that say so are written by
// the caller, in entry order, whichever thread did the work.
struct Outcome {
  enum Kind { kDone, kFolderFailed, kWriteFailed, kDamaged };
  Kind kind = kDone;
  int error = 0;  // an errno, for the failures that carry one
};

// Writes entries below one base folder. Each thread has its own: the open
// folders and the buffers are not shared.
class EntryUnpacker {
 public:
  EntryUnpacker(int baseFd, int baseError, size_t baseLength,
                const PackageReader& package)
      : folders_(baseFd, baseError),
        baseLength_(baseLength),
        package_(package),
        buffer_(new char[kCopyBufferSize]),
        input_(new unsigned char[kReadBufferSize]) {}

  // entry is libzip's reader of a file entry that is not spanned.
  Outcome unpack(const Task& task, zip_file_t* entry) {
    const std::string relative = task.full.substr(baseLength_);
    int error = 0;
    int created = 0;
    if (task.isFolder) {
      // Made as far as a path the system accepts reaches; a folder beyond
      // that cannot be named, so it cannot be made.
      const std::string folder = relative.substr(0, relative.size() - 1);
      const std::string reached = reachableFolder(folder, baseLength_);
      folders_.open(reached, &error, &created);
      if (reached.size() < folder.size()) created = ENAMETOOLONG;
      return created != 0 ? failed(Outcome::kFolderFailed, created) : Outcome();
    }

    const size_t slash = relative.rfind('/');
    const std::string folder =
        slash == std::string::npos ? "" : relative.substr(0, slash);
    const std::string leaf =
        slash == std::string::npos ? relative : relative.substr(slash + 1);
    // A file whose folders cannot be made fails below, when it is opened.
    int folderFd =
        folders_.open(reachableFolder(folder, baseLength_), &error, &created);
    if (task.full.size() >= PATH_MAX) {
      folderFd = -1;
      error = ENAMETOOLONG;
    }
    ScopedFd out;
    if (folderFd < 0) {
      errno = error;
    } else if (leaf.empty()) {
      errno = EISDIR;  // the name is the target folder itself
    } else {
      out.reset(openat(folderFd, leaf.c_str(),
                       O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                       0666));
    }
    if (out.get() < 0) return failed(Outcome::kWriteFailed, errno);
    // A write error fails the whole extraction. A read error only ends the
    // copy, and the file counts as unpacked as far as it was read; a host
    // that asked for checked entries has an entry whose bytes are not the
    // ones its checksum was made of (a short one among them) fail instead.
    EntryWriter writer(out.get(), task.size);
    if (task.spanned) {
      if (!copySpan(package_, writer, task.at, task.length, task.method,
                    input_.get(), buffer_.get(), kCopyBufferSize)) {
        return failed(Outcome::kWriteFailed, errno);
      }
    } else if (entry != nullptr) {
      zip_int64_t n;
      while ((n = zip_fread(entry, buffer_.get(), kCopyBufferSize)) > 0) {
        if (!writer.write(buffer_.get(), static_cast<size_t>(n))) {
          return failed(Outcome::kWriteFailed, errno);
        }
      }
    }
    if (gVerifyEntries.load(std::memory_order_relaxed) && task.hasCrc &&
        !writer.matches(task.crc)) {
      return failed(Outcome::kDamaged, 0);
    }
    if (out.reset() != 0) return failed(Outcome::kWriteFailed, errno);
    return Outcome();
  }

 private:
  static Outcome failed(Outcome::Kind kind, int error) {
    Outcome outcome;
    outcome.kind = kind;
    outcome.error = error;
    return outcome;
  }

  FolderWalker folders_;
  const size_t baseLength_;
  const PackageReader& package_;
  std::unique_ptr<char[]> buffer_;
  std::unique_ptr<unsigned char[]> input_;
};

// Says why an entry failed; false when it did.
bool sayOutcome(const Task& task, const Outcome& outcome) {
  switch (outcome.kind) {
    case Outcome::kDone:
      return true;
    case Outcome::kFolderFailed:
      sayWithNumber("Subdirectory could not be created to extract the zip",
                    outcome.error);
      return false;
    case Outcome::kWriteFailed:
      sayWithNumber("Error opening file", outcome.error);
      return false;
    case Outcome::kDamaged:
      say("Damaged file in archive: " + task.name);
      return false;
  }
  return false;
}

// Two threads where there are two processors to run them, unless the host
// says otherwise: WIDGETENGINE_UNPACK_THREADS=1 keeps every installation on
// the calling thread.
int defaultWorkers() {
  const char* value = getenv("WIDGETENGINE_UNPACK_THREADS");
  if (value && strcmp(value, "1") == 0) return 1;
  if (value && strcmp(value, "2") == 0) return 2;
  return std::thread::hardware_concurrency() > 1 ? 2 : 1;
}

// Below this many entries a second thread costs more than it saves.
constexpr zip_int64_t kEntriesForTwoThreads = 16;

// Lower-cased, for comparing names as a file system that ignores case
// would; names are ASCII (isValidFileName).
std::string foldCase(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

// Fills tasks when the entries can be written in any order with the same
// result: every name plain ("a/b/c", no empty or "." part, a path the
// system accepts), no two entries naming the same file nor a file where
// another entry needs a folder (names compared regardless of case), and
// every file's data readable without libzip. Anything else is unpacked
// entry after entry, so that it ends exactly as its order says.
bool planTasks(zip_t* archive, zip_int64_t count, const std::string& targetDir,
               const PackageReader& package, std::vector<Task>* tasks) {
  if (count < kEntriesForTwoThreads) return false;
  std::vector<Task> planned;
  planned.reserve(static_cast<size_t>(count));
  std::unordered_set<std::string> files;
  std::unordered_set<std::string> folders;
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive, index, 0, &stat) == -1) return false;
    Task task = taskOf(index, stat, targetDir, package);
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

// Unpacks the planned entries on this thread and one more, taking them in
// turn. This thread says, in entry order, what each came to, exactly as a
// single thread would have: the same lines up to the first failure (where
// both stop taking entries), the same progress reports, the same files.
// Whatever the other thread wrote past a failure goes with the target
// directory when the failed extraction is cleaned.
bool unpackOnTwoThreads(const std::vector<Task>& tasks, EntryUnpacker& unpacker,
                        int baseFd, int baseError, size_t baseLength,
                        const PackageReader& package, zip_int64_t count,
                        std::vector<std::string>& files, bool* started) {
  const size_t n = tasks.size();
  std::vector<Outcome> outcomes(n);
  std::unique_ptr<std::atomic<bool>[]> finished(new std::atomic<bool>[n]());
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};

  auto work = [&](EntryUnpacker& mine, const std::function<void()>& afterEach) {
    while (!stop.load(std::memory_order_relaxed)) {
      const size_t i = next.fetch_add(1, std::memory_order_relaxed);
      if (i >= n) return;
      Outcome outcome;
      try {
        outcome = mine.unpack(tasks[i], nullptr);
      } catch (...) {
        outcome.kind = Outcome::kWriteFailed;
        outcome.error = ENOMEM;
      }
      outcomes[i] = outcome;
      if (outcome.kind != Outcome::kDone) stop.store(true, std::memory_order_relaxed);
      finished[i].store(true, std::memory_order_release);
      afterEach();
    }
  };

  size_t said = 0;
  bool failedEntry = false;
  auto sayFinished = [&]() {
    while (!failedEntry && said < n && finished[said].load(std::memory_order_acquire)) {
      const Task& task = tasks[said];
      progress::report(WIDGETENGINE_PROGRESS_UNPACK,
                       static_cast<uint64_t>(task.index),
                       static_cast<uint64_t>(count));
      enginePrintf("[%s:%s] filename: %s\n", "V", kModule, task.full.c_str());
      if (!sayOutcome(task, outcomes[said])) {
        failedEntry = true;
        return;
      }
      if (!task.isFolder) files.push_back(task.name);
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
  return !failedEntry && said == n;
}

}  // namespace

Extractor::Extractor(const std::string& zipPath, const std::string& targetDir)
    : zipPath(zipPath),
      targetDir(targetDir),
      keepFiles(false),
      workers(defaultWorkers()) {
  // Leftovers of an earlier installation must never mix with this package.
  removeDirectoryTree(targetDir);
}

Extractor::~Extractor() {
  if (!keepFiles) clean();
}

bool Extractor::isAcceptedName(const std::string& name) {
  return isValidFileName(name) && !climbsOut(name);
}

int Extractor::extract(std::vector<std::string>& files) {
  int openError = 0;
  ArchivePtr archive(zip_open(zipPath.c_str(), ZIP_CHECKCONS, &openError));
  if (!archive) {
    sayWithNumber("Zip archive is not valid", openError);
    return -1;
  }

  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  if (count == 0) {
    say("Empty archive");
    return -1;
  }

  // Every entry is checked before a single byte is written, so a package
  // that is refused leaves the target directory untouched.
  bool hasFile = false;
  uint64_t declaredBytes = 0;
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive.get(), index, 0, &stat) == -1) {
      sayWithNumber("Could not get stats from file inside the zip", openError);
      return -1;
    }
    if ((stat.valid & ZIP_STAT_ENCRYPTION_METHOD) != 0 &&
        stat.encryption_method != ZIP_EM_NONE) {
      say("Zip archive must not be encrypted");
      return -1;
    }
    const std::string name = entryName(stat);
    if (!isAcceptedName(name)) {
      say("Incorrect file name: " + name);
      return -1;
    }
    if (endsWithSlash(name)) continue;
    hasFile = true;
    EntryPtr entry(zip_fopen_index(archive.get(), index, ZIP_FL_UNCHANGED));
    if (!entry) {
      sayWithNumber("Could not read file in archive", openError);
      return -1;
    }
    if ((stat.valid & ZIP_STAT_SIZE) != 0) {
      declaredBytes += stat.size;
      if (declaredBytes < stat.size) declaredBytes = UINT64_MAX;
    }
  }
  if (!hasFile) {
    say("Zip archive contains only folders");
    return -1;
  }

  // A package that cannot fit is refused now rather than half written.
  uint64_t freeBytes = 0;
  if (freeSpaceFor(targetDir, &freeBytes) && declaredBytes > freeBytes) {
    errno = ENOSPC;
    sayWithNumber("Directory could not be created to extract the zip", errno);
    return -1;
  }
  if (makeDirectories(targetDir, 0755) != 0) {
    sayWithNumber("Directory could not be created to extract the zip", errno);
    return -1;
  }

  // Entry names are glued to targetDir as they are, so everything is written
  // below the folder that holds targetDir's last "/".
  const size_t baseLength = targetDir.rfind('/') + 1;  // 0 when there is none
  // A file in place of the target passes the folder check above, as mkdir
  // finds something there; its entries then fail one by one.
  ScopedFd baseFd(openBase(targetDir.substr(0, baseLength)));
  const int baseError = baseFd.get() < 0 ? errno : 0;
  const PackageReader package(zipPath);
  EntryUnpacker unpacker(baseFd.get(), baseError, baseLength, package);

  std::vector<Task> tasks;
  twoThreads = false;
  if (workers > 1 && planTasks(archive.get(), count, targetDir, package, &tasks)) {
    if (!unpackOnTwoThreads(tasks, unpacker, baseFd.get(), baseError, baseLength,
                            package, count, files, &twoThreads)) {
      return -1;
    }
    progress::report(WIDGETENGINE_PROGRESS_UNPACK, static_cast<uint64_t>(count),
                     static_cast<uint64_t>(count));
    zip_close(archive.release());
    return 0;
  }

  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive.get(), index, 0, &stat) == -1) {
      sayWithNumber("Could not get stats from file inside the zip", openError);
      return -1;
    }
    Task task = taskOf(index, stat, targetDir, package);
    progress::report(WIDGETENGINE_PROGRESS_UNPACK, static_cast<uint64_t>(index),
                     static_cast<uint64_t>(count));
    enginePrintf("[%s:%s] filename: %s\n", "V", kModule, task.full.c_str());
    Outcome outcome;
    if (task.isFolder) {
      outcome = unpacker.unpack(task, nullptr);
    } else {
      EntryPtr entry(zip_fopen_index(archive.get(), index, ZIP_FL_UNCHANGED));
      if (!entry) {
        sayWithNumber("Could not read file in archive", openError);
        return -1;
      }
      outcome = unpacker.unpack(task, entry.get());
    }
    if (!sayOutcome(task, outcome)) return -1;
    if (!task.isFolder) files.push_back(task.name);
  }

  progress::report(WIDGETENGINE_PROGRESS_UNPACK, static_cast<uint64_t>(count),
                   static_cast<uint64_t>(count));
  zip_close(archive.release());
  return 0;
}

void Extractor::setKeepFiles(bool keep) { keepFiles = keep; }

void Extractor::setWorkers(int count) { workers = count; }

void Extractor::clean() {
  removeDirectoryTree(targetDir);
  say("Extraction cleaned");
}

int Extractor::makeDirectories(const std::string& path, mode_t mode) {
  if (path.empty()) return 2;
  int result = 0;
  size_t search = path[0] == '/' ? 1 : 0;
  for (;;) {
    const size_t slash = path.find('/', search);
    if (slash == std::string::npos) break;
    // Only the last attempt decides: a component that exists or is made
    // afterwards clears an earlier failure. Each is made from its folder's
    // descriptor, reached without following another user's link, and a
    // link standing at the name itself is not followed either.
    std::string last;
    std::string untrusted;
    const int parent =
        TrustedPath::walkToParent(path.substr(0, slash), &last, &untrusted);
    if (parent < 0) {
      result = errno;
    } else {
      result = mkdirat(parent, last.c_str(), mode) == 0 || errno == EEXIST ? 0 : errno;
      close(parent);
    }
    search = slash + 1;
  }
  return result;
}

void Extractor::removeDirectoryTree(const std::string& path) {
  // Looked at without following: a link is removed itself, never descended,
  // so nothing outside the tree can be deleted through it.
  std::string bare = path;
  while (bare.size() > 1 && endsWithSlash(bare)) bare.pop_back();
  struct stat info;
  if (bare.empty() || lstat(bare.c_str(), &info) != 0) return;
  if (S_ISLNK(info.st_mode)) {
    unlink(bare.c_str());
    return;
  }
  if (!S_ISDIR(info.st_mode)) return;
  ScopedFd tree(open(bare.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (tree.get() < 0) return;
  if (!TreeRemover().removeContents(tree.get())) return;

  // Deliberately, the process is left in the folder that held the tree, as
  // it always has been after this removal, and the tree is then removed by
  // the path it was given, from there; hosts may rely on both. This is the
  // one place where the engine changes the working directory. When that
  // folder cannot be entered, the process is left in the emptied tree and
  // the tree stays.
  ScopedFd parent(openat(tree.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0 || fchdir(parent.get()) != 0) {
    static_cast<void>(fchdir(tree.get()) == 0);
    return;
  }
  rmdir(path.c_str());
}

extern "C" void widgetengine_set_verify_entries(int on) {
  gVerifyEntries.store(on != 0, std::memory_order_relaxed);
}
