// SPDX-License-Identifier: Apache-2.0
#include "base/Outcome.h"

#include <widgetengine/WidgetEngineExtensions.h>

#include <utility>

namespace {

const std::string kNoReason;

}  // namespace

Outcome::Outcome(int code, std::string reason, long number)
    : refusal_(new Refusal{code, std::move(reason), number}) {}

Outcome::Outcome(const Outcome& other)
    : refusal_(other.refusal_ ? new Refusal(*other.refusal_) : nullptr) {}

Outcome& Outcome::operator=(const Outcome& other) {
  if (this != &other)
    refusal_.reset(other.refusal_ ? new Refusal(*other.refusal_) : nullptr);
  return *this;
}

int Outcome::code() const {
  return refusal_ ? refusal_->code : WIDGETENGINE_REFUSAL_NONE;
}

const std::string& Outcome::reason() const {
  return refusal_ ? refusal_->reason : kNoReason;
}

long Outcome::number() const { return refusal_ ? refusal_->number : 0; }
