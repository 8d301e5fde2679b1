// SPDX-License-Identifier: Apache-2.0
// EngineOutput is the one way the engine's messages leave it: progress lines
// through engineOut(), traces through engineTrace(), failures through
// engineError() (or enginePrintf() with the level), the uninstaller's system
// error through enginePerror(). The writer gives each line its level. By default they reach
// the process's standard output (and standard error) byte for byte; the
// environment variable WIDGETENGINE_LOG, or the host through
// WidgetEngineExtensions.h, sends them to standard error, to syslog, to a
// function of the host, or nowhere.
#ifndef WIDGETENGINE_ENGINEOUTPUT_H_
#define WIDGETENGINE_ENGINEOUTPUT_H_

#include <widgetengine/WidgetEngineExtensions.h>

#include <ostream>

// The stream for the engine's lines of level (WIDGETENGINE_LOG_ERROR, _INFO
// or _VERBOSE); end each line with std::endl. A line has the level of the
// call that began it: a piece written without a line end is continued at
// that level, whatever the next call gives.
std::ostream& engineLines(int level);

// A step of a job.
inline std::ostream& engineOut() { return engineLines(WIDGETENGINE_LOG_INFO); }
// A trace ("[V:Module] ...").
inline std::ostream& engineTrace() {
  return engineLines(WIDGETENGINE_LOG_VERBOSE);
}
// A line that says a job failed.
inline std::ostream& engineError() {
  return engineLines(WIDGETENGINE_LOG_ERROR);
}

// printf at level, to the same place as engineLines(), in order with it.
int enginePrintf(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// perror(): the prefix, ": " and the reason for errno, on standard error; an
// error line.
void enginePerror(const char* prefix);

#endif  // WIDGETENGINE_ENGINEOUTPUT_H_
