// SPDX-License-Identifier: Apache-2.0
// The engine looks at the registry file again, and tries again to open one it
// could not, once the monotonic clock's coarse second has moved on. A test of
// what another program did to the file waits for that moment, the event the
// engine itself waits for, instead of a guessed time.
#ifndef WIDGETENGINE_TESTING_NEXTSECOND_H_
#define WIDGETENGINE_TESTING_NEXTSECOND_H_

// Returns once CLOCK_MONOTONIC_COARSE reads a later second than at the call.
void waitForTheNextSecond();

#endif  // WIDGETENGINE_TESTING_NEXTSECOND_H_
