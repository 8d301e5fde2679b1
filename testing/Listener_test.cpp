// SPDX-License-Identifier: Apache-2.0
#include "testing/Listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int connectTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  return fd;
}

TEST(ListenerTest, SeesEveryConnectionAndWhatItSent) {
  Listener listener;
  EXPECT_EQ("127.0.0.1:" + std::to_string(listener.port()), listener.hostPort());
  EXPECT_EQ("http://" + listener.hostPort() + "/x", listener.url("/x"));
  EXPECT_FALSE(listener.waitForConnection(std::chrono::milliseconds(0)));
  const int fd = connectTo(listener.port());
  ASSERT_EQ(5, write(fd, "hello", 5));
  close(fd);
  EXPECT_TRUE(listener.waitForConnection(std::chrono::seconds(20)));
  std::string bytes;
  EXPECT_EQ(1, listener.connections(&bytes));
  EXPECT_EQ("hello", bytes);
  EXPECT_EQ(0, listener.connections());
  EXPECT_EQ(-1, listener.accept());
}

TEST(ListenerTest, ABoundSocketRefusesConnections) {
  int port = 0;
  const int fd = Listener::boundSocket(&port);
  ASSERT_GE(fd, 0);
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_NE(0, connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address));
  close(client);
  close(fd);
}

}  // namespace
