// SPDX-License-Identifier: Apache-2.0
#include "engine/ToolsFacade.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/Environment.h"
#include "base/Refusal.h"
#include "base/ScopedFd.h"
#include "base/TrustedPath.h"
#include "config/WidgetConfigParser.h"
#include "install/Downloader.h"
#include "install/EntryName.h"
#include "install/Extractor.h"
#include "install/InstallLock.h"
#include "install/SignatureCheck.h"
#include "install/zip/ZipHandles.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "lint/PackageLinter.h"
#include "signature/SignatureFiles.h"
#include "signature/SignatureMaker.h"
#include "signature/SignatureVerifier.h"
#include "signature/TrustAnchors.h"
#include "registry/SqlLite3.h"

namespace toolsfacade {

Installation install(const std::string& url) {
  refusal::begin();
  WidgetInstaller installer(url);
  Installation installation;
  installation.status = installer.run();
  installation.launchURL = installer.getLaunchURL();
  return installation;
}

Refusal lastRefusal() {
  Refusal last;
  last.code = refusal::code();
  last.reason = refusal::reason();
  last.statement = refusal::statement();
  last.directoryKept = refusal::directoryKept();
  return last;
}

std::string registryPath() { return SqlLite3::databasePath(); }

std::string widgetRoot() { return WidgetInstaller::getWidgetBasePath(); }

std::optional<std::string> environmentPath(const char* name) {
  return environment::path(name);
}

std::string environmentText(const char* name, const std::string& fallback) {
  return environment::text(name, fallback);
}

std::string schemaPath() { return WidgetConfigParser::kSchemaPath; }

std::string nameFromURL(const std::string& url) {
  return WidgetInstaller::nameFromURL(url);
}

RegistryRows readRegistry() {
  RegistryRows result;
  SqlLite3 registry;
  result.opened = registry.isOpen();
  if (!result.opened) return result;
  for (WidgetsData* row : registry.selectAllWidgets(&result.read))
    result.rows.emplace_back(row);
  if (!result.read) result.error = registry.lastError();
  return result;
}

int reclaimCounters() { return SqlLite3::reclaimCounters(); }

bool trustedDirectory(const std::string& path, std::string* reason) {
  return TrustedPath::directory(path, reason);
}

bool isInRoot(const std::string& path, const std::string& root) {
  return WidgetUnInstaller::isInRoot(path, root);
}

std::vector<std::string> deadInstallationLeftovers(const std::string& lockPath) {
  std::vector<std::string> paths;
  const int fd = open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return paths;
  std::string journal;
  std::string untrusted;
  // A lock file someone else could have written names nothing of ours; a
  // lock that a live installation holds names what it is working on.
  if (TrustedPath::opened(fd, lockPath, &untrusted) &&
      flock(fd, LOCK_SH | LOCK_NB) == 0) {
    char buffer[8192];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
      journal.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  // One "KIND PATH" line for each thing the installation made.
  size_t start = 0;
  while (start < journal.size()) {
    size_t end = journal.find('\n', start);
    if (end == std::string::npos) end = journal.size();
    const std::string line = journal.substr(start, end - start);
    start = end + 1;
    const size_t space = line.find(' ');
    if (space == std::string::npos) continue;
    const std::string path = line.substr(space + 1);
    struct stat status;
    if (lstat(path.c_str(), &status) == 0) paths.push_back(path);
  }
  return paths;
}

bool installationRunning(const std::string& root, const std::string& dirName) {
  const std::string lock = root + "." + dirName + ".lock";
  const int fd = open(lock.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  const bool held = flock(fd, LOCK_SH | LOCK_NB) != 0;
  close(fd);
  return held;
}

void sweepLeftovers(const std::string& root) {
  SqlLite3 registry;
  InstallLock::sweep(root, registry);
}

bool removeTree(const std::string& path) {
  return WidgetUnInstaller::removeWidgetDirectory(path);
}

OrphanDirectory::OrphanDirectory(const std::string& root, const std::string& name,
                                 const std::string& path)
    : path_(path), lock_(new InstallLock(root, name)) {}

OrphanDirectory::~OrphanDirectory() {
  if (settled_) lock_->clear();
}

bool OrphanDirectory::claim() {
  locked_ = lock_->acquire();
  if (!locked_) {
    error_ = lock_->error();
    return false;
  }
  SqlLite3 registry;
  bool read = false;
  settled_ = lock_->removeLeftovers(registry);
  claimed_ = !InstallLock::ownerOf(path_, registry, &read) && read;
  return claimed_;
}

bool OrphanDirectory::remove() {
  return claimed_ && WidgetUnInstaller::removeWidgetDirectory(path_);
}

bool download(const std::string& url, const std::string& path) {
  // The downloader removes its file when it goes: the package is moved out
  // of its way first.
  const std::string part = path + ".part";
  Downloader downloader(url, part);
  return downloader.download() == 0 && rename(part.c_str(), path.c_str()) == 0;
}

std::vector<LintFinding> lint(const std::string& packagePath,
                              const std::string& sourceURL) {
  PackageLinter linter(packagePath, sourceURL);
  return linter.run();
}

bool unpack(const std::string& packagePath, const std::string& folder,
            std::string* reason) {
  std::string target = folder;
  if (target.empty() || target.back() != '/') target += '/';
  // The extractor's removal of what it wrote leaves the process in the
  // folder that held it; a tool keeps its working directory, from which
  // the paths it was given are read.
  ScopedFd here(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  bool unpacked;
  {
    Extractor extractor(packagePath, target);
    std::vector<std::string> files;
    unpacked = extractor.extract(files) == 0;
    if (unpacked) {
      extractor.setKeepFiles(true);
    } else {
      *reason = extractor.outcome().reason();
    }
  }
  if (here.get() >= 0 && fchdir(here.get()) != 0) {
    *reason = "cannot return to the working directory";
    return false;
  }
  return unpacked;
}

std::string signaturePolicy() {
  return SignatureCheck::policyName(SignatureCheck::policy());
}

std::vector<std::string> signatureDocuments(const std::string& packagePath) {
  int error = 0;
  ArchivePtr archive(zip_open(packagePath.c_str(), ZIP_RDONLY, &error));
  if (!archive) return std::vector<std::string>();
  std::vector<std::string> names;
  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive.get(), static_cast<zip_uint64_t>(index), 0, &stat) == 0)
      names.push_back(EntryName::of(stat));
  }
  return SignatureFiles::inProcessingOrder(names);
}

std::vector<std::string> signatureDocumentsInFolder(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return names;
  while (const struct dirent* entry = readdir(dir)) {
    if (entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN) names.push_back(entry->d_name);
  }
  closedir(dir);
  return SignatureFiles::inProcessingOrder(names);
}

SignatureReport checkSignatures(const std::string& folder) {
  SignatureReport report;
  report.anchorsFolder = SignatureCheck::anchorsFolder();
  TrustAnchors anchors;
  std::string why;
  if (!anchors.addFolder(report.anchorsFolder, &why)) report.anchorProblems.push_back(why);
  for (const std::string& problem : anchors.problems())
    report.anchorProblems.push_back(problem);
  report.anchors = anchors.size();
  const Verdict verdict = SignatureVerifier(anchors).verify(folder);
  // Subjects and identifiers come from the package: bytes that are not
  // UTF-8 are replaced, as in the record an installation keeps.
  report.record = SignatureCheck::describe(verdict).dump(
      -1, ' ', false, nlohmann::json::error_handler_t::replace);
  return report;
}

bool signFolder(const std::string& folder, const std::string& keyPem,
                const std::string& chainPem, bool distributor, bool exclusiveC14n,
                std::string* written, std::string* reason) {
  SignatureMaker maker;
  if (!maker.setSigner(keyPem, chainPem, reason)) return false;
  maker.setExclusiveCanonicalization(exclusiveC14n);
  return maker.sign(folder,
                    distributor ? SignatureMaker::kDistributor : SignatureMaker::kAuthor,
                    written, reason);
}

}  // namespace toolsfacade
