// SPDX-License-Identifier: Apache-2.0
#include "base/Environment.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"

namespace {

constexpr const char* kName = "WIDGETENGINE_ENVIRONMENT_TEST";
constexpr uint64_t kMiB = 1024 * 1024;

TEST(EnvironmentTest, PathKeepsAnEmptyValueAndTellsUnsetApart) {
  {
    ScopedEnv unset(kName);
    EXPECT_FALSE(environment::path(kName).has_value());
  }
  {
    ScopedEnv empty(kName, "");
    ASSERT_TRUE(environment::path(kName).has_value());
    EXPECT_EQ("", *environment::path(kName));
  }
  ScopedEnv set(kName, "relative/dir");
  EXPECT_EQ("relative/dir", environment::path(kName).value_or("unset"));
}

TEST(EnvironmentTest, TextFallsBackWhenUnsetOrEmpty) {
  {
    ScopedEnv unset(kName);
    EXPECT_EQ("fallback", environment::text(kName, "fallback"));
  }
  {
    ScopedEnv empty(kName, "");
    EXPECT_EQ("fallback", environment::text(kName, "fallback"));
  }
  ScopedEnv set(kName, " a b ");
  EXPECT_EQ(" a b ", environment::text(kName, "fallback"));
}

TEST(EnvironmentTest, CountTakesWholeNumbersWithinItsBounds) {
  const struct {
    const char* value;
    long expected;
  } cases[] = {
      {"5", 5},     {"1", 1},     {"10", 10},   {"0", -1},  {"11", -1},
      {"+7", 7},    {" 7", 7},    {"007", 7},   {"7 ", -1}, {"7s", -1},
      {"", -1},     {" ", -1},    {"x", -1},    {"-3", -1}, {"0x5", -1},
      {"5.0", -1},
  };
  for (const auto& c : cases) {
    ScopedEnv set(kName, c.value);
    EXPECT_EQ(c.expected, environment::count(kName, 1, 10, -1))
        << "\"" << c.value << "\"";
  }
  ScopedEnv unset(kName);
  EXPECT_EQ(-1, environment::count(kName, 1, 10, -1));
}

TEST(EnvironmentTest, CountReadsANumberPastLongAsItsEnd) {
  {
    ScopedEnv huge(kName, "99999999999999999999999999");
    // The end of a 64-bit number: long's own end only where long is that wide.
    EXPECT_EQ(LLONG_MAX == LONG_MAX ? LONG_MAX : 3,
              environment::count(kName, 0, LONG_MAX, 3));
    EXPECT_EQ(3, environment::count(kName, 0, INT_MAX, 3));
  }
  ScopedEnv negative(kName, "-0");
  EXPECT_EQ(0, environment::count(kName, 0, 10, 3));
}

TEST(EnvironmentTest, SecondsAreAtLeastOne) {
  for (const char* bad : {"0", "-1", "-0", "1.5", "", "soon"}) {
    ScopedEnv set(kName, bad);
    EXPECT_EQ(60, environment::seconds(kName, 60)) << "\"" << bad << "\"";
  }
  ScopedEnv one(kName, "1");
  EXPECT_EQ(1, environment::seconds(kName, 60));
}

TEST(EnvironmentTest, MebibytesAreReturnedInBytes) {
  const uint64_t fallback = 16 * kMiB;
  const uint64_t largest = UINT64_MAX / kMiB;
  const struct {
    std::string value;
    uint64_t expected;
  } cases[] = {
      {"2", 2 * kMiB},
      {"0", 0},
      {"+3", 3 * kMiB},
      {" 3", 3 * kMiB},
      {std::to_string(largest), largest * kMiB},
      {std::to_string(largest + 1), fallback},
      {"99999999999999999999999999", fallback},
      {"-0", fallback},
      {"-1", fallback},
      {"1M", fallback},
      {"", fallback},
  };
  for (const auto& c : cases) {
    ScopedEnv set(kName, c.value);
    EXPECT_EQ(c.expected, environment::mebibytes(kName, fallback))
        << "\"" << c.value << "\"";
  }
}

TEST(EnvironmentTest, ChoiceIsAnExactMatch) {
  const std::vector<const char*> choices = {"one", "two"};
  const struct {
    const char* value;
    int expected;
  } cases[] = {{"one", 0}, {"two", 1}, {"One", 7}, {" one", 7},
               {"one ", 7}, {"on", 7},  {"", 7}};
  for (const auto& c : cases) {
    ScopedEnv set(kName, c.value);
    CaptureStdout error(2);
    EXPECT_EQ(c.expected,
              environment::choice(kName, choices, 7,
                                  environment::Unknown::kIgnore))
        << "\"" << c.value << "\"";
    EXPECT_EQ("", error.text()) << "\"" << c.value << "\"";
  }
  ScopedEnv unset(kName);
  EXPECT_EQ(7, environment::choice(kName, choices, 7,
                                   environment::Unknown::kName));
}

TEST(EnvironmentTest, UnknownChoiceCanBeNamedOnStandardError) {
  const std::vector<const char*> choices = {"stdout", "stderr"};
  {
    ScopedEnv set(kName, "sterr");
    CaptureStdout error(2);
    CaptureStdout output(1);
    EXPECT_EQ(0, environment::choice(kName, choices, 0,
                                     environment::Unknown::kName));
    EXPECT_EQ("", output.text());
    EXPECT_EQ(std::string("widgetengine: ") + kName +
                  "=sterr is not one of stdout, stderr; using stdout\n",
              error.text());
  }
  {
    // Control bytes cannot reach the terminal.
    ScopedEnv set(kName, "a\x1b[2Jb\x7f");
    CaptureStdout error(2);
    environment::choice(kName, choices, 1, environment::Unknown::kName);
    EXPECT_EQ(std::string("widgetengine: ") + kName +
                  "=a?[2Jb? is not one of stdout, stderr; using stderr\n",
              error.text());
  }
  // A long value is cut after 64 bytes.
  ScopedEnv set(kName, std::string(64, 'x') + "y");
  CaptureStdout error(2);
  environment::choice(kName, choices, 0, environment::Unknown::kName);
  EXPECT_EQ(std::string("widgetengine: ") + kName + "=" + std::string(64, 'x') +
                "... is not one of stdout, stderr; using stdout\n",
            error.text());
}

TEST(EnvironmentTest, FlagIsOnForAnythingButEmptyOrZero) {
  {
    ScopedEnv unset(kName);
    EXPECT_FALSE(environment::flag(kName));
  }
  for (const char* off : {"", "0"}) {
    ScopedEnv set(kName, off);
    EXPECT_FALSE(environment::flag(kName)) << "\"" << off << "\"";
  }
  for (const char* on : {"1", "yes", "00", "false", " 0"}) {
    ScopedEnv set(kName, on);
    EXPECT_TRUE(environment::flag(kName)) << "\"" << on << "\"";
  }
}

TEST(EnvironmentTest, ClampedReadsTheLeadingNumberWithinItsBounds) {
  {
    ScopedEnv unset(kName);
    EXPECT_EQ(90, environment::clamped(kName, 1, 3600, 90));
  }
  const struct {
    const char* value;
    long expected;
  } cases[] = {{"5", 5},   {"5x", 5},      {" 12s", 12}, {"x", 1},
               {"", 1},    {"0", 1},       {"-9", 1},    {"4000", 3600},
               {"99999999999999999999999", 3600}};
  for (const auto& c : cases) {
    ScopedEnv set(kName, c.value);
    EXPECT_EQ(c.expected, environment::clamped(kName, 1, 3600, 90))
        << "\"" << c.value << "\"";
  }
}

}  // namespace
