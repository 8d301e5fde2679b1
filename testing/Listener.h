// SPDX-License-Identifier: Apache-2.0
// Listener is a TCP socket listening on 127.0.0.1, the one every test server
// listens with. Alone it answers nothing: tests point addresses of other
// protocols at it and then ask whether anyone connected. The kernel
// completes a connection into the backlog without any accept(), so a
// connection made at any time is still seen afterwards.
#ifndef WIDGETENGINE_TESTING_LISTENER_H_
#define WIDGETENGINE_TESTING_LISTENER_H_

#include <chrono>
#include <string>

class Listener {
 public:
  Listener();
  ~Listener();

  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int port() const { return port_; }
  // "127.0.0.1:<port>".
  std::string hostPort() const;
  // "http://127.0.0.1:<port>" + path.
  std::string url(const std::string& path) const;

  // Accepts whatever connected since the last call; the number of
  // connections and, in *bytes, what they had sent.
  int connections(std::string* bytes = nullptr);
  // Waits until a connection is waiting to be accepted; false when none
  // came by the deadline.
  bool waitForConnection(std::chrono::milliseconds deadline);

  // For a server of its own: the socket to poll, and one waiting connection,
  // blocking and closed on exec (-1 when none is waiting).
  int fd() const { return fd_; }
  int accept();

  // A socket bound to a free port of 127.0.0.1 that does not listen: a
  // connection to it is refused, and no one else gets the port.
  static int boundSocket(int* port);

 private:
  int fd_;
  int port_;
};

// A client's connection to port on 127.0.0.1, blocking and closed on exec;
// -1 when it is refused.
int connectToLoopback(int port);

#endif  // WIDGETENGINE_TESTING_LISTENER_H_
