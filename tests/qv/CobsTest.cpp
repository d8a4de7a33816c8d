#include "qv/Cobs.h"

#include "qv/Crc.h"
#include "tests/qv/Hex.h"

#include <gtest/gtest.h>

#include <random>

namespace {

qv::Bytes ones(std::size_t count)
{
    return qv::Bytes(count, 0x11);
}

qv::Bytes operator+(qv::Bytes left, const qv::Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(Cobs, EncodesGoldenFrames)
{
    EXPECT_EQ(qv::cobsEncode({}), hex("01"));
    EXPECT_EQ(qv::cobsEncode(hex("00")), hex("01 01"));
    EXPECT_EQ(qv::cobsEncode(hex("00 00")), hex("01 01 01"));
    EXPECT_EQ(qv::cobsEncode(hex("05 00 11 22")), hex("02 05 03 11 22"));
    EXPECT_EQ(qv::cobsEncode(hex("11 22 00")), hex("03 11 22 01"));
    EXPECT_EQ(qv::cobsEncode(ones(253)), hex("FE") + ones(253));
    EXPECT_EQ(qv::cobsEncode(ones(254)), hex("FF") + ones(254));
    EXPECT_EQ(qv::cobsEncode(ones(255)), hex("FF") + ones(254) + hex("02 11"));
    EXPECT_EQ(qv::cobsEncode(ones(254) + hex("00")), hex("FF") + ones(254) + hex("01 01"));
    EXPECT_EQ(qv::cobsEncode(ones(508)), hex("FF") + ones(254) + hex("FF") + ones(254));
}

TEST(Cobs, DecodesWhatItEncodes)
{
    std::mt19937 random(7);
    for (std::size_t size = 0; size <= 2000; ++size) {
        qv::Bytes data(size);
        for (auto& byte : data) {
            byte = static_cast<std::uint8_t>(size % 3 == 0   ? random() % 256
                                             : size % 3 == 1 ? random() % 2
                                                             : 1 + random() % 255);
        }
        const auto encoded = qv::cobsEncode(data);
        ASSERT_LE(encoded.size(), size + size / 254 + 1);
        ASSERT_EQ(std::count(encoded.begin(), encoded.end(), 0), 0);
        ASSERT_EQ(qv::cobsDecode(encoded), data) << size;
    }
}

TEST(Cobs, RefusesWhatDoesNotAddUp)
{
    EXPECT_FALSE(qv::cobsDecode({}));
    EXPECT_FALSE(qv::cobsDecode(hex("03 11")));
    EXPECT_FALSE(qv::cobsDecode(hex("02 11 05 22")));
    EXPECT_FALSE(qv::cobsDecode(hex("03 00 11")));
    EXPECT_FALSE(qv::cobsDecode(hex("00")));
}

TEST(Crc, HasItsCheckValues)
{
    EXPECT_EQ(qv::crc16(hex("31 32 33 34 35 36 37 38 39")), 0x29B1);
    EXPECT_EQ(qv::crc16({}), 0xFFFF);
    EXPECT_EQ(qv::crc16(hex("10 00")), 0x1E7C);
    EXPECT_EQ(qv::crc16(hex("11 00")), 0x2D4D);
}

} // namespace
