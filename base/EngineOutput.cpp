// SPDX-License-Identifier: Apache-2.0
#include "base/EngineOutput.h"

#include <syslog.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>

#include "base/Settings.h"

// Standard output and standard error are written as they always were: the
// streams themselves, so that printf and std::cout keep their order and a
// line without a line end stays as it was. Every other destination needs
// whole lines, which a per-thread buffer assembles from the pieces the
// engine writes; a piece without a line end waits there for the rest.

namespace {

// What the engine does with a line; kUnread until WIDGETENGINE_LOG is read.
enum Route { kUnread = -1, kStdout = 0, kStderr, kSyslog, kQuiet, kSink };

std::atomic<int> route{kUnread};
// The destination chosen last (by the environment or the host), to which a
// removed sink hands back.
std::atomic<int> destination{kUnread};
// What WIDGETENGINE_LOG chose.
std::atomic<int> environmentChoice{kStdout};
std::once_flag environmentRead;

std::mutex sinkMutex;
widgetengine_log_sink sinkFunction = nullptr;
void* sinkData = nullptr;

// Read once a process (see currentRoute()), so an unknown value is named
// once.
int routeFromEnvironment() {
  switch (settings::logDestination()) {
    case settings::kLogToStderr: return kStderr;
    case settings::kLogToSyslog: return kSyslog;
    case settings::kLogQuiet: return kQuiet;
    default: return kStdout;
  }
}

int currentRoute() {
  const int chosen = route.load(std::memory_order_acquire);
  if (chosen != kUnread) return chosen;
  // The host's settings read the environment first too, so that what they
  // choose is never overwritten by it.
  std::call_once(environmentRead, [] {
    const int fromEnvironment = routeFromEnvironment();
    environmentChoice.store(fromEnvironment, std::memory_order_release);
    destination.store(fromEnvironment, std::memory_order_release);
    route.store(fromEnvironment, std::memory_order_release);
  });
  return route.load(std::memory_order_acquire);
}

void deliver(int level, const std::string& line) {
  switch (route.load(std::memory_order_acquire)) {
    case kStderr:
      fprintf(stderr, "%s\n", line.c_str());
      return;
    case kSyslog:
      // Blank lines only space out the terminal's view of a job.
      if (line.empty()) return;
      // The facility and the tag are the host's (openlog), "user" and the
      // program's name unless it chose others.
      syslog(level == WIDGETENGINE_LOG_ERROR     ? LOG_ERR
             : level == WIDGETENGINE_LOG_VERBOSE ? LOG_DEBUG
                                                 : LOG_INFO,
             "%s", line.c_str());
      return;
    case kSink: {
      // Called without the lock, so that a sink may itself use the engine.
      widgetengine_log_sink sink;
      void* data;
      {
        std::lock_guard<std::mutex> hold(sinkMutex);
        sink = sinkFunction;
        data = sinkData;
      }
      if (sink != nullptr) sink(level, line.c_str(), data);
      return;
    }
    default:
      return;
  }
}

// Collects the pieces written through engineLines() and enginePrintf() on
// one thread and hands each whole line on, with the level of the piece that
// began it.
class LineBuffer : public std::streambuf {
 public:
  // The level of the pieces that follow.
  void setLevel(int level) { level_ = level; }

  void append(const char* data, size_t size) {
    const char* end = data + size;
    while (data < end) {
      if (pending_.empty()) lineLevel_ = level_;
      const char* newline =
          static_cast<const char*>(memchr(data, '\n', end - data));
      if (newline == nullptr) {
        pending_.append(data, end - data);
        return;
      }
      pending_.append(data, newline - data);
      const std::string line = std::move(pending_);
      pending_.clear();
      deliver(lineLevel_, line);
      data = newline + 1;
    }
  }

  // Hands on what waits for its line end as a line of its own.
  void finishLine() {
    if (pending_.empty()) return;
    const std::string line = std::move(pending_);
    pending_.clear();
    deliver(lineLevel_, line);
  }

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) {
      const char ch = traits_type::to_char_type(c);
      append(&ch, 1);
    }
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* data, std::streamsize size) override {
    append(data, static_cast<size_t>(size));
    return size;
  }

 private:
  std::string pending_;
  int level_ = WIDGETENGINE_LOG_INFO;
  int lineLevel_ = WIDGETENGINE_LOG_INFO;
};

struct LineStream {
  LineBuffer buffer;
  std::ostream stream{&buffer};
};

LineStream& lineStream() {
  thread_local LineStream lines;
  return lines;
}

// Before the destination changes, the calling thread's unfinished line goes
// where the rest of it went.
void finishCallingThreadsLine() {
  const int now = route.load(std::memory_order_acquire);
  if (now != kStdout && now != kStderr) lineStream().buffer.finishLine();
}

}  // namespace

std::ostream& engineLines(int level) {
  switch (currentRoute()) {
    case kStdout:
      return std::cout;
    case kStderr:
      return std::cerr;
    default: {
      LineStream& lines = lineStream();
      lines.buffer.setLevel(level);
      return lines.stream;
    }
  }
}

int enginePrintf(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int written;
  switch (currentRoute()) {
    case kStdout:
      written = std::vprintf(format, args);
      break;
    case kStderr:
      written = std::vfprintf(stderr, format, args);
      break;
    default: {
      lineStream().buffer.setLevel(level);
      char small[512];
      va_list again;
      va_copy(again, args);
      written = std::vsnprintf(small, sizeof small, format, args);
      if (written >= static_cast<int>(sizeof small)) {
        std::string large(static_cast<size_t>(written) + 1, '\0');
        std::vsnprintf(&large[0], large.size(), format, again);
        lineStream().buffer.append(large.data(), static_cast<size_t>(written));
      } else if (written > 0) {
        lineStream().buffer.append(small, static_cast<size_t>(written));
      }
      va_end(again);
      break;
    }
  }
  va_end(args);
  return written;
}

void enginePerror(const char* prefix) {
  const int now = currentRoute();
  if (now == kStdout || now == kStderr) {
    std::perror(prefix);
    return;
  }
  const int error = errno;
  std::string line;
  if (prefix != nullptr && *prefix != '\0') line = std::string(prefix) + ": ";
  line += strerror(error);
  deliver(WIDGETENGINE_LOG_ERROR, line);
  errno = error;
}

extern "C" int widgetengine_set_log_destination(int chosen) {
  currentRoute();
  int next;
  switch (chosen) {
    case WIDGETENGINE_LOG_TO_DEFAULT: next = environmentChoice.load(); break;
    case WIDGETENGINE_LOG_TO_STDOUT: next = kStdout; break;
    case WIDGETENGINE_LOG_TO_STDERR: next = kStderr; break;
    case WIDGETENGINE_LOG_TO_SYSLOG: next = kSyslog; break;
    case WIDGETENGINE_LOG_TO_QUIET: next = kQuiet; break;
    default: return -1;
  }
  finishCallingThreadsLine();
  std::lock_guard<std::mutex> hold(sinkMutex);
  sinkFunction = nullptr;
  sinkData = nullptr;
  destination.store(next, std::memory_order_release);
  route.store(next, std::memory_order_release);
  return 0;
}

extern "C" void widgetengine_set_log_sink(widgetengine_log_sink sink,
                                          void* userData) {
  currentRoute();
  finishCallingThreadsLine();
  std::lock_guard<std::mutex> hold(sinkMutex);
  sinkFunction = sink;
  sinkData = userData;
  route.store(sink != nullptr ? kSink : destination.load(),
              std::memory_order_release);
}
