// SPDX-License-Identifier: Apache-2.0
#include "install/Downloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/Progress.h"
#include "base/Settings.h"
#include "install/Transfer.h"

namespace {

// libcurl hands its default writer chunks of at most 16 KiB; a larger stdio
// buffer turns them into fewer write calls.
constexpr size_t kFileBufferSize = 256 * 1024;

// Creates path for writing only if nothing (no file, no link) is there yet,
// so a download can never write through a file or link planted at the name.
FILE* createExclusively(const std::string& path, char* buffer) {
  int fd = open(path.c_str(),
                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    close(fd);
    unlink(path.c_str());
    return nullptr;
  }
  setvbuf(file, buffer, _IOFBF, kFileBufferSize);
  return file;
}

constexpr uint64_t kMiB = 1024 * 1024;

// How much of a folder's free space the check between two measurements
// may see consumed before measuring again: other writers share the file
// system, so the room at the start is not the room at the end.
constexpr uint64_t kRecheckBytes = 4 * kMiB;

// The free bytes of the file system that holds filePath's folder;
// UINT64_MAX when it cannot be told.
uint64_t freeSpaceOf(const std::string& filePath) {
  const size_t slash = filePath.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : filePath.substr(0, slash + 1);
  struct statvfs vfs;
  if (statvfs(folder.c_str(), &vfs) != 0) return UINT64_MAX;
  return static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
}

// Appends the body to the file as libcurl's own writer would, but refuses
// (and so ends the transfer as a failed download) the bytes that would take
// the package past its maximum, or the folder's file system under its
// reserve: an endless body must not fill the disk. why says which.
struct BoundedFile {
  FILE* file;
  std::string folderOf;  // a path in the folder, for measuring its room
  uint64_t reserve;
  uint64_t maximum;
  uint64_t written = 0;
  uint64_t room = 0;      // what may still be written, as last measured
  uint64_t measured = 0;  // written when the room was measured
  const char* why = nullptr;

  // The room the file system has above the reserve now. Bytes still in
  // the stdio buffer are not on the disk yet, so they count as spent.
  void measure() {
    const uint64_t free = freeSpaceOf(folderOf);
    const uint64_t pending = kFileBufferSize;
    room = free > reserve + pending ? free - reserve - pending : 0;
    if (free == UINT64_MAX) room = UINT64_MAX;
    measured = written;
  }
};

const char kOverReserve[] = "reserve";
const char kOverMaximum[] = "maximum";

size_t writeBounded(char* data, size_t size, size_t count, void* target) {
  BoundedFile* out = static_cast<BoundedFile*>(target);
  const size_t bytes = size * count;
  if (bytes > out->maximum - out->written) {
    out->why = kOverMaximum;
    return 0;
  }
  if (out->written - out->measured >= kRecheckBytes) out->measure();
  const uint64_t since = out->written - out->measured;
  if (out->room < since || bytes > out->room - since) {
    out->why = kOverReserve;
    return 0;
  }
  out->written += bytes;
  return fwrite(data, 1, bytes, out->file);
}

// What the head of each answer says that resuming needs: the status, the
// validators of the body being stored and, for a 206, where it starts. At
// the end of a head, an answer to a Range request is checked against what
// was asked, and a whole body (200) starts the file over.
struct AnswerHead {
  BoundedFile* out;
  uint64_t askedFrom = 0;  // 0 unless the request asked for a range
  long status = 0;
  std::string etag;          // of the body being stored
  std::string lastModified;  // of the body being stored
  std::string nextEtag;
  std::string nextLastModified;
  std::string rangeStart;
  bool wrongRange = false;

