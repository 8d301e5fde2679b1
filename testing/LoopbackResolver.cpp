// SPDX-License-Identifier: Apache-2.0
#include "testing/LoopbackResolver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testing/TempDir.h"

namespace {

const char kAddress[] = "127.53.0.1";

// The question name of a DNS query, as dotted text; "" when malformed.
std::string questionName(const unsigned char* data, size_t size) {
  std::string name;
  size_t at = 12;  // after the header
  while (at < size) {
    const size_t length = data[at++];
    if (length == 0) return name;
    if (length > 63 || at + length > size) return std::string();
    if (!name.empty()) name += '.';
    name.append(reinterpret_cast<const char*>(data + at), length);
    at += length;
  }
  return std::string();
}

}  // namespace

LoopbackResolver::LoopbackResolver(const std::string& confPath)
    : conf_(confPath) {
  // One try with a short wait: nothing ever answers.
  TempDir::writeFile(conf_, std::string("nameserver ") + kAddress +
                                "\noptions timeout:1 attempts:1\n");
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  inet_pton(AF_INET, kAddress, &address.sin_addr);
  if (fd_ >= 0 &&
      bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

LoopbackResolver::~LoopbackResolver() {
  if (fd_ >= 0) close(fd_);
}

std::vector<std::string> LoopbackResolver::names() {
  std::vector<std::string> found;
  unsigned char buffer[1500];
  for (;;) {
    const ssize_t n = fd_ < 0 ? -1 : recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0) break;
    found.push_back(questionName(buffer, static_cast<size_t>(n)));
  }
  return found;
}

std::vector<std::string> LoopbackResolver::wrapper() const {
  return {"/usr/bin/unshare",
          "--mount",
          "/bin/sh",
          "-c",
          "mount --bind \"$0\" /etc/resolv.conf && exec \"$@\"",
          conf_};
}

bool LoopbackResolver::enter() const {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(conf_.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) ==
             0;
}
