// SPDX-License-Identifier: Apache-2.0
#include "install/Downloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>

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

}  // namespace

Downloader::Downloader(const std::string& url, const std::string& filePath)
    : url(url), filePath(filePath), createdFile(false) {}

Downloader::~Downloader() { clean(); }

int Downloader::download() {
  // The stdio buffer must outlive the FILE, which is closed before return.
  std::unique_ptr<char[]> buffer(new char[kFileBufferSize]);
  FILE* file = createExclusively(filePath, buffer.get());
  if (file == nullptr) {
    std::cout << "Could not open file for download" << std::endl;
    return -1;
  }
  createdFile = true;

  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    std::cout << "Cannot initialize CURL" << std::endl;
    fclose(file);
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }

  // Only the address and the destination: redirects are not followed and an
  // HTTP error page is stored like any body; the extractor refuses it later.
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);

  CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK) {
    std::cout << "Could not download file" << std::endl;
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
    std::cout << "Could not download file" << std::endl;
    remove(filePath.c_str());
    createdFile = false;
    return -1;
  }
  std::cout << "Downloaded from " << url << " to " << filePath << std::endl;
  return 0;
}

void Downloader::clean() {
  // Only a file this object created is removed: a name that was already
  // taken when download() ran belongs to someone else.
  if (createdFile) remove(filePath.c_str());
  std::cout << "Download cleaned" << std::endl;
}
