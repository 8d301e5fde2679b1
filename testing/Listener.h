// SPDX-License-Identifier: Apache-2.0
// Listener is a bare TCP socket listening on 127.0.0.1 that answers nothing:
// tests point addresses of other protocols at it and then ask whether anyone
// connected. The kernel completes a connection into the backlog without any
// accept(), so a connection made at any time is still seen afterwards.
#ifndef WIDGETENGINE_TESTING_LISTENER_H_
#define WIDGETENGINE_TESTING_LISTENER_H_

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
  // Accepts whatever connected since the last call; the number of
  // connections and, in *bytes, what they had sent.
  int connections(std::string* bytes = nullptr);

 private:
  int fd_;
  int port_;
};

#endif  // WIDGETENGINE_TESTING_LISTENER_H_
