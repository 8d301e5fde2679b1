// SPDX-License-Identifier: Apache-2.0
#include "host/NetworkGate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <glib.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "host/RefusalLines.h"

namespace {

// A request head larger than this is refused; it bounds what one
// connection holds before anything is forwarded.
const size_t kMaxHead = 16 * 1024;
// Bytes relayed per direction at a time.
const size_t kRelayBuffer = 16 * 1024;
// A client that sends no complete head, or a server that does not accept
// the connection, within this time is dropped.
const int kHeadTimeoutMs = 30 * 1000;
const int kConnectTimeoutMs = 30 * 1000;
// A tunnel or a forwarded request through which nothing has passed in
// either direction for this long is closed.
const int kIdleTimeoutMs = 120 * 1000;
// How much of a refused address its line quotes.

// What the gate passes on, it passes on at once: small writes of a relay
// must not wait for the other side's acknowledgement.
void sendPromptly(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
  const size_t length = strlen(prefix);
  return text.size() >= length &&
         g_ascii_strncasecmp(text.c_str(), prefix, length) == 0;
}

// host[:port] or [v6]:port: the host as getaddrinfo takes it (brackets
// removed) and the port; false for anything else, user information
// included. Host names are held to the characters of DNS names so that
// nothing unexpected reaches the resolver.
bool parseAuthority(const std::string& authority, int defaultPort,
                    std::string* host, int* port) {
  std::string rest;
  if (!authority.empty() && authority[0] == '[') {
    const size_t close = authority.find(']');
    if (close == std::string::npos) return false;
    *host = authority.substr(1, close - 1);
    rest = authority.substr(close + 1);
    if (host->empty() || !g_hostname_is_ip_address(host->c_str()) ||
        host->find(':') == std::string::npos)
      return false;
  } else {
    const size_t colon = authority.find(':');
    *host = authority.substr(0, colon);
    rest = colon == std::string::npos ? "" : authority.substr(colon);
    if (host->empty()) return false;
    for (char c : *host)
      if (!g_ascii_isalnum(c) && c != '-' && c != '.' && c != '_') return false;
  }
  if (rest.empty()) {
    *port = defaultPort;
    return defaultPort > 0;
  }
  if (rest[0] != ':' || rest.size() < 2 || rest.size() > 6) return false;
  int value = 0;
  for (size_t i = 1; i < rest.size(); ++i) {
    if (!g_ascii_isdigit(rest[i])) return false;
    value = value * 10 + (rest[i] - '0');
  }
  if (value < 1 || value > 65535) return false;
  *port = value;
  return true;
}

std::string origin(const char* scheme, const std::string& host, int port) {
  const bool v6 = host.find(':') != std::string::npos;
  return std::string(scheme) + "://" + (v6 ? "[" + host + "]" : host) + ":" +
         std::to_string(port);
}

// The header's name of one head line, in lower case.
std::string headerName(const std::string& line) {
  std::string name = line.substr(0, line.find(':'));
  for (char& c : name) c = g_ascii_tolower(c);
  return name;
}

}  // namespace

NetworkGate::NetworkGate(AccessPolicy policy, Report report)
    : policy_(std::move(policy)), report_(std::move(report)) {}

NetworkGate::~NetworkGate() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  if (wake_[1] >= 0) {
    const char byte = 0;
    // The pipe is never read: once written, it wakes every wait for good.
    while (write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
    }
  }
  if (listener_ >= 0) shutdown(listener_, SHUT_RDWR);
  // No worker starts any more; each one sees the wake-up and ends.
  for (;;) {
    std::list<Worker> ending;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ending.swap(workers_);
    }
    if (ending.empty()) break;
    for (Worker& worker : ending) worker.thread.join();
  }
  if (listener_ >= 0) close(listener_);
  for (int fd : wake_)
    if (fd >= 0) close(fd);
}

