#pragma once

#include "tests/process/RigTest.h"

#include <optional>
#include <string>

namespace rig {

/// One cell of the fault matrix: a fault, what the device shows meanwhile, and how long the recovery may take from the
/// moment at which the fault is over. What was measured becomes a property of the test, and a row of the file that
/// VORLAN_FAULT_TABLE names.
class FaultTest : public RigTest
{
protected:
    using RigTest::RigTest;

    struct tCell
    {
        std::string fault;
        std::string shows;
        milliseconds bound;
    };

    void describe(const tCell& cell);
    /// The recovery is measured from now on.
    void faultIsOver();
    /// What is left of the bound.
    milliseconds left() const;
    /// Of several recoveries the slowest counts.
    void recovered();

    void TearDown() override;

    /// Starts the daemon with short bus calls and plays nothing yet.
    void serve();
    void serveWithService();
    /// Lines on standard error, but those of the status service's attempts.
    std::string errOfMain() { return linesWithout(mRig.daemon().err(), "SDBusManager: "); }

    /// Register 3, which the system daemon answers.
    std::string askText() { return mRig.ask(readReg(wire::eRegRdParamText)); }
    /// Register 0, which the daemon answers by itself.
    std::string askZero() { return mRig.ask(readReg(wire::eRegRdConst0)); }

    static constexpr char kText[] = "00 31 2e 34 2e 32 00"; ///< the right answer to askText
    static constexpr char kNoText[] = "00 00";              ///< what becomes of it when the system daemon fails
    static constexpr char kZero[] = "00 00";

private:
    tCell mCell;
    std::optional<Clock::time_point> mSince;
    std::optional<milliseconds> mMeasured;
};

} // namespace rig
