/* Whom a change of the override is put down to. */
#include "override_claim.h"

#include <gmock/gmock.h>

#include <string>

namespace corvane::appliance {
namespace {

constexpr TimeMs kStart = 1'785'500'000'000;

TEST(Claim, ChangeIsTheDisplaysWhenItHasAskedForItAShortWhileAgo) {
    OverrideClaim claim(1);
    EXPECT_STREQ(claim.authorOf(1, kStart), "remote");
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(1, kStart + 15'000), "display");
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(0, kStart + 1000), "remote");
}

TEST(Claim, IsUsedUpByOneChangeAndGivenUpForALaterOrder) {
    OverrideClaim claim(1);
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(0, kStart), "remote");
    EXPECT_STREQ(claim.authorOf(1, kStart), "remote");
    claim.pressed(1, kStart);
    claim.ordered();
    EXPECT_STREQ(claim.authorOf(1, kStart), "remote");
}

TEST(Claim, OfAPressWithoutEffectExpires) {
    OverrideClaim claim(1);
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(1, kStart + 30'001), "remote");
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(1, kStart - 1), "remote") << "the clock has gone back";
}

TEST(Claim, LastsARealSecondHoweverFastTimeRuns) {
    OverrideClaim claim(600);
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(1, kStart + 600'000), "display");
    claim.pressed(1, kStart);
    EXPECT_STREQ(claim.authorOf(1, kStart + 600'001), "remote");
}

} // namespace
} // namespace corvane::appliance