bool NetworkGate::start() {
  if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  // Blocking: each connection wakes one waiting worker, not all of them.
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) return false;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) !=
          0 ||
      listen(listener_, 128) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) !=
          0)
    return false;
  port_ = ntohs(address.sin_port);
  std::lock_guard<std::mutex> lock(mutex_);
  addWorkerLocked();
  return !workers_.empty();
}

std::string NetworkGate::address() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void NetworkGate::refuse(const std::string& what, const std::string& why) {
  if (report_) report_(RefusalLines::line("refused", what, why));
}

bool NetworkGate::waitFor(int fd, short events, int ms) const {
  pollfd fds[2] = {{fd, events, 0}, {wake_[0], POLLIN, 0}};
  for (;;) {
    const int ready = poll(fds, 2, ms);
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && fds[1].revents == 0 && fds[0].revents != 0;
  }
}

bool NetworkGate::sendAll(int fd, const char* data, size_t size) const {
  while (size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
        waitFor(fd, POLLOUT, kIdleTimeoutMs))
      continue;
    return false;
  }
  return true;
}

// Resolves host (only ever a granted one) and connects to the first of its
// addresses that answers; -1 when none does.
int NetworkGate::connectTo(const std::string& host, int port) const {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) !=
      0)
    return -1;
  int connected = -1;
  for (addrinfo* a = found; a != nullptr && connected < 0; a = a->ai_next) {
    const int fd =
        socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
               a->ai_protocol);
    if (fd < 0) continue;
    int error = 0;
    socklen_t length = sizeof error;
    sendPromptly(fd);
    if (connect(fd, a->ai_addr, a->ai_addrlen) == 0 ||
        (errno == EINPROGRESS && waitFor(fd, POLLOUT, kConnectTimeoutMs) &&
         getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 &&
         error == 0))
      connected = fd;
    else
      close(fd);
  }
  freeaddrinfo(found);
  return connected;
}

// Passes bytes both ways until both sides have finished, either fails, the
// connection idles for too long or the gate stops. A side's end of data is
// passed on as a half close (it is read only once what came before it has
// gone on).
void NetworkGate::relay(int client, int upstream) const {
  struct Direction {
    int from;
    int to;
    std::vector<char> buffer;
    size_t length = 0;
    size_t offset = 0;
    bool ended = false;
  };
  Direction directions[2] = {
      {client, upstream, std::vector<char>(kRelayBuffer)},
      {upstream, client, std::vector<char>(kRelayBuffer)}};
  for (;;) {
    pollfd fds[3] = {{client, 0, 0}, {upstream, 0, 0}, {wake_[0], POLLIN, 0}};
    bool waiting = false;
    for (Direction& d : directions) {
      pollfd& from = fds[d.from == client ? 0 : 1];
      pollfd& to = fds[d.to == client ? 0 : 1];
      if (d.length > d.offset) {
        to.events |= POLLOUT;
        waiting = true;
      } else if (!d.ended) {
        from.events |= POLLIN;
        waiting = true;
      }
    }
    if (!waiting) return;
    const int ready = poll(fds, 3, kIdleTimeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || fds[2].revents != 0) return;
    for (Direction& d : directions) {
      const short toReady = fds[d.to == client ? 0 : 1].revents;
      const short fromReady = fds[d.from == client ? 0 : 1].revents;
      if (d.length > d.offset) {
        if ((toReady & (POLLOUT | POLLERR | POLLHUP)) == 0) continue;
        const ssize_t n = send(d.to, d.buffer.data() + d.offset,
                               d.length - d.offset, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n <= 0) return;
        d.offset += static_cast<size_t>(n);
        if (d.offset == d.length) d.offset = d.length = 0;
      } else if (!d.ended && (fromReady & (POLLIN | POLLERR | POLLHUP)) != 0) {
        const ssize_t n = recv(d.from, d.buffer.data(), d.buffer.size(), 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n < 0) return;
        if (n == 0) {
          d.ended = true;
          shutdown(d.to, SHUT_WR);
        } else {
          d.length = static_cast<size_t>(n);
        }
      }
    }
  }
}

