// SPDX-License-Identifier: Apache-2.0
// Bytes as a whole HTTP answer (status line, headers, body), sent by a server
// on 127.0.0.1 to the package downloader, which then closes the connection:
// whatever the answer, the download ends, and it leaves either the file it
// reported or nothing at all; destroying the downloader leaves nothing.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz/FuzzSandbox.h"
#include "install/Downloader.h"
#include "testing/Listener.h"

namespace {

// Answers each connection with the current answer's bytes, as they are,
// after reading the request's head; then closes the connection.
class RawServer {
 public:
  RawServer() { std::thread([this] { run(); }).detach(); }

  void setAnswer(const uint8_t* data, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    answer_.assign(reinterpret_cast<const char*>(data), size);
  }

  std::string url() const {
    return listener_.url("/w/fuzz.wgt");
  }

 private:
  void run() {
    for (;;) {
      pollfd waiting = {listener_.fd(), POLLIN, 0};
      if (poll(&waiting, 1, -1) <= 0) continue;
      const int client = listener_.accept();
      if (client < 0) continue;
      readHead(client);
      std::string answer;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        answer = answer_;
      }
      size_t sent = 0;
      while (sent < answer.size()) {
        const ssize_t n = send(client, answer.data() + sent,
                               answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
      }
      shutdown(client, SHUT_RDWR);
      close(client);
    }
  }

  // Reads until the blank line that ends the request's head, the client's
  // end, or a second of silence.
  static void readHead(int client) {
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
      pollfd ready = {client, POLLIN, 0};
      if (poll(&ready, 1, 1000) <= 0) return;
      const ssize_t n = recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      head.append(buffer, static_cast<size_t>(n));
    }
  }

  Listener listener_;
  std::mutex mutex_;
  std::string answer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  static RawServer* server = [] {
    // A server that keeps a connection open past its answer is the stall
    // limit's job; a second keeps each input short.
    setenv("WIDGETENGINE_STALL_SECONDS", "1", 1);
    return new RawServer;
  }();
  server->setAnswer(data, size);
  const std::string package = sandbox.root() + "tmp/fileFuzzAb";
  {
    Downloader downloader(server->url(), package);
    const int result = downloader.download();
    struct stat status;
    const bool stored = lstat(package.c_str(), &status) == 0;
    if (result == 0 && (!stored || !S_ISREG(status.st_mode))) abort();
    if (result != 0 && stored) abort();
    if (result == 0 && static_cast<size_t>(status.st_size) > size) abort();
  }
  if (!FuzzSandbox::list(sandbox.root() + "tmp").empty()) abort();
  return 0;
}
