// SPDX-License-Identifier: Apache-2.0
#include "base/Outcome.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <utility>

TEST(OutcomeTest, SuccessHasNoCodeReasonOrNumber) {
  const Outcome success;
  EXPECT_TRUE(success.ok());
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, success.code());
  EXPECT_EQ("", success.reason());
  EXPECT_EQ(0, success.number());
}

TEST(OutcomeTest, ARefusalKeepsWhatItWasMadeWith) {
  const Outcome refused(WIDGETENGINE_REFUSAL_NO_SPACE,
                        "no space left for the package", ENOSPC);
  EXPECT_FALSE(refused.ok());
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_SPACE, refused.code());
  EXPECT_EQ("no space left for the package", refused.reason());
  EXPECT_EQ(ENOSPC, refused.number());
  EXPECT_EQ(0, Outcome(WIDGETENGINE_REFUSAL_BUSY, "held").number());
}

TEST(OutcomeTest, CopiesStandAloneAndMovesLeaveSuccess) {
  Outcome original(WIDGETENGINE_REFUSAL_NOT_A_ZIP, "not a zip", 19);
  Outcome copy(original);
  original = Outcome(WIDGETENGINE_REFUSAL_BUSY, "held");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_A_ZIP, copy.code());
  EXPECT_EQ("not a zip", copy.reason());
  EXPECT_EQ(19, copy.number());

  Outcome assigned;
  assigned = copy;
  EXPECT_EQ("not a zip", assigned.reason());
  assigned = Outcome();
  EXPECT_TRUE(assigned.ok());
  EXPECT_EQ("not a zip", copy.reason());

  Outcome moved(std::move(copy));
  EXPECT_EQ("not a zip", moved.reason());
  // What is left behind is a success, never a half refusal.
  EXPECT_TRUE(copy.ok());
}
