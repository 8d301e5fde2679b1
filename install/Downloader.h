// SPDX-License-Identifier: Apache-2.0
// Downloader fetches one widget package from a URL into one local file with
// libcurl, synchronously. Destroying it removes that file, so the package
// never outlives the installation job.
#ifndef WIDGETENGINE_DOWNLOADER_H_
#define WIDGETENGINE_DOWNLOADER_H_

#include <string>

#include "base/Outcome.h"

class Downloader {
 public:
  Downloader(const std::string& url, const std::string& filePath);
  ~Downloader();

  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  // 0 when the body was stored in filePath, -1 otherwise.
  int download();
  // Why the last download() failed. After a body stored from an HTTP answer
  // of an error status, that status: the body is no package, and the status
  // is the reason when it is refused.
  const Outcome& outcome() const { return outcome_; }
  // Removes filePath and says so.
  void clean();
  // Lets download() take up a transfer that was cut off (the connection
  // lost, or silent for the stall time) up to attempts more times, from the
  // bytes already stored: a Range request with If-Range naming the ETag (or
  // Last-Modified) of the answer those bytes came from. A 200 answer starts
  // the file over; a 206 from anywhere else than asked fails the download.
  // The size, reserve and stall bounds hold for the whole. Off by default:
  // an installation fails at the first cut, as it always has.
  void resumeCutTransfers(int attempts) { resumeAttempts = attempts; }

 private:
  std::string url;
  std::string filePath;
  // Set once download() has created filePath; clean() removes only then.
  bool createdFile;
  int resumeAttempts = 0;
  Outcome outcome_;
};

#endif  // WIDGETENGINE_DOWNLOADER_H_