  // The validator If-Range may carry: a strong ETag, else Last-Modified;
  // "" when neither can be sent back.
  std::string validator() const {
    if (!etag.empty() && etag.compare(0, 2, "W/") != 0 &&
        transfer::isHeaderValue(etag))
      return etag;
    return transfer::isHeaderValue(lastModified) ? lastModified : std::string();
  }
};

size_t noteHead(char* data, size_t size, size_t count, void* target) {
  AnswerHead* head = static_cast<AnswerHead*>(target);
  const size_t bytes = size * count;
  if (bytes >= 5 && strncmp(data, "HTTP/", 5) == 0) {
    const char* space = static_cast<const char*>(memchr(data, ' ', bytes));
    head->status = space ? strtol(space + 1, nullptr, 10) : 0;
    head->nextEtag.clear();
    head->nextLastModified.clear();
    head->rangeStart.clear();
    return bytes;
  }
  std::string value = transfer::headerValue(data, bytes, "etag:");
  if (!value.empty()) head->nextEtag = value;
  value = transfer::headerValue(data, bytes, "last-modified:");
  if (!value.empty()) head->nextLastModified = value;
  value = transfer::headerValue(data, bytes, "content-range:");
  if (value.compare(0, 6, "bytes ") == 0) head->rangeStart = value.substr(6, value.find('-') - 6);
  if (bytes > 2 || (data[0] != '\r' && data[0] != '\n')) return bytes;

  // The end of the head.
  if (head->askedFrom > 0 && head->status == 206) {
    if (head->rangeStart != std::to_string(head->askedFrom)) {
      head->wrongRange = true;
      return 0;
    }
    return bytes;
  }
  if (head->askedFrom > 0 && head->status == 200) {
    // The whole body again: what was stored goes.
    BoundedFile* out = head->out;
    if (fflush(out->file) != 0 || ftruncate(fileno(out->file), 0) != 0) return 0;
    rewind(out->file);
    out->written = 0;
    out->measure();
  }
  if (head->status == 200) {
    head->etag = head->nextEtag;
    head->lastModified = head->nextLastModified;
  }
  return bytes;
}

// A transfer that ended this way was cut off, and may be taken up again.
bool wasCut(CURLcode result) {
  return result == CURLE_PARTIAL_FILE || result == CURLE_RECV_ERROR ||
         result == CURLE_OPERATION_TIMEDOUT || result == CURLE_GOT_NOTHING;
}

// A package comes over the web or from a local file, nothing else: libcurl
// speaks many protocols (gopher, dict, telnet, smtp...) that would send the
// address's bytes to whatever service listens at its host and port.
constexpr char kAllowedProtocols[] = "http,https,file";

bool allowedScheme(const std::string& scheme) {
  return scheme == "http" || scheme == "https" || scheme == "file";
}

// Keeps next as the reason, unless an earlier step gave one.
void keepFirst(Outcome* kept, Outcome next) {
  if (kept->ok()) *kept = std::move(next);
}

Outcome sayRefused(const std::string& url, const std::string& scheme) {
  engineOut() << "Refusing to download " << url << ": "
              << (scheme.empty() ? std::string("its protocol")
                                 : "the protocol " + scheme)
              << " is not http, https or file" << std::endl;
  return Outcome(WIDGETENGINE_REFUSAL_ADDRESS,
                 "the address " + url + " uses a protocol other than http, "
                 "https or file");
}

// The host a file address names, when url is one ("file://HOST/..."):
// true, with host set ("" for "file:///..."). A file address reaches this
// machine's files only; another host would be a share on some other
// machine, and "127.0.0.1" one more way to spell this one.
bool fileHostOf(const std::string& url, std::string* host) {
  static const char kFile[] = "file://";
  const size_t prefix = sizeof kFile - 1;
  if (url.size() < prefix || strncasecmp(url.c_str(), kFile, prefix) != 0) return false;
  const size_t end = url.find_first_of("/?#", prefix);
  host->assign(url, prefix, (end == std::string::npos ? url.size() : end) - prefix);
  return true;
}

bool localFileHost(const std::string& host) {
  return host.empty() || strcasecmp(host.c_str(), "localhost") == 0;
}

Outcome sayOtherHost(const std::string& url, const std::string& host) {
  engineOut() << "Refusing to download " << url
              << ": a file:// address may name no host other than localhost" << std::endl;
  engineError() << "Could not download file" << std::endl;
  return Outcome(WIDGETENGINE_REFUSAL_ADDRESS,
                 "the address " + url + " names the host " + host +
                     "; a file:// address may name no host other than localhost");
}

int reportProgress(void*, curl_off_t total, curl_off_t done, curl_off_t,
                   curl_off_t) {
  progress::report(WIDGETENGINE_PROGRESS_DOWNLOAD, static_cast<uint64_t>(done),
                   static_cast<uint64_t>(total));
  return 0;
}

// Why a transfer that libcurl gave up on is refused.
Outcome failureOf(CURLcode result, const std::string& url) {
  switch (result) {
    case CURLE_FILE_COULDNT_READ_FILE:
    case CURLE_REMOTE_FILE_NOT_FOUND:
      return Outcome(WIDGETENGINE_REFUSAL_NOT_FOUND, "package not found: " + url);
    case CURLE_FILESIZE_EXCEEDED:
    case CURLE_WRITE_ERROR:
      return Outcome(WIDGETENGINE_REFUSAL_NO_SPACE,
                     "no space left for the package from " + url);
    default:
      return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                     "cannot download " + url + ": " + curl_easy_strerror(result),
                     result);
  }
}

