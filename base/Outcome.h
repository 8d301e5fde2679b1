// SPDX-License-Identifier: Apache-2.0
// Outcome says how an installation, a removal or one of their steps ended:
// success, or a refusal with its stable code (WidgetEngineExtensions.h), the
// one line the host is given as the reason, and the number behind it when
// there is one (an errno, a libzip error). The step that meets the failure
// makes it; the layers above pass it up unchanged.
//
//   Outcome outcome = step();
//   if (!outcome.ok()) return outcome;
#ifndef WIDGETENGINE_OUTCOME_H_
#define WIDGETENGINE_OUTCOME_H_

#include <memory>
#include <string>

class Outcome {
 public:
  // Success: nothing is allocated, and ok() is one comparison.
  Outcome() noexcept = default;
  Outcome(int code, std::string reason, long number = 0);

  Outcome(const Outcome& other);
  Outcome& operator=(const Outcome& other);
  Outcome(Outcome&& other) noexcept = default;
  Outcome& operator=(Outcome&& other) noexcept = default;

  bool ok() const { return refusal_ == nullptr; }
  // WIDGETENGINE_REFUSAL_NONE on success.
  int code() const;
  // "" on success.
  const std::string& reason() const;
  // The errno or libzip error behind the refusal; 0 when there is none.
  long number() const;

 private:
  struct Refusal {
    int code;
    std::string reason;
    long number;
  };
  std::unique_ptr<Refusal> refusal_;
};

#endif  // WIDGETENGINE_OUTCOME_H_
