// SPDX-License-Identifier: Apache-2.0
#include "base/Settings.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

TEST(SettingsTest, WidgetPathIsTakenAsItIsSet) {
  {
    ScopedEnv unset("WIDGET_PATH");
    EXPECT_FALSE(settings::widgetPath().has_value());
  }
  {
    // Empty is the working directory, not the built-in root.
    ScopedEnv empty("WIDGET_PATH", "");
    EXPECT_EQ("", settings::widgetPath().value_or("unset"));
  }
  // No "/" is added.
  ScopedEnv set("WIDGET_PATH", "/data/widgets");
  EXPECT_EQ("/data/widgets", settings::widgetPath().value_or("unset"));
}

TEST(SettingsTest, RegistryDirectoryIsTakenAsItIsSet) {
  std::string builtIn;
  {
    ScopedEnv unset("YRA_DATA_PATH");
    builtIn = settings::registryDirectory();
  }
  EXPECT_FALSE(builtIn.empty());
  {
    ScopedEnv empty("YRA_DATA_PATH", "");
    EXPECT_EQ("", settings::registryDirectory());
  }
  ScopedEnv set("YRA_DATA_PATH", "conf");
  EXPECT_EQ("conf", settings::registryDirectory());
}

TEST(SettingsTest, DownloadLimitsHaveDefaultsAndTakeOthers) {
  {
    ScopedEnv stall("WIDGETENGINE_STALL_SECONDS");
    ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB");
    ScopedEnv maximum("WIDGETENGINE_MAX_PACKAGE_MB");
    EXPECT_EQ(60, settings::stallSeconds());
    EXPECT_EQ(16 * kMiB, settings::downloadReserveBytes());
    EXPECT_EQ(512 * kMiB, settings::maxPackageBytes());
  }
  {
    ScopedEnv stall("WIDGETENGINE_STALL_SECONDS", "1");
    ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB", "0");
    ScopedEnv maximum("WIDGETENGINE_MAX_PACKAGE_MB", "3");
    EXPECT_EQ(1, settings::stallSeconds());
    EXPECT_EQ(0u, settings::downloadReserveBytes());
    EXPECT_EQ(3 * kMiB, settings::maxPackageBytes());
  }
  ScopedEnv stall("WIDGETENGINE_STALL_SECONDS", "0");
  ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB", "-0");
  ScopedEnv maximum("WIDGETENGINE_MAX_PACKAGE_MB", "lots");
  EXPECT_EQ(60, settings::stallSeconds());
  EXPECT_EQ(16 * kMiB, settings::downloadReserveBytes());
  EXPECT_EQ(512 * kMiB, settings::maxPackageBytes());
}

TEST(SettingsTest, BusyTimeoutFitsAnInt) {
  const struct {
    const char* value;
    int expected;
  } cases[] = {{"50", 50},         {"0", 0},       {"2147483647", 2147483647},
               {"2147483648", 5000}, {"-1", 5000}, {"", 5000},
               {"50ms", 5000}};
  for (const auto& c : cases) {
    ScopedEnv set("WIDGETENGINE_BUSY_TIMEOUT_MS", c.value);
    EXPECT_EQ(c.expected, settings::busyTimeoutMs()) << "\"" << c.value << "\"";
  }
}

TEST(SettingsTest, UnpackThreadsAreOneOrTwo) {
  const int byProcessors = std::thread::hardware_concurrency() > 1 ? 2 : 1;
  {
    ScopedEnv unset("WIDGETENGINE_UNPACK_THREADS");
    EXPECT_EQ(byProcessors, settings::unpackThreads());
  }
  const struct {
    const char* value;
    int expected;
  } cases[] = {{"1", 1},
               {"2", 2},
               {"3", byProcessors},
               {"0", byProcessors},
               {" 1", byProcessors},
               {"01", byProcessors},
               {"", byProcessors}};
  for (const auto& c : cases) {
    ScopedEnv set("WIDGETENGINE_UNPACK_THREADS", c.value);
    CaptureStdout error(2);
    EXPECT_EQ(c.expected, settings::unpackThreads()) << "\"" << c.value << "\"";
    // A value it cannot use is ignored without a word.
    EXPECT_EQ("", error.text()) << "\"" << c.value << "\"";
  }
}

// Each of known (a value and what read() makes of it) is taken without a
// word; unknown is named on standard error as line says, and read() falls
// back.
template <typename Choice>
void expectChoices(const char* variable,
                   const std::vector<std::pair<const char*, Choice>>& known,
                   Choice (*read)(), const char* unknown, Choice fallback,
                   const std::string& line) {
  for (const auto& c : known) {
    ScopedEnv set(variable, c.first);
    CaptureStdout error(2);
    EXPECT_EQ(c.second, read()) << c.first;
    EXPECT_EQ("", error.text()) << c.first;
  }
  {
    ScopedEnv unset(variable);
    EXPECT_EQ(fallback, read());
  }
  ScopedEnv set(variable, unknown);
  CaptureStdout error(2);
  EXPECT_EQ(fallback, read());
  EXPECT_EQ(line, error.text());
}

TEST(SettingsTest, LogDestinationNamesAnUnknownValue) {
  expectChoices<settings::LogDestination>(
      "WIDGETENGINE_LOG",
      {{"stdout", settings::kLogToStdout},
       {"stderr", settings::kLogToStderr},
       {"syslog", settings::kLogToSyslog},
       {"quiet", settings::kLogQuiet},
       {"", settings::kLogToStdout}},
      settings::logDestination, "sterr", settings::kLogToStdout,
      "widgetengine: WIDGETENGINE_LOG=sterr is not one of stdout, stderr, "
      "syslog, quiet; using stdout\n");
}

TEST(SettingsTest, SignaturePolicyIsOffUnlessAskedForAndNamesAnUnknownValue) {
  expectChoices<settings::SignaturePolicy>(
      "WIDGETENGINE_SIGNATURES",
      {{"off", settings::kSignaturesOff},
       {"report", settings::kSignaturesReport},
       {"require", settings::kSignaturesRequire},
       {"", settings::kSignaturesOff}},
      settings::signaturePolicy, "requrie", settings::kSignaturesOff,
      "widgetengine: WIDGETENGINE_SIGNATURES=requrie is not one of off, "
      "report, require; using off\n");
}

TEST(SettingsTest, TrustAnchorsAreTheBuiltInFolderUnlessSet) {
  {
    ScopedEnv unset("WIDGETENGINE_TRUST_ANCHORS");
    EXPECT_EQ(settings::kBuiltInTrustAnchors, settings::trustAnchorsDirectory());
  }
  ScopedEnv set("WIDGETENGINE_TRUST_ANCHORS", "/etc/device/anchors");
  EXPECT_EQ("/etc/device/anchors", settings::trustAnchorsDirectory());
}

}  // namespace

TEST(SettingsTest, UpdateJitterIsSecondsUpToADay) {
  const struct {
    const char* value;
    long expected;
  } cases[] = {{"", 0},           {"0", 0},   {"900", 900}, {"86400", 86400},
               {"86401", 0},      {"-5", 0},  {"15m", 0}};
  for (const auto& c : cases) {
    ScopedEnv set("WIDGETENGINE_UPDATE_JITTER", c.value);
    EXPECT_EQ(c.expected, settings::updateJitterSeconds()) << "\"" << c.value << "\"";
  }
  ScopedEnv unset("WIDGETENGINE_UPDATE_JITTER");
  EXPECT_EQ(0, settings::updateJitterSeconds());
}
