// SPDX-License-Identifier: Apache-2.0
// NetworkGate is the one way out to the network for a widget's window: a
// small HTTP proxy on 127.0.0.1 that WebKit is told to use for everything,
// which forwards only what the widget's AccessPolicy grants, by exact
// scheme, host and port, and resolves a host name only once it is granted.
// It serves its connections on threads of its own and stops with its owner.
#ifndef WIDGETENGINE_HOST_NETWORKGATE_H_
#define WIDGETENGINE_HOST_NETWORKGATE_H_

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "host/AccessPolicy.h"

class NetworkGate {
 public:
  // Receives each refusal as one line, without its newline. Called from the
  // gate's threads, one line at a time.
  using Report = std::function<void(const std::string& line)>;

  // At most this many connections are served at once, each by a thread of
  // its own; more wait in the listening queue until one ends.
  static const int kMaxConnections = 64;
  // Threads kept waiting for the next connection beyond those serving one.
  static const int kSpareWorkers = 4;

  NetworkGate(AccessPolicy policy, Report report);
  // Closes every connection and waits for their threads.
  ~NetworkGate();

  NetworkGate(const NetworkGate&) = delete;
  NetworkGate& operator=(const NetworkGate&) = delete;

  // Listens on 127.0.0.1, on a port the kernel chooses; false (errno set)
  // when it cannot.
  bool start();
  int port() const { return port_; }
  // "http://127.0.0.1:<port>", the proxy address to give WebKit.
  std::string address() const;

 private:
  struct Worker {
    std::thread thread;
    bool finished = false;
  };

  // Each worker takes connections from the listening socket itself and
  // serves them one at a time, so that a request waits for no other thread.
  void work(Worker* self);
  // With mutex_ held: joins the workers that have ended and starts one
  // more, unless the gate stops or is at its bound.
  void addWorkerLocked();
  bool stopped();
  void serve(int client);
  // The upstream socket for the request whose head (request line and
  // header lines, each with its CRLF) the client sent, with early holding
  // what came after it; -1 once the client has been answered otherwise.
  int openUpstream(int client, const std::string& head, std::string* early);
  int openTunnel(int client, const std::string& authority, std::string* early);
  void answer(int client, const char* status) const;
  void refuse(const std::string& what, const std::string& why);
  // Waits until fd is ready for events, for at most ms milliseconds; false
  // on a timeout, an error, or once the gate stops.
  bool waitFor(int fd, short events, int ms) const;
  bool sendAll(int fd, const char* data, size_t size) const;
  int connectTo(const std::string& host, int port) const;
  void relay(int client, int upstream) const;

  AccessPolicy policy_;
  Report report_;
  int listener_ = -1;
  // Written once when the gate stops; every wait of every thread watches it.
  int wake_[2] = {-1, -1};
  int port_ = 0;

  std::mutex mutex_;
  bool stopping_ = false;
  int idle_ = 0;  // workers waiting for a connection
  std::list<Worker> workers_;
};

#endif  // WIDGETENGINE_HOST_NETWORKGATE_H_
