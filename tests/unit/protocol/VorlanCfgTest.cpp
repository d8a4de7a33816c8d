#include "core/VorlanCfg.h"

#include <gtest/gtest.h>

TEST(VorlanCfg, IsOneForTheWholeProcess)
{
    const auto first = VorlanCfg::cfg();
    const auto alone = first.use_count();
    const auto second = VorlanCfg::cfg();
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(alone + 1, first.use_count());
}

TEST(VorlanCfg, KnowsNothingOfQVAtFirst)
{
    const VorlanCfg fresh;
    EXPECT_EQ("Waiting for configuration...", fresh.StatusText.get());
    EXPECT_EQ(0U, fresh.StatusQV);
    EXPECT_EQ("", fresh.IpAddrQV.get());
    EXPECT_TRUE(fresh.AnimationEnabled);
    EXPECT_EQ(0, fresh.QVProtVersion);
    EXPECT_EQ("", fresh.QVText1);
    EXPECT_EQ("", fresh.QVText2);
}
