// SPDX-License-Identifier: Apache-2.0
#include "host/RefusalLines.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

// The lines of the current second, and those left out so far. Refusals may
// be said on threads besides the main one, hence the lock; the count of a
// flood that has stopped is written from the main loop.
struct Lines {
  std::mutex lock;
  Clock::time_point windowStart;
  int inWindow = 0;
  unsigned long leftOut = 0;
  bool timerSet = false;
};

Lines& lines() {
  static Lines* shared = new Lines;  // lives as long as the process
  return *shared;
}

// A line in one write where it fits, so that no other writer's output
// lands in the middle of it.
void writeLine(const std::string& line) {
  const char* at = line.data();
  size_t left = line.size();
  while (left > 0) {
    const ssize_t wrote = write(STDERR_FILENO, at, left);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return;
    at += wrote;
    left -= static_cast<size_t>(wrote);
  }
}

// With the lock held.
void writeLeftOut(Lines& shared) {
  if (shared.leftOut == 0) return;
  writeLine("widget-browser: " + std::to_string(shared.leftOut) +
            " more refusals not shown\n");
  shared.leftOut = 0;
}

// A second after the last line: the flood, if any, has stopped.
gboolean onQuiet(gpointer) {
  Lines& shared = lines();
  std::lock_guard<std::mutex> hold(shared.lock);
  if (shared.leftOut > 0 &&
      Clock::now() - shared.windowStart < std::chrono::seconds(1))
    return G_SOURCE_CONTINUE;
  writeLeftOut(shared);
  shared.timerSet = false;
  return G_SOURCE_REMOVE;
}

}  // namespace

std::string RefusalLines::cut(const std::string& text) {
  size_t keep = text.size();
  if (keep > kAddressBytes) {
    keep = kAddressBytes;
    // Not in the middle of a UTF-8 sequence.
    while (keep > 0 && (static_cast<unsigned char>(text[keep]) & 0xC0) == 0x80)
      --keep;
  }
  std::string out = text.substr(0, keep);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  if (keep < text.size())
    out += "[... " + std::to_string(text.size() - keep) + " more bytes]";
  return out;
}

std::string RefusalLines::line(const std::string& what,
                               const std::string& address,
                               const std::string& why) {
  std::string text = "widget-browser: " + what + " " + cut(address);
  if (!why.empty()) text += ": " + cut(why);
  return text;
}

void RefusalLines::say(const std::string& what, const std::string& address,
                       const std::string& why) {
  write(line(what, address, why));
}

void RefusalLines::write(const std::string& text) {
  std::string out = text.substr(0, kLineBytes);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  out += "\n";
  Lines& shared = lines();
  std::lock_guard<std::mutex> hold(shared.lock);
  const Clock::time_point now = Clock::now();
  if (now - shared.windowStart >= std::chrono::seconds(1)) {
    writeLeftOut(shared);
    shared.windowStart = now;
    shared.inWindow = 0;
  }
  if (shared.inWindow < kPerSecond) {
    ++shared.inWindow;
    writeLine(out);
    return;
  }
  ++shared.leftOut;
  if (!shared.timerSet) {
    shared.timerSet = true;
    g_timeout_add_seconds(1, onQuiet, nullptr);
  }
}

void RefusalLines::flush() {
  Lines& shared = lines();
  std::lock_guard<std::mutex> hold(shared.lock);
  writeLeftOut(shared);
}