// The line that says why a download was stopped, and the reason it gives;
// ok when no bound stopped it.
Outcome sayWhy(const BoundedFile& out) {
  if (out.why == kOverMaximum) {
    engineOut() << "Package larger than the largest allowed, "
                << out.maximum / kMiB << " MiB" << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                   "the package is larger than the largest allowed, " +
                       std::to_string(out.maximum / kMiB) + " MiB");
  }
  if (out.why == kOverReserve) {
    engineOut() << "Package would leave less than "
                << out.reserve / kMiB
                << " MiB free where widgets are stored" << std::endl;
    return Outcome(WIDGETENGINE_REFUSAL_NO_SPACE,
                   "the package would leave less than " +
                       std::to_string(out.reserve / kMiB) +
                       " MiB free where widgets are stored");
  }
  return Outcome();
}

// A failure that gives no reason of its own.
Outcome downloadFailed() {
  return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD, "the download failed");
}

}  // namespace

Downloader::Downloader(const std::string& url, const std::string& filePath)
    : url(url), filePath(filePath), createdFile(false) {}

Downloader::~Downloader() { clean(); }

int Downloader::download() {
  outcome_ = Outcome();
  // Refused before anything is created or any connection made.
  const std::string scheme = transfer::schemeOf(url);
  if (!scheme.empty() && !allowedScheme(scheme)) {
    outcome_ = sayRefused(url, scheme);
    return -1;
  }
  std::string host;
  if (fileHostOf(url, &host) && !localFileHost(host)) {
    outcome_ = sayOtherHost(url, host);
    return -1;
  }
  // The stdio buffer must outlive the FILE, which is closed before return.
  std::unique_ptr<char[]> buffer(new char[kFileBufferSize]);
  FILE* file = createExclusively(filePath, buffer.get());
  if (file == nullptr) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                       "cannot create the package file " + filePath, errno);
    engineError() << "Could not open file for download" << std::endl;
    return -1;
  }
  createdFile = true;

  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    engineError() << "Cannot initialize CURL" << std::endl;
    outcome_ = downloadFailed();
    fclose(file);
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }

  // The address, the destination and three bounds: redirects are not
  // followed and an HTTP error page is stored like any body (the extractor
  // refuses it later), but a body larger than the maximum, or than the room
  // above the reserve, or a server silent for too long, fails the download.
  BoundedFile out;
  out.file = file;
  out.folderOf = filePath;
  out.reserve = settings::downloadReserveBytes();
  out.maximum = settings::maxPackageBytes();
  out.measure();
  if (!transfer::restrictProtocols(curl, kAllowedProtocols)) {
    engineOut() << "Refusing to download " << url
                << ": this libcurl cannot be limited to http, https and file"
                << std::endl;
    outcome_ = downloadFailed();
    curl_easy_cleanup(curl);
    fclose(file);
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeBounded);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &out);
  // libcurl receives 16 KiB per call by default: over a fast link, a larger
  // receive buffer means a tenth of the calls into the kernel and writer.
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, static_cast<long>(kFileBufferSize));
  // A body announced larger than a bound is refused before a byte comes.
  const uint64_t announcedLimit = out.room < out.maximum ? out.room : out.maximum;
  if (announcedLimit < static_cast<uint64_t>(INT64_MAX)) {
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(announcedLimit));
  }
  transfer::boundSilence(curl);
  if (progress::wanted()) {
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, reportProgress);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  }

  AnswerHead head;
  head.out = &out;
  if (resumeAttempts > 0) {
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, noteHead);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &head);
  }
  CURLcode result = curl_easy_perform(curl);
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> ifRange(nullptr,
                                                             curl_slist_free_all);
  for (int attempt = 0; attempt < resumeAttempts && wasCut(result) &&
                        out.why == nullptr && out.written > 0 &&
                        !head.validator().empty() &&
                        (head.status == 200 || head.status == 206);
       ++attempt) {
    engineOut() << "Resuming the download of " << url << " at byte "
                << out.written << std::endl;
    ifRange.reset(curl_slist_append(nullptr, ("If-Range: " + head.validator()).c_str()));
    const std::string range = std::to_string(out.written) + "-";
    curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, ifRange.get());
    head.askedFrom = out.written;
    result = curl_easy_perform(curl);
  }
  if (head.wrongRange) {
    keepFirst(&outcome_, Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                                 "the server resumed " + url +
                                     " elsewhere than at byte " +
                                     std::to_string(head.askedFrom)));
  }
  // An error page is stored and refused later, when it is not unpacked; the
  // reason given to the host is the status, not what the page holds.
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  if (status >= 300 && (url.compare(0, 7, "http://") == 0 ||
                        url.compare(0, 8, "https://") == 0)) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_HTTP_STATUS,
                       "HTTP status " + std::to_string(status) + " from " + url,
                       status);
  }
  if (result == CURLE_FILESIZE_EXCEEDED) {
    out.why = announcedLimit == out.maximum ? kOverMaximum : kOverReserve;
  }
  if (result != CURLE_OK) {
    if (result == CURLE_UNSUPPORTED_PROTOCOL)
      keepFirst(&outcome_, sayRefused(url, std::string()));
    keepFirst(&outcome_, sayWhy(out));
    keepFirst(&outcome_, failureOf(result, url));
    engineError() << "Could not download file" << std::endl;
    curl_easy_cleanup(curl);
    fclose(file);
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }

  curl_easy_cleanup(curl);
  // The tail of the body may still sit in the stdio buffer; a package that
  // could not be stored whole is no download.
  if (fclose(file) != 0) {
    keepFirst(&outcome_,
              Outcome(errno == ENOSPC ? WIDGETENGINE_REFUSAL_NO_SPACE
                                      : WIDGETENGINE_REFUSAL_DOWNLOAD,
                      std::string("cannot store the package: ") + strerror(errno),
                      errno));
    engineError() << "Could not download file" << std::endl;
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }
  engineOut() << "Downloaded from " << url << " to " << filePath << std::endl;
  return 0;
}

void Downloader::clean() {
  // Only a file this object created is removed: a name that was already
  // taken when download() ran belongs to someone else.
  if (createdFile) remove(filePath.c_str());
  engineOut() << "Download cleaned" << std::endl;
}
