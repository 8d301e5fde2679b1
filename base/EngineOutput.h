// SPDX-License-Identifier: Apache-2.0
// EngineOutput is the one way the engine's messages leave it: progress lines,
// traces and errors are written through engineOut() and enginePrintf(), the
// uninstaller's system error through enginePerror(). By default they reach
// the process's standard output (and standard error) byte for byte.
#ifndef WIDGETENGINE_ENGINEOUTPUT_H_
#define WIDGETENGINE_ENGINEOUTPUT_H_

#include <ostream>

// The stream for the engine's lines; end each line with std::endl.
std::ostream& engineOut();

// printf to the same place as engineOut(), in order with it.
int enginePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// perror(): the prefix, ": " and the reason for errno, on standard error.
void enginePerror(const char* prefix);

#endif  // WIDGETENGINE_ENGINEOUTPUT_H_
