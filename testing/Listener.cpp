// SPDX-License-Identifier: Apache-2.0
#include "testing/Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

Listener::Listener() : fd_(-1), port_(0) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd_ < 0 ||
      bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd_, 64) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    abort();
  }
  port_ = ntohs(address.sin_port);
}

Listener::~Listener() { close(fd_); }

std::string Listener::hostPort() const {
  return "127.0.0.1:" + std::to_string(port_);
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
