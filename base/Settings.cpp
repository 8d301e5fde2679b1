// SPDX-License-Identifier: Apache-2.0
#include "base/Settings.h"

#include <climits>
#include <thread>

#include "base/Environment.h"

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

// A server that stops sending would otherwise hold the browser's thread for
// ever; a minute outlasts any pause of a slow but live link. The tests use
// a second.
constexpr long kStallSeconds = 60;

// The reserve is what a download must leave free for everyone else (the
// browser's own files, the unpacked widget, the registry's journal); the
// maximum bounds a package whatever the room. A reserve of 0 is none.
constexpr uint64_t kReserveMiB = 16;
constexpr uint64_t kMaxPackageMiB = 512;

// Writers hold the registry's write lock for the few milliseconds of a
// commit; a lookup that met such a lock and answered at once would answer
// "no widget" for a widget that is installed, and an installer would take
// that answer as "not installed yet". Five seconds covers any commit of a
// healthy device many times over and still ends a wait on a lock that a
// hung process never gives back. Tests that hold a lock on purpose use a
// short one.
constexpr long kBusyTimeoutMs = 5000;

// A day: a fleet that checks daily spreads its checks over the whole day
// at most, and a mistyped value cannot hold a host for longer.
constexpr long kLongestJitterSeconds = 24 * 60 * 60;

}  // namespace

namespace settings {

const char* const kBuiltInWidgetRoot = WIDGETENGINE_WIDGET_ROOT;
const char* const kBuiltInTrustAnchors = WIDGETENGINE_TRUST_ANCHORS_DIR;

std::optional<std::string> widgetPath() {
  return environment::path("WIDGET_PATH");
}

std::string registryDirectory() {
  return environment::path("YRA_DATA_PATH").value_or(WIDGETENGINE_DATABASE_DIR);
}

namespace {

// A relative value is to be ignored, the rules say: it would name another
// folder in each working directory.
std::string userHome(const char* variable, const char* underHome) {
  const std::string value = environment::text(variable, "");
  if (!value.empty() && value[0] == '/') return value;
  const std::string home = environment::text("HOME", "");
  if (home.empty() || home[0] != '/') return std::string();
  return home + underHome;
}

}  // namespace

std::string userDataHome() { return userHome("XDG_DATA_HOME", "/.local/share"); }

std::string userCacheHome() { return userHome("XDG_CACHE_HOME", "/.cache"); }

long stallSeconds() {
  return environment::seconds("WIDGETENGINE_STALL_SECONDS", kStallSeconds);
}

uint64_t downloadReserveBytes() {
  return environment::mebibytes("WIDGETENGINE_DOWNLOAD_RESERVE_MB",
                                kReserveMiB * kMiB);
}

uint64_t maxPackageBytes() {
  return environment::mebibytes("WIDGETENGINE_MAX_PACKAGE_MB",
                                kMaxPackageMiB * kMiB);
}

long updateJitterSeconds() {
  return environment::count("WIDGETENGINE_UPDATE_JITTER", 0,
                            kLongestJitterSeconds, 0);
}

int busyTimeoutMs() {
  return static_cast<int>(environment::count("WIDGETENGINE_BUSY_TIMEOUT_MS", 0,
                                             INT_MAX, kBusyTimeoutMs));
}

int unpackThreads() {
  // Two threads where there are two processors to run them; "2" asks for
  // two on one processor too. Anything else is ignored without a word.
  const int chosen = environment::choice("WIDGETENGINE_UNPACK_THREADS",
                                         {"1", "2"}, -1,
                                         environment::Unknown::kIgnore);
  if (chosen >= 0) return chosen + 1;
  return std::thread::hardware_concurrency() > 1 ? 2 : 1;
}

LogDestination logDestination() {
  // A mistyped "sterr" would otherwise leave the lines on standard output
  // without a word, so an unknown value is named.
  static_assert(kLogToStdout == 0 && kLogToStderr == 1 && kLogToSyslog == 2 &&
                    kLogQuiet == 3,
                "the destinations are in the order of their names");
  return static_cast<LogDestination>(environment::choice(
      "WIDGETENGINE_LOG", {"stdout", "stderr", "syslog", "quiet"},
      kLogToStdout, environment::Unknown::kName));
}

SignaturePolicy signaturePolicy() {
  static_assert(kSignaturesOff == 0 && kSignaturesReport == 1 &&
                    kSignaturesRequire == 2,
                "the policies are in the order of their names");
  return static_cast<SignaturePolicy>(environment::choice(
      "WIDGETENGINE_SIGNATURES", {"off", "report", "require"}, kSignaturesOff,
      environment::Unknown::kName));
}

std::string trustAnchorsDirectory() {
  return environment::path("WIDGETENGINE_TRUST_ANCHORS")
      .value_or(kBuiltInTrustAnchors);
}

}  // namespace settings
