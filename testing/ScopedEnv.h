// SPDX-License-Identifier: Apache-2.0
// ScopedEnv sets (or unsets) one environment variable for the life of the
// object and restores the previous state afterwards.
#ifndef WIDGETENGINE_TESTING_SCOPEDENV_H_
#define WIDGETENGINE_TESTING_SCOPEDENV_H_

#include <string>

class ScopedEnv {
 public:
  // Sets name to value.
  ScopedEnv(const std::string& name, const std::string& value);
  // Unsets name.
  explicit ScopedEnv(const std::string& name);
  ~ScopedEnv();

  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool hadOld_;
};

#endif  // WIDGETENGINE_TESTING_SCOPEDENV_H_