void NetworkGate::answer(int client, const char* status) const {
  const std::string reply =
      std::string("HTTP/1.1 ") + status +
      "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  sendAll(client, reply.data(), reply.size());
}

int NetworkGate::openUpstream(int client, const std::string& head,
                              std::string* early) {
  const std::string line = head.substr(0, head.find("\r\n"));
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string::npos || first == last) {
    refuse("\"" + line + "\"", "not a request");
    answer(client, "400 Bad Request");
    return -1;
  }
  const std::string method = line.substr(0, first);
  const std::string target = line.substr(first + 1, last - first - 1);
  const std::string version = line.substr(last + 1);
  if (method == "CONNECT") return openTunnel(client, target, early);

  // WebKit asks for http:// addresses, and opens ws:// WebSockets, in
  // absolute form; anything else is not a request it makes through a
  // proxy. Both are plain HTTP on the wire, to the origin of their scheme.
  const char* scheme = startsWithNoCase(target, "http://") ? "http"
                       : startsWithNoCase(target, "ws://") ? "ws"
                                                           : nullptr;
  if (scheme == nullptr) {
    refuse(method + " " + target,
           "not an http:// or ws:// address or a tunnel");
    answer(client, "403 Forbidden");
    return -1;
  }
  const size_t start = strlen(scheme) + 3;
  const size_t authorityEnd = target.find_first_of("/?#", start);
  const std::string authority = target.substr(start, authorityEnd - start);
  std::string path =
      authorityEnd == std::string::npos ? "/" : target.substr(authorityEnd);
  path = path.substr(0, path.find('#'));
  if (path.empty() || path[0] != '/') path = "/" + path;
  std::string host;
  int port = 0;
  if (!parseAuthority(authority, 80, &host, &port)) {
    refuse(target, "a malformed address");
    answer(client, "403 Forbidden");
    return -1;
  }
  if (!policy_.allows(origin(scheme, host, port))) {
    refuse(target, AccessPolicy::kNotGranted);
    answer(client, "403 Forbidden");
    return -1;
  }
  const int upstream = connectTo(host, port);
  if (upstream < 0) {
    answer(client, "502 Bad Gateway");
    return -1;
  }

  // The request goes on in origin form, without what was meant for the
  // proxy. One request per connection: a reused client connection must not
  // carry requests for another origin into this one. A WebSocket handshake
  // keeps its Connection: Upgrade.
  std::string forwarded = method + " " + path + " " + version + "\r\n";
  bool upgrade = false;
  std::vector<std::string> lines;
  for (size_t at = head.find("\r\n") + 2; at < head.size();) {
    const size_t next = head.find("\r\n", at);
    lines.push_back(head.substr(at, next - at));
    if (headerName(lines.back()) == "upgrade") upgrade = true;
    at = next + 2;
  }
  for (const std::string& header : lines) {
    const std::string name = headerName(header);
    if (name == "proxy-connection" || name == "proxy-authorization" ||
        name == "keep-alive" || (name == "connection" && !upgrade))
      continue;
    forwarded += header + "\r\n";
  }
  if (!upgrade) forwarded += "Connection: close\r\n";
  forwarded += "\r\n";
  if (!sendAll(upstream, forwarded.data(), forwarded.size())) {
    close(upstream);
    return -1;
  }
  return upstream;
}

