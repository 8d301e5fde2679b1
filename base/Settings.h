// SPDX-License-Identifier: Apache-2.0
// Settings is what the engine takes from its environment: every variable the
// library reads is read here, through base/Environment.h, with its default
// beside it. docs/settings.md lists them all, with the tools' own.
//
// Each function reads its variable when it is called; when that is, is the
// callers' choice, and keeps what a host has always seen:
// - The widget root and the registry's folder, at every call that needs
//   them: a host may move either between two calls (the tests do, and the
//   query side compares the registry it keeps with the path of each call).
// - The download and unpacking limits and the registry's busy wait, when
//   the job that uses them starts (a download, an unpacking, a connection):
//   a host may change them between two installations, as the tests do.
// - The log destination, once a process (base/EngineOutput), at the
//   engine's first line or the host's first choice of destination: it then
//   stands until the host chooses another, and an unknown value is named
//   once, not at every line.
//
// Nothing here is per engine: WidgetEngineDelegate::createInstance() takes
// no settings, and the host's choices through WidgetEngineExtensions.h (log
// destination or sink, progress callback, verified entries) are
// process-wide because those C functions name no engine. They are kept
// where they act: base/EngineOutput, base/Progress, install/EntryUnpacker.
#ifndef WIDGETENGINE_SETTINGS_H_
#define WIDGETENGINE_SETTINGS_H_

#include <cstdint>
#include <optional>
#include <string>

namespace settings {

// Where widgets are installed: WIDGET_PATH as it is set (an empty value
// too); nothing when it is unset, and the built-in root is used.
std::optional<std::string> widgetPath();
extern const char* const kBuiltInWidgetRoot;

// The folder of widget.db: YRA_DATA_PATH as it is set (an empty value too),
// else the built-in folder. Neither path gets a "/" added.
std::string registryDirectory();

// The user's folders for data and for caches, by the XDG base directory
// rules: XDG_DATA_HOME (XDG_CACHE_HOME) when it is an absolute path, else
// $HOME/.local/share ($HOME/.cache); empty when neither can be told. Read at
// each call. Widgets' web data lives below them (install/WebData.h).
std::string userDataHome();
std::string userCacheHome();

// How long a download may receive nothing before it fails.
long stallSeconds();

// What a download must leave free of the widget root's file system, and
// the largest package it may store, in bytes.
uint64_t downloadReserveBytes();
uint64_t maxPackageBytes();

// The longest random wait before a check of every widget's update, in
// seconds: a fleet that checks at one hour spreads its requests over this
// much time. 0, the default, waits not at all.
long updateJitterSeconds();

// How long a registry statement waits for a lock another connection holds.
int busyTimeoutMs();

// The threads that unpack a package: 1 or 2.
int unpackThreads();

// Where the engine's lines go unless the host says otherwise.
enum LogDestination { kLogToStdout, kLogToStderr, kLogToSyslog, kLogQuiet };
LogDestination logDestination();

// What an installation does with a package's signatures, from
// WIDGETENGINE_SIGNATURES at each installation: nothing (the default),
// check and record them, or also refuse a package whose signatures do not
// hold. A value that is none of these is named, as a mistyped "requrie"
// would otherwise leave a device taking unsigned packages unseen.
enum SignaturePolicy { kSignaturesOff, kSignaturesReport, kSignaturesRequire };
SignaturePolicy signaturePolicy();

// The folder of the certificates a device trusts to vouch for signers:
// WIDGETENGINE_TRUST_ANCHORS as it is set, else the built-in folder.
std::string trustAnchorsDirectory();
extern const char* const kBuiltInTrustAnchors;

}  // namespace settings

#endif  // WIDGETENGINE_SETTINGS_H_
