// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Sign.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <vector>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/CheckFolders.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/Reply.h"

namespace widgetctl {

namespace {

// Keys and certificate chains are a few kilobytes; anything much larger is
// not one.
const std::streamsize kMaxPemSize = 1 << 20;

bool readPem(const std::string& path, const char* what, std::string* text,
             std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = std::string("cannot read the ") + what + " " + path + ": " + strerror(errno);
    return false;
  }
  std::vector<char> buffer(static_cast<size_t>(kMaxPemSize) + 1);
  in.read(buffer.data(), kMaxPemSize + 1);
  if (in.bad()) {
    *error = std::string("cannot read the ") + what + " " + path;
    return false;
  }
  if (in.gcount() > kMaxPemSize) {
    *error = std::string("the ") + what + " " + path + " is larger than 1 MiB";
    return false;
  }
  text->assign(buffer.data(), static_cast<size_t>(in.gcount()));
  return true;
}

// The private folder a package is unpacked and signed in: made exclusively
// under the temporary directory, marked as in use so that the next check
// or sign removes it should this process be killed, and removed when it
// goes.
class PrivateFolder {
 public:
  PrivateFolder() = default;
  ~PrivateFolder() {
    if (path_.empty()) return;
    std::vector<std::string> lines;
    EngineLines quiet(&lines);
    toolsfacade::removeTree(path_);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  bool make(std::string* error) {
    const std::string tmp = toolsfacade::environmentText("TMPDIR", P_tmpdir);
    CheckFolders::removeDead(tmp);
    std::string pattern = tmp + "/" + CheckFolders::kPrefix + "XXXXXX";
    if (!mkdtemp(&pattern[0])) {
      *error = std::string("cannot create a temporary directory: ") + strerror(errno);
      return false;
    }
    path_ = pattern;
    CheckFolders::markAlive(path_);
    return true;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

struct ArchiveCloser {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
typedef std::unique_ptr<zip_t, ArchiveCloser> Archive;

// The names of the package's entries in their order, folders with their
// trailing "/".
bool entriesOf(const std::string& package, std::vector<std::string>* names,
               std::string* error) {
  int code = 0;
  Archive archive(zip_open(package.c_str(), ZIP_RDONLY, &code));
  if (!archive) {
    zip_error_t zipError;
    zip_error_init_with_code(&zipError, code);
    *error = std::string("cannot read the package ") + package + ": " +
             zip_error_strerror(&zipError);
    zip_error_fini(&zipError);
    return false;
  }
  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  for (zip_int64_t index = 0; index < count; ++index) {
    const char* name = zip_get_name(archive.get(), static_cast<zip_uint64_t>(index), 0);
    if (name) names->push_back(name);
  }
  return true;
}

bool isFile(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool isDirectory(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Packs folder into the file at path (which exists, empty): config.xml
// first, then the entries of the original package in their order, then the
// signature document that signing added.
bool pack(const std::string& folder, const std::vector<std::string>& original,
          const std::string& written, const std::string& path, std::string* error) {
  int code = 0;
  Archive archive(zip_open(path.c_str(), ZIP_TRUNCATE, &code));
  if (!archive) {
    zip_error_t zipError;
    zip_error_init_with_code(&zipError, code);
    *error = "cannot write the signed package " + path + ": " +
             zip_error_strerror(&zipError);
    zip_error_fini(&zipError);
    return false;
  }
  std::vector<std::string> order = {"config.xml"};
  order.insert(order.end(), original.begin(), original.end());
  order.push_back(written);
  std::set<std::string> added;
  for (const std::string& name : order) {
    if (name.empty() || !added.insert(name).second) continue;
    const std::string source = folder + "/" + name;
    if (name.back() == '/') {
      if (isDirectory(source) &&
          zip_dir_add(archive.get(), name.substr(0, name.size() - 1).c_str(),
                      ZIP_FL_ENC_UTF_8) < 0) {
        break;
      }
      continue;
    }
    // Entries the unpacking left out (a name given twice) are not there.
    if (!isFile(source)) continue;
    zip_source_t* data = zip_source_file(archive.get(), source.c_str(), 0, -1);
    if (!data) break;
    if (zip_file_add(archive.get(), name.c_str(), data, ZIP_FL_ENC_UTF_8) < 0) {
      zip_source_free(data);
      break;
    }
  }
  if (zip_get_error(archive.get())->zip_err != ZIP_ER_OK) {
    *error = "cannot pack the signed package: " +
             std::string(zip_strerror(archive.get()));
    return false;
  }
  if (zip_close(archive.get()) != 0) {
    *error = "cannot write the signed package " + path + ": " +
             zip_strerror(archive.get());
    return false;
  }
  archive.release();
  return true;
}

int signFolder(const std::string& folder, const std::string& key,
               const std::string& chain, const SignOptions& options,
               std::string* written, std::string* error) {
  // A distributor signs the author's document too: a new one breaks it.
  if (!options.distributor) {
    for (const std::string& document : toolsfacade::signatureDocumentsInFolder(folder)) {
      if (document == "author-signature.xml") continue;
      std::cerr << "widgetctl: warning: " << document
                << " signs the author signature this replaces; sign as that "
                   "distributor again"
                << std::endl;
    }
  }
  std::vector<std::string> lines;
  bool signedIt;
  {
    EngineLines capture(&lines);
    signedIt = toolsfacade::signFolder(folder, key, chain, options.distributor,
                                       options.exclusiveC14n, written, error);
  }
  passOn(lines);
  return signedIt ? kOk : kNo;
}

int signPackage(const std::string& package, const std::string& key,
                const std::string& chain, const SignOptions& options,
                std::string* written, std::string* error) {
  struct stat before;
  if (stat(package.c_str(), &before) != 0) {
    *error = "cannot read the package " + package + ": " + strerror(errno);
    return kNo;
  }
  if (!S_ISREG(before.st_mode)) {
    *error = package + " is neither a folder nor a package file";
    return kNo;
  }
  std::vector<std::string> original;
  if (!entriesOf(package, &original, error)) return kNo;

  PrivateFolder work;
  if (!work.make(error)) return kEnvironment;
  const std::string folder = work.path() + "/package";
  std::vector<std::string> lines;
  bool unpacked;
  {
    EngineLines capture(&lines);
    unpacked = toolsfacade::unpack(package, folder, error);
  }
  if (!unpacked) {
    *error = "cannot unpack the package " + package + ": " + *error;
    return kNo;
  }
  if (!isFile(folder + "/config.xml")) {
    *error = "the package " + package + " holds no config.xml";
    return kNo;
  }
  const int status = signFolder(folder, key, chain, options, written, error);
  if (status != kOk) return status;

  // The new package is written under a fresh name in the package's own
  // directory, so that renaming it over the original replaces the file in
  // one step (a link in its place is replaced, not written through).
  const size_t slash = package.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : package.substr(0, slash);
  const std::string base = slash == std::string::npos ? package : package.substr(slash + 1);
  std::string fresh = directory + "/." + base + ".signing-XXXXXX";
  const int fd = mkstemp(&fresh[0]);
  if (fd < 0) {
    *error = "cannot write beside " + package + ": " + strerror(errno);
    return kEnvironment;
  }
  if (close(fd) != 0) {
    *error = "cannot write beside " + package + ": " + strerror(errno);
    unlink(fresh.c_str());
    return kEnvironment;
  }
  if (!pack(folder, original, *written, fresh, error)) {
    unlink(fresh.c_str());
    return kEnvironment;
  }
  if (chmod(fresh.c_str(), before.st_mode & 0777) != 0 ||
      rename(fresh.c_str(), package.c_str()) != 0) {
    *error = "cannot replace " + package + ": " + strerror(errno);
    unlink(fresh.c_str());
    return kEnvironment;
  }
  return kOk;
}

}  // namespace

int runSign(const std::string& target, const SignOptions& options) {
  gDocument["target"] = target;
  gDocument["role"] = options.distributor ? "distributor" : "author";
  std::string key;
  std::string chain;
  std::string error;
  if (!readPem(options.keyPath, "key", &key, &error) ||
      !readPem(options.certificatesPath, "certificate chain", &chain, &error)) {
    return finish(kNo, error);
  }
  std::string written;
  struct stat status;
  const bool folder = stat(target.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  if (folder && !isFile(target + "/config.xml")) {
    return finish(kNo, "could not sign " + target + ": " + target +
                           " is not an unpacked widget (no config.xml)");
  }
  const int result = folder ? signFolder(target, key, chain, options, &written, &error)
                            : signPackage(target, key, chain, options, &written, &error);
  if (result != kOk) {
    gDocument["written"] = nullptr;
    return finish(result, "could not sign " + target + ": " + error);
  }
  gDocument["written"] = written;
  if (!gJson) std::cout << "signed " << target << ": wrote " << written << std::endl;
  return finish(kOk);
}

}  // namespace widgetctl
