#pragma once

#include "tests/process/RigTest.h"

#include <optional>
#include <string>

namespace rig {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true; ///< the daemon is slower, and keeps what it freed
#else
inline constexpr bool kSanitized = false;
#endif

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
    /// Asks for register 3 until the answer is the right one; false when the bound is used up.
    bool givesRightText();
    /// Remembers how much memory the daemon has, and whether it never had so much more since.
    void rememberMemory();
    void expectMemoryWithin(std::size_t megabytes);
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
    std::size_t mMemory = 0;
};

/// For the names of tests, and of cells.
inline std::string busName(const ::testing::TestParamInfo<sim::BusKindE>& info)
{
    return info.param == sim::BusKindE::eBroker ? "OnDBusBroker" : "OnDBusDaemon";
}
inline std::string onBus(sim::BusKindE kind)
{
    return kind == sim::BusKindE::eBroker ? ", dbus-broker" : ", dbus-daemon";
}

inline const auto kEachBus = ::testing::Values(sim::BusKindE::eStock, sim::BusKindE::eBroker);

/// On both implementations of a bus.
class OnEachBus : public FaultTest, public ::testing::WithParamInterface<sim::BusKindE>
{
protected:
    OnEachBus() { mRig.device().runBusesAs(GetParam()); }
    std::string named(const std::string& fault) const { return fault + onBus(GetParam()); }
};

} // namespace rig
