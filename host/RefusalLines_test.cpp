// SPDX-License-Identifier: Apache-2.0
// The refusal lines, as written to a real standard error.
#include "host/RefusalLines.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "testing/CaptureStdout.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(RefusalLinesTest, ShortTextStaysAsItIs) {
  EXPECT_EQ("widget://clock/a.html", RefusalLines::cut("widget://clock/a.html"));
  EXPECT_EQ(std::string(300, 'a'), RefusalLines::cut(std::string(300, 'a')));
}

TEST(RefusalLinesTest, LongTextIsCutWithAMarker) {
  const std::string address = "http://127.0.0.1/" + std::string(1 << 20, 'a');
  const std::string cut = RefusalLines::cut(address);
  EXPECT_EQ(address.substr(0, 300), cut.substr(0, 300));
  EXPECT_EQ("[... " + std::to_string(address.size() - 300) + " more bytes]",
            cut.substr(300));
}

TEST(RefusalLinesTest, CutsOnACharacterBoundary) {
  // 299 bytes, then a two-byte character across the limit.
  const std::string text = std::string(299, 'a') + "\xc3\xa9" + "tail";
  EXPECT_EQ(std::string(299, 'a') + "[... 6 more bytes]", RefusalLines::cut(text));
}

TEST(RefusalLinesTest, ALineStaysOneLine) {
  EXPECT_EQ("a?b?c?d", RefusalLines::cut(std::string("a\nb\rc\0d", 7)));
}

// A flood writes at most the lines of each second, then says how many it
// left out; every line is cut, so the whole stays small.
TEST(RefusalLinesTest, AFloodIsCountedNotWritten) {
  const std::string address = "http://127.0.0.1/" + std::string(1 << 20, 'a');
  const auto start = std::chrono::steady_clock::now();
  CaptureStdout capture(2);
  for (int i = 0; i < 100; ++i)
    RefusalLines::say("refused", address, "an origin the widget was not granted");
  RefusalLines::flush();
  const std::string text = capture.text();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::steady_clock::now() - start)
                           .count();
  const std::vector<std::string> lines = linesOf(text);
  ASSERT_FALSE(lines.empty());
  // Each second that the loop spanned may have its own lines.
  const size_t allowed = RefusalLines::kPerSecond * (seconds + 2);
  size_t shown = 0;
  unsigned long leftOut = 0;
  for (const std::string& line : lines) {
    unsigned long count = 0;
    if (sscanf(line.c_str(), "widget-browser: %lu more refusals not shown",
               &count) == 1) {
      leftOut += count;
      continue;
    }
    ++shown;
    EXPECT_EQ(0u, line.find("widget-browser: refused http://127.0.0.1/aaa"))
        << line;
    EXPECT_LT(line.size(), 400u);
  }
  EXPECT_LE(shown, allowed);
  EXPECT_EQ(100u, shown + leftOut) << text.substr(0, 2000);
  EXPECT_LT(text.size(), 100u * 1024);
}

}  // namespace
