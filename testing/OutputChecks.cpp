// SPDX-License-Identifier: Apache-2.0
#include "testing/OutputChecks.h"

#include <algorithm>

::testing::AssertionResult returnedAndPrinted(
    const std::string& call, int result, int expectedResult,
    const std::string& output, const std::string& expectedOutput) {
  if (result != expectedResult)
    return ::testing::AssertionFailure()
           << call << " returned " << result << " instead of " << expectedResult
           << ", after printing:\n"
           << output;
  if (output != expectedOutput)
    return ::testing::AssertionFailure() << call << " printed:\n"
                                         << output << "instead of:\n"
                                         << expectedOutput;
  return ::testing::AssertionSuccess();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    result.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return result;
}

std::string lastLine(const std::string& text) {
  const std::vector<std::string> all = lines(text);
  return all.empty() ? "" : all.back();
}

::testing::AssertionResult hasLinesInOrder(
    const std::string& output, const std::vector<std::string>& expected) {
  const std::vector<std::string> got = lines(output);
  size_t at = 0;
  for (const std::string& line : expected) {
    while (at < got.size() && got[at] != line) ++at;
    if (at == got.size())
      return ::testing::AssertionFailure()
             << "missing (or out of order): \"" << line << "\" in:\n"
             << output;
    ++at;
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult endsWithLines(
    const std::string& output, const std::vector<std::string>& expected) {
  const std::vector<std::string> got = lines(output);
  if (got.size() >= expected.size() &&
      std::equal(expected.begin(), expected.end(), got.end() - expected.size()))
    return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "expected the output to end with " << expected.size()
          << " lines:\n";
  for (const std::string& line : expected) failure << "  \"" << line << "\"\n";
  return failure << "but it was:\n" << output;
}
