#include "core/VorlanCfg.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <type_traits>

TEST(VorlanCfg, beginsWithWhatADisplayWithoutQVShows)
{
    const VorlanCfg cfg;
    EXPECT_EQ(cfg.QVProtVersion, 0);
    EXPECT_TRUE(cfg.AnimationEnabled);
    EXPECT_EQ(cfg.StatusText.get(), "Waiting for configuration...");
    EXPECT_EQ(cfg.StatusQV, 0U);
    EXPECT_EQ(cfg.IpAddrQV.get(), "");
    EXPECT_EQ(cfg.QVText1, "");
    EXPECT_EQ(cfg.QVText2, "");
    EXPECT_FALSE(std::is_polymorphic_v<VorlanCfg>);
}

TEST(VorlanCfg, isOneObjectThatEveryCopyKeepsAlive)
{
    const auto first = VorlanCfg::cfg();
    const auto before = first.use_count();
    const auto second = VorlanCfg::cfg();
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.use_count(), before + 1);
}

TEST(VorlanCfg, textsMayBeReadWhileTheyChange)
{
    SharedText text("a");
    std::array<std::thread, 3> readers;
    std::atomic<bool> end = false;
    for (std::thread& reader : readers) {
        reader = std::thread([&] {
            while (!end) {
                const std::string seen = text.get();
                EXPECT_EQ(seen, std::string(seen.size(), 'a'));
            }
        });
    }
    for (std::size_t i = 0; i < 2000; ++i)
        text.set(std::string(i % 100, 'a'));
    end = true;
    for (std::thread& reader : readers)
        reader.join();
}
