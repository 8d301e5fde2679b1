// SPDX-License-Identifier: Apache-2.0
#include "testing/ScopedEnv.h"

#include <cstdlib>

namespace {
bool current(const std::string& name, std::string& value) {
  const char* old = getenv(name.c_str());
  if (old) value = old;
  return old != nullptr;
}
}  // namespace

ScopedEnv::ScopedEnv(const std::string& name, const std::string& value)
    : name_(name), hadOld_(current(name, old_)) {
  setenv(name.c_str(), value.c_str(), 1);
}

ScopedEnv::ScopedEnv(const std::string& name)
    : name_(name), hadOld_(current(name, old_)) {
  unsetenv(name.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (hadOld_)
    setenv(name_.c_str(), old_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}
