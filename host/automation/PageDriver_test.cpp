// SPDX-License-Identifier: Apache-2.0
// The hooks the benchmarks drive the browser with, in the real browser:
// timed repeats and the first-frame timing print one line per figure, in
// order, and the page is still the one the run opened.
#include <string>

#include "host/WidgetBrowserTest.h"

namespace {

size_t countLines(const std::string& out, const std::string& prefix) {
  size_t count = 0;
  for (size_t at = out.find(prefix); at != std::string::npos;
       at = out.find(prefix, at + 1))
    if (at == 0 || out[at - 1] == '\n') ++count;
  return count;
}

TEST_F(WidgetBrowserTest, RepeatsPrintOneFigurePerLoadAfterTheFirst) {
  install("fr");
  Browse run = browse({"--lang", "fr", "--exit-after-load", launchURL()},
                      {{"WIDGET_BROWSER_REPEAT", "3"}});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ(3u, countLines(run.out, "load-ms: ")) << run.out;
  EXPECT_LT(run.out.rfind("load-ms: "), run.out.find("widget-browser-facts: "))
      << run.out;
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(run));
}

TEST_F(WidgetBrowserTest, TimingPrintsTheInstallThenTheFirstFrameOnce) {
  Browse run = browse({"--lang", "fr", "--exit-after-load",
                       "file://" + samplePackage()},
                      {{"WIDGET_BROWSER_TIMING", "1"}});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ(1u, countLines(run.out, "receive-ms: ")) << run.out;
  EXPECT_EQ(1u, countLines(run.out, "first-frame-ms: ")) << run.out;
  EXPECT_LT(run.out.find("receive-ms: "), run.out.find("first-frame-ms: "))
      << run.out;
  EXPECT_LT(run.out.find("first-frame-ms: "),
            run.out.find("widget-browser-facts: "))
      << run.out;
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(run));
}

}  // namespace
