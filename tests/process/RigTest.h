#pragma once

#include "tests/process/Rig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
            std::fprintf(stderr, "%s--- standard error\n%s", mRig.timeline().text().c_str(),
                         mRig.daemon().err().c_str());
    }

    Rig mRig;
};

} // namespace rig
