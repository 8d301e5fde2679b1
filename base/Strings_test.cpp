// SPDX-License-Identifier: Apache-2.0
#include "base/Strings.h"

#include <gtest/gtest.h>

TEST(JoinStringsTest, JoinsWithCommasOnlyBetweenItems) {
  EXPECT_EQ("fr-fr,fr,default", joinStrings({"fr-fr", "fr", "default"}));
  EXPECT_EQ("fr", joinStrings({"fr"}));
  EXPECT_EQ("", joinStrings({}));
  EXPECT_EQ(",", joinStrings({"", ""}));
}
