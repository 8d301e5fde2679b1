// SPDX-License-Identifier: Apache-2.0
#include "lint/EntryReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <system_error>
#include <thread>

MappedFile::MappedFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    opened_ = true;
    size_ = static_cast<size_t>(info.st_size);
    if (size_ > 0) {
      void* at = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (at != MAP_FAILED) data_ = at;
    }
  }
  close(fd);
}

MappedFile::~MappedFile() {
  if (data_) munmap(data_, size_);
}

zip_t* MappedFile::openArchive(int* error, int flags) const {
  *error = ZIP_ER_NOZIP;
  if (!data_) return nullptr;
  zip_error_t reason;
  zip_error_init(&reason);
  zip_source_t* source = zip_source_buffer_create(data_, size_, 0, &reason);
  zip_t* archive = nullptr;
  if (source) {
    archive = zip_open_from_source(source, flags, &reason);
    if (!archive) zip_source_free(source);
  }
  *error = zip_error_code_zip(&reason);
  zip_error_fini(&reason);
  return archive;
}

namespace {

struct ZipFileClose {
  void operator()(zip_file_t* file) const { zip_fclose(file); }
};

void readEntry(zip_t* archive, ReadJob& job, std::vector<char>& buffer) {
  std::unique_ptr<zip_file_t, ZipFileClose> data(
      zip_fopen_index(archive, job.index, 0));
  if (!data) {
    job.error = zip_error_code_zip(zip_get_error(archive));
    job.message = zip_strerror(archive);
    return;
  }
  const size_t kHead = 16;
  uint64_t got = 0;
  zip_int64_t n = 0;
  while ((n = zip_fread(data.get(), buffer.data(), buffer.size())) > 0) {
    if (job.head.size() < kHead)
      job.head.append(buffer.data(),
                      std::min<size_t>(kHead - job.head.size(), n));
    if (job.keep) job.text.append(buffer.data(), n);
    got += static_cast<uint64_t>(n);
    if (!job.whole && got >= kHead) return;
    // libzip refuses data longer than declared; this only keeps a lying
    // entry from being read forever should it not.
    if (got > job.size + buffer.size()) break;
  }
  if (n < 0) {
    zip_error_t* reason = zip_file_get_error(data.get());
    job.error = zip_error_code_zip(reason);
    job.message = zip_error_strerror(reason);
  }
}

}  // namespace

// Reads every job, on two threads when the machine has two cores: checking
// checksums means inflating the whole package, the linter's one large cost.
// Each thread has its own libzip handle, as libzip wants.
void readAll(const MappedFile& file, zip_t* archive, std::vector<ReadJob>& jobs) {
  std::atomic<size_t> next(0);
  const auto work = [&](zip_t* handle) {
    std::vector<char> buffer(1 << 16);
    for (size_t i = next++; i < jobs.size(); i = next++)
      readEntry(handle, jobs[i], buffer);
  };
  uint64_t total = 0;
  for (const ReadJob& job : jobs) total += job.whole ? job.size : 0;
  std::thread helper;
  std::unique_ptr<zip_t, ZipClose> second;
  if (total > (1u << 20) && std::thread::hardware_concurrency() > 1) {
    int error;
    second.reset(file.openArchive(&error));
    // Without a second thread the one below reads everything.
    try {
      if (second) helper = std::thread(work, second.get());
    } catch (const std::system_error&) {
    }
  }
  work(archive);
  if (helper.joinable()) helper.join();
}
