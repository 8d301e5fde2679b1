// SPDX-License-Identifier: Apache-2.0
#include "base/Refusal.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <string>
#include <thread>

namespace {

std::string lastReason() {
  const char* reason = nullptr;
  widgetengine_last_refusal(&reason);
  return reason;
}

TEST(RefusalTest, ASettledFailureIsTheThreadsLastRefusal) {
  refusal::begin();
  EXPECT_FALSE(refusal::noted());
  const Outcome kept =
      refusal::settle(Outcome(WIDGETENGINE_REFUSAL_BUSY, "held by another"));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BUSY, kept.code());
  EXPECT_TRUE(refusal::noted());
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BUSY, widgetengine_last_refusal(nullptr));
  EXPECT_EQ("held by another", lastReason());
}

TEST(RefusalTest, ARefusalNotedDuringTheCallIsWhyItFails) {
  refusal::begin();
  refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, "the root is writable by others");
  refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, "noted second");
  const Outcome kept =
      refusal::settle(Outcome(WIDGETENGINE_REFUSAL_BUSY, "the lock is not safe"));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_UNTRUSTED, kept.code());
  EXPECT_EQ("the root is writable by others", kept.reason());
  EXPECT_EQ("the root is writable by others", refusal::reason());
}

TEST(RefusalTest, SuccessLeavesNoReasonEvenAfterANote) {
  refusal::begin();
  refusal::note(WIDGETENGINE_REFUSAL_UNTRUSTED, "a leftover was not safe");
  EXPECT_TRUE(refusal::settle(Outcome()).ok());
  EXPECT_FALSE(refusal::noted());
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_last_refusal(nullptr));
  EXPECT_EQ("", lastReason());
}

TEST(RefusalTest, EachThreadKeepsItsOwn) {
  refusal::begin();
  refusal::settle(Outcome(WIDGETENGINE_REFUSAL_NOT_INSTALLED, "no clock"));
  int other = -1;
  std::thread([&] { other = widgetengine_last_refusal(nullptr); }).join();
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, other);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_INSTALLED, refusal::code());
}

}  // namespace