// A CONNECT tunnel. Which origin it reaches depends on what the client
// speaks through it: a TLS handshake (its first byte 0x16) is https or wss,
// anything else http or ws. So the tunnel is opened first and the origin
// checked on the client's first bytes, before anything goes out.
int NetworkGate::openTunnel(int client, const std::string& authority,
                            std::string* early) {
  std::string host;
  int port = 0;
  if (!parseAuthority(authority, -1, &host, &port)) {
    refuse("a tunnel to " + authority, "a malformed address");
    answer(client, "403 Forbidden");
    return -1;
  }
  const std::string plain = origin("http", host, port);
  const std::string secure = origin("https", host, port);
  if (!policy_.allows(plain) && !policy_.allows(secure)) {
    refuse("a tunnel to " + authority, AccessPolicy::kNotGranted);
    answer(client, "403 Forbidden");
    return -1;
  }
  static const char kEstablished[] =
      "HTTP/1.1 200 Connection established\r\n\r\n";
  if (!sendAll(client, kEstablished, sizeof kEstablished - 1)) return -1;
  std::vector<char> chunk(4096);
  while (early->empty()) {
    if (!waitFor(client, POLLIN, kHeadTimeoutMs)) return -1;
    const ssize_t n = recv(client, chunk.data(), chunk.size(), 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) return -1;
    early->assign(chunk.data(), static_cast<size_t>(n));
  }
  const bool tls = (*early)[0] == 0x16;
  if (!policy_.allows(tls ? secure : plain)) {
    refuse(tls ? secure + " (https or wss, through a tunnel)"
               : plain + " (http or ws, through a tunnel)",
           AccessPolicy::kNotGranted);
    return -1;
  }
  return connectTo(host, port);
}

bool NetworkGate::stopped() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stopping_;
}

void NetworkGate::addWorkerLocked() {
  for (auto w = workers_.begin(); w != workers_.end();) {
    if (w->finished) {
      w->thread.join();  // it has nothing left to do but return
      w = workers_.erase(w);
    } else {
      ++w;
    }
  }
  if (stopping_ || workers_.size() >= static_cast<size_t>(kMaxConnections))
    return;
  workers_.emplace_back();
  try {
    workers_.back().thread =
        std::thread(&NetworkGate::work, this, &workers_.back());
    ++idle_;
  } catch (const std::system_error&) {
    // No thread to be had: the workers there are go on serving.
    workers_.pop_back();
  }
}

void NetworkGate::work(Worker* self) {
  for (;;) {
    const int client =
        accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) {
      // Stopping shuts the listening socket down, which ends every accept.
      if (errno == EINVAL || stopped()) break;
      // Out of descriptors or memory for a moment: wait, do not spin.
      if (errno != EINTR && errno != ECONNABORTED) waitFor(-1, 0, 100);
      continue;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (--idle_ == 0) addWorkerLocked();
    }
    sendPromptly(client);
    serve(client);
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_ >= kSpareWorkers) {
      self->finished = true;
      return;
    }
    ++idle_;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  --idle_;
  self->finished = true;
}

// One client connection: one request head, then either a forwarded request
// or a tunnel, each to a granted origin only.
void NetworkGate::serve(int client) {
  std::string head;
  std::string early;  // what came after the head
  std::vector<char> chunk(4096);
  size_t end = std::string::npos;
  while (end == std::string::npos && head.size() < kMaxHead) {
    if (!waitFor(client, POLLIN, kHeadTimeoutMs)) break;
    const ssize_t n = recv(client, chunk.data(), chunk.size(), 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) break;
    head.append(chunk.data(), static_cast<size_t>(n));
    end = head.find("\r\n\r\n");
  }
  int upstream = -1;
  if (end != std::string::npos) {
    early = head.substr(end + 4);
    head.resize(end + 2);  // each line ends with CRLF
    upstream = openUpstream(client, head, &early);
  } else if (head.size() >= kMaxHead) {
    refuse("a request of more than " + std::to_string(kMaxHead / 1024) +
               " KiB of head",
           "too large");
    answer(client, "431 Request Header Fields Too Large");
    // What the client still sends is read and dropped, for a moment, so
    // that closing does not reset the connection before it reads the answer.
    shutdown(client, SHUT_WR);
    for (size_t dropped = 0; dropped < 4 * kMaxHead;) {
      if (!waitFor(client, POLLIN, 1000)) break;
      const ssize_t n = recv(client, chunk.data(), chunk.size(), 0);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n <= 0) break;
      dropped += static_cast<size_t>(n);
    }
  }
  if (upstream >= 0) {
    if (early.empty() || sendAll(upstream, early.data(), early.size()))
      relay(client, upstream);
    close(upstream);
  }
  close(client);
}
