// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureFiles.h"

#include <algorithm>

const char SignatureFiles::kAuthorName[] = "author-signature.xml";

namespace {

const char kPrefix[] = "signature";
const char kSuffix[] = ".xml";

// The digits of a distributor signature's name; empty for any other path.
std::string numberOf(const std::string& path) {
  const size_t prefix = sizeof(kPrefix) - 1;
  const size_t suffix = sizeof(kSuffix) - 1;
  if (path.size() <= prefix + suffix) return std::string();
  if (path.compare(0, prefix, kPrefix) != 0) return std::string();
  if (path.compare(path.size() - suffix, suffix, kSuffix) != 0) return std::string();
  const std::string digits = path.substr(prefix, path.size() - prefix - suffix);
  if (digits[0] < '1' || digits[0] > '9') return std::string();
  for (char c : digits) {
    if (c < '0' || c > '9') return std::string();
  }
  return digits;
}

// Numbers of any length, compared without converting them: with no leading
// zeros, the longer is the larger.
bool numberIsLess(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;
}

}  // namespace

SignatureFiles::Kind SignatureFiles::kindOf(const std::string& path) {
  if (path == kAuthorName) return kAuthor;
  return numberOf(path).empty() ? kNone : kDistributor;
}

std::vector<std::string> SignatureFiles::inProcessingOrder(
    const std::vector<std::string>& paths) {
  std::vector<std::string> ordered;
  std::vector<std::string> numbers;
  for (const std::string& path : paths) {
    if (path == kAuthorName) {
      ordered.push_back(path);
    } else {
      const std::string number = numberOf(path);
      if (!number.empty()) numbers.push_back(number);
    }
  }
  std::sort(numbers.begin(), numbers.end(),
            [](const std::string& a, const std::string& b) {
              return numberIsLess(b, a);
            });
  for (const std::string& number : numbers)
    ordered.push_back(distributorName(number));
  return ordered;
}

std::string SignatureFiles::distributorName(const std::string& number) {
  return kPrefix + number + kSuffix;
}

std::string SignatureFiles::nextDistributorNumber(
    const std::vector<std::string>& paths) {
  std::string highest = "0";
  for (const std::string& path : paths) {
    const std::string number = numberOf(path);
    if (!number.empty() && numberIsLess(highest, number)) highest = number;
  }
  // Decimal increment of the digits.
  std::string next = highest;
  size_t at = next.size();
  while (at > 0 && next[at - 1] == '9') next[--at] = '0';
  if (at == 0) {
    next.insert(next.begin(), '1');
  } else {
    ++next[at - 1];
  }
  return next;
}
