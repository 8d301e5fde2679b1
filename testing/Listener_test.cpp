// SPDX-License-Identifier: Apache-2.0
#include "testing/Listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(ListenerTest, SeesEveryConnectionAndWhatItSent) {
  Listener listener;
  EXPECT_EQ("127.0.0.1:" + std::to_string(listener.port()), listener.hostPort());
  EXPECT_EQ("http://" + listener.hostPort() + "/x", listener.url("/x"));
  EXPECT_FALSE(listener.waitForConnection(std::chrono::milliseconds(0)));
  const int fd = connectToLoopback(listener.port());
  ASSERT_GE(fd, 0);
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
  EXPECT_EQ(-1, connectToLoopback(port));
  close(fd);
}

}  // namespace
