// SPDX-License-Identifier: Apache-2.0
#include "testing/Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

int Listener::boundSocket(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 ||
      bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    perror("a socket on 127.0.0.1");
    abort();
  }
  *port = ntohs(address.sin_port);
  return fd;
}

Listener::Listener() : fd_(boundSocket(&port_)) {
  // Never blocks in accept(): a connection given up between poll() and
  // accept() would stop a server's thread otherwise.
  if (fcntl(fd_, F_SETFL, O_NONBLOCK) != 0 || listen(fd_, 64) != 0) {
    perror("listen");
    abort();
  }
}

Listener::~Listener() { close(fd_); }

std::string Listener::hostPort() const {
  return "127.0.0.1:" + std::to_string(port_);
}

std::string Listener::url(const std::string& path) const {
  return "http://" + hostPort() + path;
}

int Listener::accept() {
  int client;
  while ((client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) < 0 && errno == EINTR) {
  }
  return client;
}

int Listener::connections(std::string* bytes) {
  int count = 0;
  for (;;) {
    const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) break;
    ++count;
    char buffer[4096];
    ssize_t n;
    while ((n = read(client, buffer, sizeof buffer)) > 0) {
      if (bytes) bytes->append(buffer, static_cast<size_t>(n));
    }
    close(client);
  }
  return count;
}

bool Listener::waitForConnection(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd ready = {fd_, POLLIN, 0};
    const int n = poll(&ready, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (n > 0) return true;
    if (n == 0 || errno != EINTR) return false;
  }
}

int connectToLoopback(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}
