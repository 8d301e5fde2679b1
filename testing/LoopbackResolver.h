// SPDX-License-Identifier: Apache-2.0
// LoopbackResolver is a name server on 127.53.0.1 port 53 that answers
// nothing and writes down every name it is asked about. A program run with
// the resolver configuration it writes (bind-mounted over /etc/resolv.conf
// in a mount namespace of its own, see wrapper()) sends every DNS query
// there, so a test can tell which names a program tried to resolve.
#ifndef WIDGETENGINE_TESTING_LOOPBACKRESOLVER_H_
#define WIDGETENGINE_TESTING_LOOPBACKRESOLVER_H_

#include <string>
#include <vector>

class LoopbackResolver {
 public:
  // The configuration file is written to confPath.
  explicit LoopbackResolver(const std::string& confPath);
  ~LoopbackResolver();

  LoopbackResolver(const LoopbackResolver&) = delete;
  LoopbackResolver& operator=(const LoopbackResolver&) = delete;

  // False when the address could not be taken (then nothing is counted).
  bool ready() const { return fd_ >= 0; }
  // The names asked about since the last call, in the order they came.
  std::vector<std::string> names();

  // A command prefix that runs the rest of a command line with the
  // resolver's configuration as /etc/resolv.conf (needs root).
  std::vector<std::string> wrapper() const;
  // Puts the calling process into a mount namespace of its own with that
  // configuration; false when it cannot (call it in a child process).
  bool enter() const;

 private:
  std::string conf_;
  int fd_ = -1;
};

#endif  // WIDGETENGINE_TESTING_LOOPBACKRESOLVER_H_
