// SPDX-License-Identifier: Apache-2.0
#include "install/EntryUnpacker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <cerrno>
#include <climits>

#include "base/ScopedFd.h"
#include "install/EntryWriter.h"
#include "install/zip/ZipReader.h"
#include "signature/FileDigests.h"

namespace {

// Whether a damaged entry fails the extraction (widgetengine_set_verify_entries).
std::atomic<bool> gVerifyEntries{false};

// Large enough that a typical resource is copied in one or two calls.
constexpr size_t kCopyBufferSize = 1024 * 1024;

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

// How much of the package one read takes in.
constexpr size_t kReadBufferSize = 256 * 1024;

// Copies a stored entry, or inflates a deflated one, from the package file
// at [at, at + length) through the two buffers. Returns false with errno set
// when writing fails; data that cannot be read or does not inflate ends the
// copy early, and the entry's checksum then tells it is damaged.
bool copySpan(const ZipReader& package, EntryWriter& out, uint64_t at,
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

}  // namespace

EntryUnpacker::EntryUnpacker(int baseFd, int baseError, size_t baseLength,
                             const ZipReader& package)
    : folders_(baseFd, baseError),
      baseLength_(baseLength),
      package_(package),
      buffer_(new char[kCopyBufferSize]),
      input_(new unsigned char[kReadBufferSize]) {}

void UnpackOutcome::keepDigest(FileDigests* digests) const {
  if (digests && digested) digests->set(device, inode, digest);
}

void EntryUnpacker::setDigesting(bool on) {
  if (!on) {
    digest_.reset();
  } else if (!digest_) {
    digest_.reset(new Sha256);
  }
}

UnpackOutcome EntryUnpacker::unpack(const UnpackTask& task, zip_file_t* entry) {
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
    return created != 0 ? failed(UnpackOutcome::kFolderFailed, created)
                        : UnpackOutcome();
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
  if (out.get() < 0) return failed(UnpackOutcome::kWriteFailed, errno);
  // A write error fails the whole extraction. A read error only ends the
  // copy, and the file counts as unpacked as far as it was read; a host
  // that asked for checked entries has an entry whose bytes are not the
  // ones its checksum was made of (a short one among them) fail instead.
  // Read once: an entry is checked, and its checksum summed, or neither.
  const bool verify =
      gVerifyEntries.load(std::memory_order_relaxed) && task.hasCrc;
  if (digest_) digest_->restart();
  EntryWriter writer(out.get(), task.size, digest_.get(), verify);
  if (task.spanned) {
    if (!copySpan(package_, writer, task.at, task.length, task.method,
                  input_.get(), buffer_.get(), kCopyBufferSize)) {
      return failed(UnpackOutcome::kWriteFailed, errno);
    }
  } else if (entry != nullptr) {
    zip_int64_t n;
    while ((n = zip_fread(entry, buffer_.get(), kCopyBufferSize)) > 0) {
      if (!writer.write(buffer_.get(), static_cast<size_t>(n))) {
        return failed(UnpackOutcome::kWriteFailed, errno);
      }
    }
  }
  if (verify && !writer.matches(task.crc)) {
    return failed(UnpackOutcome::kDamaged, 0);
  }
  UnpackOutcome done;
  // A file whose inode cannot be learnt goes without a digest; the
  // signature check then reads it.
  struct stat written;
  if (digest_ && fstat(out.get(), &written) == 0) {
    done.digested = true;
    done.digest = digest_->finish();
    done.device = written.st_dev;
    done.inode = written.st_ino;
  }
  if (out.reset() != 0) return failed(UnpackOutcome::kWriteFailed, errno);
  return done;
}

UnpackOutcome EntryUnpacker::failed(UnpackOutcome::Kind kind, int error) {
  UnpackOutcome outcome;
  outcome.kind = kind;
  outcome.error = error;
  return outcome;
}

extern "C" void widgetengine_set_verify_entries(int on) {
  gVerifyEntries.store(on != 0, std::memory_order_relaxed);
}
