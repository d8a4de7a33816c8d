#pragma once

#include "tests/process/Rig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

namespace rig {

/// A test with a rig of its own; at its end the daemon must have no sanitizer's report in its log.
class RigTest : public ::testing::Test
{
protected:
    RigTest() = default;
    explicit RigTest(const std::string& executable)
        : mRig(executable)
    {}

    void TearDown() override
    {
        mRig.daemon().kill();
        EXPECT_EQ(sanitizerReport(mRig.daemon().err()), "");
        if (HasFailure())
            print(mRig.timeline().text() + "--- standard error\n" + mRig.daemon().err());
    }

    /// Long lines are cut.
    static void print(const std::string& text)
    {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            std::fprintf(stderr, "%.200s\n", line.c_str());
    }

    Rig mRig;
};

} // namespace rig
