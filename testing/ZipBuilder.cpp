// SPDX-License-Identifier: Apache-2.0
#include "testing/ZipBuilder.h"

#include <zip.h>

#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

// A libzip source that yields `size` zero bytes without holding them.
struct ZeroSource {
  uint64_t size;
  uint64_t offset;
  zip_error_t error;
};

zip_int64_t zeroCallback(void* state, void* data, zip_uint64_t length,
                         zip_source_cmd_t command) {
  ZeroSource* source = static_cast<ZeroSource*>(state);
  switch (command) {
    case ZIP_SOURCE_OPEN:
      source->offset = 0;
      return 0;
    case ZIP_SOURCE_READ: {
      uint64_t left = source->size - source->offset;
      uint64_t n = length < left ? length : left;
      memset(data, 0, static_cast<size_t>(n));
      source->offset += n;
      return static_cast<zip_int64_t>(n);
    }
    case ZIP_SOURCE_CLOSE:
      return 0;
    case ZIP_SOURCE_STAT: {
      zip_stat_t* stat = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length,
                                             &source->error);
      if (stat == nullptr) return -1;
      zip_stat_init(stat);
      stat->size = source->size;
      stat->valid |= ZIP_STAT_SIZE;
      return sizeof(zip_stat_t);
    }
    case ZIP_SOURCE_ERROR:
      return zip_error_to_data(&source->error, data, length);
    case ZIP_SOURCE_FREE:
      zip_error_fini(&source->error);
      delete source;
      return 0;
    case ZIP_SOURCE_SUPPORTS:
      return zip_source_make_command_bitmap(
          ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
          ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
    default:
      zip_error_set(&source->error, ZIP_ER_OPNOTSUPP, 0);
      return -1;
  }
}

bool fail(const char* what, zip_t* archive) {
  fprintf(stderr, "ZipBuilder: %s: %s\n", what, zip_strerror(archive));
  zip_discard(archive);
  return false;
}

}  // namespace

ZipBuilder& ZipBuilder::addFile(const std::string& name,
                                const std::string& data, int compression) {
  entries_.push_back({Kind::kFile, name, data, compression, "", 0});
  return *this;
}

ZipBuilder& ZipBuilder::addFolder(const std::string& name) {
  entries_.push_back({Kind::kFolder, name, "", kStored, "", 0});
  return *this;
}

ZipBuilder& ZipBuilder::addEncryptedFile(const std::string& name,
                                         const std::string& data,
                                         const std::string& password) {
  entries_.push_back(
      {Kind::kEncrypted, name, data, kDeflateDefault, password, 0});
  return *this;
}

ZipBuilder& ZipBuilder::addZeros(const std::string& name, uint64_t size) {
  entries_.push_back({Kind::kZeros, name, "", 1, "", size});
  return *this;
}

bool ZipBuilder::write(const std::string& path) const {
  if (entries_.empty()) {
    // libzip writes no file for an archive without entries.
    static const char kEmpty[22] = {'P', 'K', 5, 6};
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(kEmpty, sizeof(kEmpty));
    return static_cast<bool>(out);
  }
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (archive == nullptr) {
    fprintf(stderr, "ZipBuilder: cannot create %s (libzip error %d)\n",
            path.c_str(), error);
    return false;
  }
  for (const Entry& entry : entries_) {
    zip_int64_t index;
    if (entry.kind == Kind::kFolder) {
      index = zip_dir_add(archive, entry.name.c_str(), ZIP_FL_ENC_GUESS);
      if (index < 0) return fail("zip_dir_add", archive);
      continue;
    }
    zip_source_t* source;
    if (entry.kind == Kind::kZeros) {
      ZeroSource* zeros = new ZeroSource{entry.size, 0, {}};
      zip_error_init(&zeros->error);
      source = zip_source_function(archive, zeroCallback, zeros);
      if (source == nullptr) {
        zip_error_fini(&zeros->error);
        delete zeros;
      }
    } else {
      // The data lives in entries_, which outlives the zip_close below.
      source = zip_source_buffer(archive, entry.data.data(), entry.data.size(),
                                 0);
    }
    if (source == nullptr) return fail("zip source", archive);
    index = zip_file_add(archive, entry.name.c_str(), source, ZIP_FL_ENC_GUESS);
    if (index < 0) {
      zip_source_free(source);
      return fail("zip_file_add", archive);
    }
    const zip_uint64_t at = static_cast<zip_uint64_t>(index);
    int status;
    if (entry.compression == kStored) {
      status = zip_set_file_compression(archive, at, ZIP_CM_STORE, 0);
    } else if (entry.compression == kBzip2) {
      status = zip_set_file_compression(archive, at, ZIP_CM_BZIP2, 0);
    } else {
      const zip_uint32_t level =
          entry.compression == kDeflateDefault ? 0 : entry.compression;
      status = zip_set_file_compression(archive, at, ZIP_CM_DEFLATE, level);
    }
    if (status != 0) return fail("zip_set_file_compression", archive);
    if (entry.kind == Kind::kEncrypted &&
        zip_file_set_encryption(archive, at, ZIP_EM_AES_256,
                                entry.password.c_str()) != 0) {
      return fail("zip_file_set_encryption", archive);
    }
  }
  if (zip_close(archive) != 0) return fail("zip_close", archive);
  return true;
}
