// SPDX-License-Identifier: Apache-2.0
#include "testing/ZipBuilder.h"

#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

// A libzip source of `size` zero bytes, handed to libzip already deflated so
// that a gigabyte entry costs no gigabyte of compression and checksumming
// (minutes under an emulator). The stream is one block of zeros, compressed
// once and ended by a full flush, so that every copy of it reads alike,
// repeated; then the rest, and the stream's end.
constexpr uint64_t kZeroBlock = 1 << 20;

struct ZeroSource {
  uint64_t size;
  uint64_t offset;
  zip_error_t error;
  std::string block;  // kZeroBlock zeros, deflated and flushed
  std::string rest;   // the last size % kZeroBlock zeros, and the end
  uint64_t blocks;
  uint32_t crc;
};

std::string deflated(uint64_t zeros, int flush) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return std::string();
  }
  std::string input(static_cast<size_t>(zeros), '\0');
  std::string output(deflateBound(&stream, input.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(&input[0]);
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(&output[0]);
  stream.avail_out = static_cast<uInt>(output.size());
  deflate(&stream, flush);
  output.resize(output.size() - stream.avail_out);
  deflateEnd(&stream);
  return output;
}

void prepare(ZeroSource* source) {
  source->blocks = source->size / kZeroBlock;
  const uint64_t last = source->size % kZeroBlock;
  source->block = deflated(kZeroBlock, Z_FULL_FLUSH);
  source->rest = deflated(last, Z_FINISH);
  const std::string zeros(kZeroBlock, '\0');
  const uLong blockCrc =
      crc32(0, reinterpret_cast<const Bytef*>(zeros.data()), kZeroBlock);
  uLong crc = crc32(0, Z_NULL, 0);
  for (uint64_t i = 0; i < source->blocks; ++i) {
    crc = crc32_combine(crc, blockCrc, kZeroBlock);
  }
  crc = crc32_combine(
      crc, crc32(0, reinterpret_cast<const Bytef*>(zeros.data()),
                 static_cast<uInt>(last)),
      static_cast<z_off_t>(last));
  source->crc = static_cast<uint32_t>(crc);
}

uint64_t compressedSize(const ZeroSource* source) {
  return source->blocks * source->block.size() + source->rest.size();
}

zip_int64_t zeroCallback(void* state, void* data, zip_uint64_t length,
                         zip_source_cmd_t command) {
  ZeroSource* source = static_cast<ZeroSource*>(state);
  switch (command) {
    case ZIP_SOURCE_OPEN:
      source->offset = 0;
      return 0;
    case ZIP_SOURCE_READ: {
      char* out = static_cast<char*>(data);
      zip_uint64_t n = 0;
      const uint64_t whole = source->blocks * source->block.size();
      while (n < length && source->offset < compressedSize(source)) {
        const std::string& piece =
            source->offset < whole ? source->block : source->rest;
        const uint64_t at = source->offset < whole
                                ? source->offset % source->block.size()
                                : source->offset - whole;
        const uint64_t take =
            std::min<uint64_t>(length - n, piece.size() - at);
        memcpy(out + n, piece.data() + at, static_cast<size_t>(take));
        n += take;
        source->offset += take;
      }
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
      stat->comp_size = compressedSize(source);
      stat->comp_method = ZIP_CM_DEFLATE;
      stat->crc = source->crc;
      stat->valid |= ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE |
                     ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC;
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
      ZeroSource* zeros = new ZeroSource{entry.size, 0, {}, "", "", 0, 0};
      zip_error_init(&zeros->error);
      prepare(zeros);
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
