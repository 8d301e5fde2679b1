// SPDX-License-Identifier: Apache-2.0
// EngineOutput is the one way the engine's messages leave it: progress lines,
// traces and errors are written through engineOut() and enginePrintf(), the
// uninstaller's system error through enginePerror(). By default they reach
// the process's standard output (and standard error) byte for byte; the
// environment variable WIDGETENGINE_LOG, or the host through
// WidgetEngineExtensions.h, sends them to standard error, to syslog, to a
// function of the host, or nowhere.
#ifndef WIDGETENGINE_ENGINEOUTPUT_H_
#define WIDGETENGINE_ENGINEOUTPUT_H_

#include <ostream>
#include <string>

// The stream for the engine's lines; end each line with std::endl.
std::ostream& engineOut();

// printf to the same place as engineOut(), in order with it.
int enginePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// perror(): the prefix, ": " and the reason for errno, on standard error.
void enginePerror(const char* prefix);

// The level (WIDGETENGINE_LOG_ERROR, _INFO or _VERBOSE) of one line.
int engineLineLevel(const std::string& line);

#endif  // WIDGETENGINE_ENGINEOUTPUT_H_
