// Checks on what the engine prints, taken line by line: the lines of a text,
// whether some lines appear in order among them, and whether the text ends
// with given lines.
#ifndef WIDGETENGINE_TESTING_OUTPUTLINES_H_
#define WIDGETENGINE_TESTING_OUTPUTLINES_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

#endif  // WIDGETENGINE_TESTING_OUTPUTLINES_H_
