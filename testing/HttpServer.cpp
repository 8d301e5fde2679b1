// SPDX-License-Identifier: Apache-2.0
#include "testing/HttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// The value of the request header name (case-insensitive), trimmed; "" when
// the request has none.
std::string headerOf(const std::string& request, const std::string& name) {
  size_t line = request.find("\r\n");
  while (line != std::string::npos) {
    line += 2;
    const size_t end = request.find("\r\n", line);
    if (end == std::string::npos || end == line) break;
    const std::string text = request.substr(line, end - line);
    const size_t colon = text.find(':');
    if (colon == name.size() && strncasecmp(text.c_str(), name.c_str(), colon) == 0) {
      size_t start = colon + 1;
      while (start < text.size() && text[start] == ' ') ++start;
      size_t stop = text.size();
      while (stop > start && text[stop - 1] == ' ') --stop;
      return text.substr(start, stop - start);
    }
    line = end;
  }
  return std::string();
}

}  // namespace

HttpServer::HttpServer() {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    perror("pipe");
    abort();
  }
  wakeRead_ = pipeFds[0];
  wakeWrite_ = pipeFds[1];
  thread_ = std::thread(&HttpServer::run, this);
}

HttpServer::~HttpServer() {
  char stop = 's';
  while (write(wakeWrite_, &stop, 1) < 0 && errno == EINTR) {
  }
  thread_.join();
  close(wakeRead_);
  close(wakeWrite_);
}

void HttpServer::serveFile(const std::string& path,
                           const std::string& filePath) {
  Route route;
  route.filePath = filePath;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

void HttpServer::serve(const std::string& path, int status,
                       const std::string& body, const Headers& headers) {
  Route route;
  route.status = status;
  route.body = body;
  route.headers = headers;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

void HttpServer::serveRedirect(const std::string& path,
                               const std::string& location,
                               const std::string& body) {
  serve(path, 302, body, {{"Location", location}});
}

void HttpServer::serveTruncated(const std::string& path,
                                const std::string& body, size_t sentBytes) {
  Route route;
  route.body = body;
  route.sentBytes = sentBytes;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

void HttpServer::serveEndless(const std::string& path, uint64_t announced) {
  Route route;
  route.endless = true;
  route.announced = announced;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

void HttpServer::serveStalled(const std::string& path, const std::string& body,
                              size_t sentBytes) {
  Route route;
  route.body = body;
  route.sentBytes = sentBytes;
  route.stall = true;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

void HttpServer::serveResource(const std::string& path,
                               const Resource& resource) {
  Route route;
  route.isResource = true;
  route.resource = resource;
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = route;
}

int HttpServer::bodiesSent(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = bodies_.find(path);
  return found == bodies_.end() ? 0 : found->second;
}

int HttpServer::rangeRequests(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = ranges_.find(path);
  return found == ranges_.end() ? 0 : found->second;
}

std::string HttpServer::lastRequest(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = lastRequests_.find(path);
  return found == lastRequests_.end() ? std::string() : found->second;
}

void HttpServer::answerResource(int client, const std::string& path,
                                const std::string& request,
                                const Route& route) {
  const Resource& r = route.resource;
  const std::string noneMatch = headerOf(request, "If-None-Match");
  const std::string modifiedSince = headerOf(request, "If-Modified-Since");
  const std::string range = headerOf(request, "Range");
  const std::string ifRange = headerOf(request, "If-Range");
  const bool notModified =
      !noneMatch.empty() ? (!r.etag.empty() && noneMatch == r.etag)
                         : (!modifiedSince.empty() && modifiedSince == r.lastModified);
  size_t from = 0;
  bool partial = false;
  if (range.compare(0, 6, "bytes=") == 0 && !r.ignoreRange &&
      (ifRange.empty() || ifRange == r.etag || ifRange == r.lastModified)) {
    from = static_cast<size_t>(strtoull(range.c_str() + 6, nullptr, 10));
    if (r.wrongRange) ++from;
    partial = from < r.body.size();
    if (!partial) from = 0;
  }

  std::string head;
  if (notModified) {
    head = "HTTP/1.1 304 Not Modified\r\n";
  } else if (partial) {
    head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " +
           std::to_string(from) + "-" + std::to_string(r.body.size() - 1) + "/" +
           std::to_string(r.body.size()) + "\r\n";
  } else {
    head = "HTTP/1.1 200 OK\r\n";
  }
  if (!r.etag.empty()) head += "ETag: " + r.etag + "\r\n";
  if (!r.lastModified.empty()) head += "Last-Modified: " + r.lastModified + "\r\n";
  const std::string payload = notModified ? std::string() : r.body.substr(from);
  if (!notModified) {
    head += "Content-Type: " + r.contentType + "\r\nAccept-Ranges: bytes\r\n";
    head += "Content-Length: " + std::to_string(payload.size()) + "\r\n";
  }
  head += "Connection: close\r\n\r\n";

  size_t sent = payload.size();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!range.empty()) ++ranges_[path];
    if (!notModified) ++bodies_[path];
    Route& kept = routes_[path];
    if (!notModified && kept.resource.cutFirstAt != static_cast<size_t>(-1)) {
      sent = std::min(sent, kept.resource.cutFirstAt);
      kept.resource.cutFirstAt = static_cast<size_t>(-1);
      if (!kept.resource.bodyAfterCut.empty()) {
        kept.resource.body = kept.resource.bodyAfterCut;
        kept.resource.etag = kept.resource.etagAfterCut;
      }
    }
  }
  if (sendAll(client, head.data(), head.size())) sendAll(client, payload.data(), sent);
  shutdown(client, SHUT_WR);
}

std::string HttpServer::url(const std::string& path) const {
  return listener_.url(path);
}

int HttpServer::requestCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return total_;
}

int HttpServer::requestCount(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = counts_.find(path);
  return found == counts_.end() ? 0 : found->second;
}

const char* HttpServer::reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
  }
}

