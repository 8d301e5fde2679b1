// SPDX-License-Identifier: Apache-2.0
// Checks on what the engine prints: a call's result together with its whole
// output, and the output taken line by line (the lines of a text, whether
// some lines appear in order among them, whether it ends with given lines).
#ifndef WIDGETENGINE_TESTING_OUTPUTCHECKS_H_
#define WIDGETENGINE_TESTING_OUTPUTCHECKS_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Passes when call returned expectedResult and printed exactly
// expectedOutput; call names it in the failure message.
::testing::AssertionResult returnedAndPrinted(
    const std::string& call, int result, int expectedResult,
    const std::string& output, const std::string& expectedOutput);

// The lines of text without their "\n"; a final line without one counts too.
std::vector<std::string> lines(const std::string& text);

// The last line of text, or "" when there is none.
std::string lastLine(const std::string& text);

// Passes when every expected line appears in output, in this order (other
// lines may stand between them).
::testing::AssertionResult hasLinesInOrder(
    const std::string& output, const std::vector<std::string>& expected);

// Passes when the last lines of output are exactly the expected ones.
::testing::AssertionResult endsWithLines(
    const std::string& output, const std::vector<std::string>& expected);

#endif  // WIDGETENGINE_TESTING_OUTPUTCHECKS_H_
