// SPDX-License-Identifier: Apache-2.0
#include "base/EngineOutput.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testing/CaptureStdout.h"

namespace {

typedef std::vector<std::pair<int, std::string>> Lines;

void collect(int level, const char* line, void* lines) {
  static_cast<Lines*>(lines)->emplace_back(level, line);
}

// What the engine writes in one job, pieces without a line end included.
void writeMixedPieces() {
  engineOut() << "[Downloading...]" << std::endl << std::endl;
  enginePrintf(WIDGETENGINE_LOG_VERBOSE, "[%s:%s] filename: %s\n", "V",
               "Extractor", "/w/a.html");
  enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] Can't open database: ", "E",
               "SqlLite3");
  enginePrintf(WIDGETENGINE_LOG_ERROR, "[%s:%s] sqlite3 error message : %s\n",
               "E", "SqlLite3", "locked");
  engineOut() << "View modes: ";
  engineOut() << "floating" << " ";
  engineOut() << std::endl;
  engineError() << "Error while extracting" << std::endl;
}

const char kMixedBytes[] =
    "[Downloading...]\n\n"
    "[V:Extractor] filename: /w/a.html\n"
    "[E:SqlLite3] Can't open database: [E:SqlLite3] sqlite3 error message : locked\n"
    "View modes: floating \n"
    "Error while extracting\n";

class EngineOutputTest : public ::testing::Test {
 protected:
  void TearDown() override {
    widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_DEFAULT);
  }
};

TEST_F(EngineOutputTest, StandardOutputByDefaultByteForByte) {
  CaptureStdout out;
  writeMixedPieces();
  EXPECT_EQ(kMixedBytes, out.text());
}

TEST_F(EngineOutputTest, StandardErrorTakesTheSameBytes) {
  ASSERT_EQ(0, widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_STDERR));
  CaptureStdout out(1);
  CaptureStdout err(2);
  writeMixedPieces();
  errno = ENOENT;
  enginePerror("Error opendir()");
  EXPECT_EQ(std::string(kMixedBytes) + "Error opendir(): No such file or directory\n",
            err.text());
  EXPECT_EQ("", out.text());
}

TEST_F(EngineOutputTest, ASinkGetsWholeLinesWithTheirLevels) {
  Lines lines;
  widgetengine_set_log_sink(collect, &lines);
  CaptureStdout out(1);
  CaptureStdout err(2);
  writeMixedPieces();
  errno = EACCES;
  enginePerror("Error opendir()");
  EXPECT_EQ(EACCES, errno);
  widgetengine_set_log_sink(nullptr, nullptr);
  EXPECT_EQ("", out.text());
  EXPECT_EQ("", err.text());

  const Lines expected = {
      {WIDGETENGINE_LOG_INFO, "[Downloading...]"},
      {WIDGETENGINE_LOG_INFO, ""},
      {WIDGETENGINE_LOG_VERBOSE, "[V:Extractor] filename: /w/a.html"},
      {WIDGETENGINE_LOG_ERROR,
       "[E:SqlLite3] Can't open database: [E:SqlLite3] sqlite3 error message : locked"},
      {WIDGETENGINE_LOG_INFO, "View modes: floating "},
      {WIDGETENGINE_LOG_ERROR, "Error while extracting"},
      {WIDGETENGINE_LOG_ERROR, "Error opendir(): Permission denied"},
  };
  EXPECT_EQ(expected, lines);
}

TEST_F(EngineOutputTest, TheWriterGivesEachLineItsLevel) {
  Lines lines;
  widgetengine_set_log_sink(collect, &lines);
  // The words of a line play no part.
  engineOut() << "Error in name only" << std::endl;
  engineError() << "Parsing name..." << std::endl;
  engineTrace() << "[E:Module] a trace" << std::endl;
  // A line keeps the level of the piece that began it; the rest of a piece
  // after its line end begins the next line at the piece's level.
  engineError() << "Cannot ";
  engineOut() << "go on" << std::endl << "then this";
  engineTrace() << " and that" << std::endl;
  enginePrintf(WIDGETENGINE_LOG_VERBOSE, "%s\n%s", "traced", "begun ");
  engineError() << "ended" << std::endl;
  widgetengine_set_log_sink(nullptr, nullptr);
  const Lines expected = {
      {WIDGETENGINE_LOG_INFO, "Error in name only"},
      {WIDGETENGINE_LOG_ERROR, "Parsing name..."},
      {WIDGETENGINE_LOG_VERBOSE, "[E:Module] a trace"},
      {WIDGETENGINE_LOG_ERROR, "Cannot go on"},
      {WIDGETENGINE_LOG_INFO, "then this and that"},
      {WIDGETENGINE_LOG_VERBOSE, "traced"},
      {WIDGETENGINE_LOG_VERBOSE, "begun ended"},
  };
  EXPECT_EQ(expected, lines);
}

TEST_F(EngineOutputTest, ALineLeftOpenGoesWhereItBeganWhenTheSinkChanges) {
  Lines first;
  Lines second;
  widgetengine_set_log_sink(collect, &first);
  enginePrintf(WIDGETENGINE_LOG_ERROR,
               "[%s:%s] Error while checking database structure", "E",
               "SqlLite3");
  widgetengine_set_log_sink(collect, &second);
  engineOut() << "Nothing to clean" << std::endl;
  widgetengine_set_log_sink(nullptr, nullptr);
  EXPECT_EQ(Lines({{WIDGETENGINE_LOG_ERROR,
                    "[E:SqlLite3] Error while checking database structure"}}),
            first);
  EXPECT_EQ(Lines({{WIDGETENGINE_LOG_INFO, "Nothing to clean"}}), second);
}

TEST_F(EngineOutputTest, EachThreadAssemblesItsOwnLines) {
  Lines lines;
  widgetengine_set_log_sink(collect, &lines);
  engineOut() << "first half ";
  std::thread([] { engineOut() << "other thread" << std::endl; }).join();
  engineOut() << "second half" << std::endl;
  widgetengine_set_log_sink(nullptr, nullptr);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("other thread", lines[0].second);
  EXPECT_EQ("first half second half", lines[1].second);
}

TEST_F(EngineOutputTest, LongPrintfLinesArriveWhole) {
  Lines lines;
  widgetengine_set_log_sink(collect, &lines);
  const std::string path(5000, 'p');
  enginePrintf(WIDGETENGINE_LOG_VERBOSE, "[%s:%s] filename: %s\n", "V",
               "Extractor", path.c_str());
  widgetengine_set_log_sink(nullptr, nullptr);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("[V:Extractor] filename: " + path, lines[0].second);
}

TEST_F(EngineOutputTest, QuietWritesNothingAnywhere) {
  ASSERT_EQ(0, widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_QUIET));
  CaptureStdout out(1);
  CaptureStdout err(2);
  writeMixedPieces();
  enginePerror("Error opendir()");
  EXPECT_EQ("", out.text());
  EXPECT_EQ("", err.text());
}

TEST_F(EngineOutputTest, ARemovedSinkHandsBackToTheDestination) {
  ASSERT_EQ(0, widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_STDERR));
  Lines lines;
  widgetengine_set_log_sink(collect, &lines);
  widgetengine_set_log_sink(nullptr, nullptr);
  CaptureStdout err(2);
  engineOut() << "Nothing to clean" << std::endl;
  EXPECT_EQ("Nothing to clean\n", err.text());
  EXPECT_TRUE(lines.empty());
}

}  // namespace
