#pragma once

#include "tests/process/Rig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
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

    /// A row of the fault matrix: properties of the test, and a line of the file that VORLAN_FAULT_TABLE names.
    static void record(const std::string& fault, const std::string& shows, milliseconds bound, milliseconds measured)
    {
        RecordProperty("fault", fault);
        RecordProperty("shows", shows);
        RecordProperty("bound_ms", std::to_string(bound.count()));
        RecordProperty("measured_ms", std::to_string(measured.count()));
        std::printf("[ measured ] %s: %lld ms of %lld ms\n", fault.c_str(), static_cast<long long>(measured.count()),
                    static_cast<long long>(bound.count()));
        if (const char* table = std::getenv("VORLAN_FAULT_TABLE"); table != nullptr && !HasFailure())
            std::ofstream(table, std::ios::app)
                << "| " << fault << " | " << shows << " | " << bound.count() << " | " << measured.count() << " |\n";
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