void HttpServer::run() {
  // sendfile() has no MSG_NOSIGNAL: a client killed in the middle of a
  // package would otherwise end the whole test process with SIGPIPE. Blocked
  // on this thread alone, the signal stays pending here and the call fails
  // with EPIPE.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (;;) {
    pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {listener_.fd(), POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents != 0) return;
    if ((fds[1].revents & POLLIN) == 0) continue;
    const int client = listener_.accept();
    if (client < 0) continue;
    answer(client);
    close(client);
  }
}

void HttpServer::answer(int client) {
  // Reads the request head; a client that says nothing for a while, or a
  // stop request, ends the exchange.
  std::string request;
  while (request.find("\r\n\r\n") == std::string::npos) {
    pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {client, POLLIN, 0}};
    int ready = poll(fds, 2, 10000);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || fds[0].revents != 0) return;
    char chunk[4096];
    ssize_t n = recv(client, chunk, sizeof(chunk), 0);
    if (n <= 0) return;
    request.append(chunk, static_cast<size_t>(n));
    if (request.size() > (1 << 20)) return;
  }
  std::string path;
  size_t space = request.find(' ');
  if (space != std::string::npos) {
    size_t end = request.find(' ', space + 1);
    if (end != std::string::npos) path = request.substr(space + 1, end - space - 1);
  }

  Route route;
  bool known;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++total_;
    ++counts_[path];
    lastRequests_[path] = request;
    auto found = routes_.find(path);
    known = found != routes_.end();
    if (known) route = found->second;
  }
  if (!known) {
    route.status = 404;
    route.body = "<html><body>Not Found</body></html>\n";
  }

  if (route.isResource) {
    answerResource(client, path, request, route);
    return;
  }

  if (route.endless) {
    std::string head = "HTTP/1.1 200 OK\r\n";
    if (route.announced) {
      head += "Content-Length: " + std::to_string(route.announced) + "\r\n";
    }
    head += "Connection: close\r\n\r\n";
    const std::string chunk(64 * 1024, 'e');
    bool open = sendAll(client, head.data(), head.size());
    while (open) {
      pollfd fds[1] = {{wakeRead_, POLLIN, 0}};
      if (poll(fds, 1, 0) > 0) break;
      open = sendAll(client, chunk.data(), chunk.size());
    }
    return;
  }

  int file = -1;
  size_t length = route.body.size();
  if (!route.filePath.empty()) {
    file = open(route.filePath.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info;
    if (file < 0 || fstat(file, &info) != 0) {
      if (file >= 0) close(file);
      file = -1;
      route.status = 404;
      route.body = "missing file\n";
      length = route.body.size();
    } else {
      length = static_cast<size_t>(info.st_size);
    }
  }

  std::string head = "HTTP/1.1 " + std::to_string(route.status) + " " +
                     reason(route.status) + "\r\n";
  for (const auto& header : route.headers) {
    head += header.first + ": " + header.second + "\r\n";
  }
  head += "Content-Length: " + std::to_string(length) + "\r\n";
  head += "Connection: close\r\n\r\n";
  if (!sendAll(client, head.data(), head.size())) {
    if (file >= 0) close(file);
    return;
  }

  if (file >= 0) {
    off_t offset = 0;
    while (static_cast<size_t>(offset) < length) {
      ssize_t n = sendfile(client, file, &offset, length - offset);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
    }
    close(file);
  } else {
    size_t sent = route.sentBytes < length ? route.sentBytes : length;
    sendAll(client, route.body.data(), sent);
  }
  if (route.stall) {
    // Holds the connection open, sending nothing, until the client closes
    // it or the server stops.
    pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {client, POLLIN, 0}};
    for (int waited = 0; waited < 120; ++waited) {
      if (poll(fds, 2, 1000) != 0) break;
    }
  }
  // The client reads until the server closes; a clean end of the sending
  // side makes sure it sees every byte sent.
  shutdown(client, SHUT_WR);
}

RefusingPort::RefusingPort() { socket_ = Listener::boundSocket(&port_); }

RefusingPort::~RefusingPort() { close(socket_); }

std::string RefusingPort::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}
