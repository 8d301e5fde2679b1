// SPDX-License-Identifier: Apache-2.0
#include "signature/Verdict.h"

const SignatureVerdict* Verdict::author() const {
  for (const SignatureVerdict& signature : signatures) {
    if (signature.author) return &signature;
  }
  return nullptr;
}

bool Verdict::allValid() const {
  if (!failures.empty() || !author()) return false;
  for (const SignatureVerdict& signature : signatures) {
    if (!signature.valid) return false;
  }
  return true;
}

std::vector<std::string> Verdict::allFailures() const {
  std::vector<std::string> all = failures;
  for (const SignatureVerdict& signature : signatures) {
    for (const std::string& failure : signature.failures)
      all.push_back(signature.file + ": " + failure);
  }
  return all;
}
