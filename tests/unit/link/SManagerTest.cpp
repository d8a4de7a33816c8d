#include "link/SManager.h"

#include "link/SerialException.h"
#include "tests/support/ScriptedSerial.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>

namespace {

class SManagerTest : public testing::Test
{
protected:
    SManagerTest()
    {
        mgr->mDevice.clear();
        mgr->mBaudrate = 0;
    }
    ~SManagerTest() override { SManager::registerSerialBackend(nullptr); }

    ScriptedSerial* registerKind(int kind)
    {
        auto* backend = new ScriptedSerial(kind);
        EXPECT_TRUE(SManager::registerSerialBackend(backend));
        return backend;
    }

    /// What initBackend writes to standard error.
    std::string complaint(bool expected)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(mgr->initBackend(), expected);
        return testing::internal::GetCapturedStderr();
    }

    std::shared_ptr<SManager> mgr = SManager::mgr();
};

/// The shared-memory backend finds texts in words that are numbers to the serial port.
template <class Word>
const char* textIn(Word word)
{
    return std::bit_cast<const char*>(static_cast<std::uintptr_t>(word));
}

TEST_F(SManagerTest, IsOneForAll)
{
    ASSERT_NE(mgr, nullptr);
    EXPECT_EQ(SManager::mgr(), mgr);
}

TEST_F(SManagerTest, StartsWithoutDeviceAndRate)
{
    const SManager fresh;
    EXPECT_EQ(fresh.mDevice, "");
    EXPECT_EQ(fresh.mBaudrate, 0U);
}

TEST_F(SManagerTest, HandsOutTheRegisteredBackend)
{
    auto* backend = registerKind(0);
    EXPECT_EQ(SManager::getSerialBackend(), backend);
}

TEST_F(SManagerTest, DeletesTheBackendThatWasRegisteredBefore)
{
    int deleted = 0;
    registerKind(0)->onDelete([&] { ++deleted; });
    auto* second = registerKind(0);
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(SManager::getSerialBackend(), second);
}

TEST_F(SManagerTest, OpensTheSerialPortWithEightBitsNoParityOneStopBit)
{
    auto* backend = registerKind(0);
    mgr->mDevice = "/dev/ttyS7";
    mgr->mBaudrate = 115200;
    EXPECT_EQ(complaint(true), "");
    const auto inits = backend->inits();
    ASSERT_EQ(inits.size(), 1U);
    EXPECT_EQ(inits[0].device, "/dev/ttyS7");
    EXPECT_EQ(inits[0].params.baudrate, 115200U);
    EXPECT_EQ(inits[0].params.dataBits, 8U);
    EXPECT_EQ(inits[0].params.parity, 0U);
    EXPECT_EQ(inits[0].params.stopBits, 1U);
    EXPECT_EQ(inits[0].params.flowCtrl, 0U);
}

TEST_F(SManagerTest, TakesDeviceAndRateOfTheMoment)
{
    auto* backend = registerKind(0);
    ASSERT_TRUE(mgr->initBackend());
    mgr->mDevice = "/dev/ttyUSB0";
    mgr->mBaudrate = 4294967295U;
    ASSERT_TRUE(mgr->initBackend());
    const auto inits = backend->inits();
    ASSERT_EQ(inits.size(), 2U);
    EXPECT_EQ(inits[0].device, "");
    EXPECT_EQ(inits[0].params.baudrate, 0U);
    EXPECT_EQ(inits[1].device, "/dev/ttyUSB0");
    EXPECT_EQ(inits[1].params.baudrate, 4294967295U);
}

TEST_F(SManagerTest, GivesTheSharedMemoryBackendTheNamesOfItsRegions)
{
    auto* backend = registerKind(1);
    mgr->mDevice = "/dev/ttyS7";
    mgr->mBaudrate = 115200;
    EXPECT_EQ(complaint(true), "");
    const auto inits = backend->inits();
    ASSERT_EQ(inits.size(), 1U);
    const auto& params = inits[0].params;
    EXPECT_STREQ(params.device, "ShmVorlanTerminal");
    EXPECT_STREQ(textIn(params.baudrate), "ShmVorlanTerminal");
    EXPECT_STREQ(textIn(params.dataBits), "ShmVorlanQV");
    EXPECT_STREQ(textIn(params.parity), "ShmVorlanQV");
    EXPECT_EQ(params.stopBits, 0U);
    EXPECT_EQ(params.flowCtrl, 0U);
    EXPECT_NE(params.device, textIn(params.baudrate)) << "the second name is a copy of its own";
    EXPECT_NE(textIn(params.dataBits), textIn(params.parity)) << "the second name is a copy of its own";
}

TEST_F(SManagerTest, GivesBothKindsTheSameRecordOfSixWords)
{
    EXPECT_EQ(offsetof(tInitParams, device), 0 * sizeof(void*));
    EXPECT_EQ(offsetof(tInitParams, baudrate), 1 * sizeof(void*));
    EXPECT_EQ(offsetof(tInitParams, dataBits), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(tInitParams, parity), 3 * sizeof(void*));
    EXPECT_EQ(offsetof(tInitParams, stopBits), 4 * sizeof(void*));
    EXPECT_EQ(offsetof(tInitParams, flowCtrl), 5 * sizeof(void*));
    EXPECT_EQ(sizeof(tInitParams), 6 * sizeof(void*));
}

TEST_F(SManagerTest, RefusesABackendOfAnyOtherKind)
{
    for (const int kind : {2, -1, 255}) {
        auto* backend = registerKind(kind);
        EXPECT_EQ(complaint(false), "") << kind;
        EXPECT_TRUE(backend->inits().empty()) << kind;
    }
}

TEST_F(SManagerTest, RefusesToOpenNothing)
{
    SManager::registerSerialBackend(nullptr);
    EXPECT_EQ(SManager::getSerialBackend(), nullptr);
    EXPECT_EQ(complaint(false), "");
}

TEST_F(SManagerTest, IgnoresWhatInitReturns)
{
    for (const int kind : {0, 1}) {
        registerKind(kind)->refuseInit(-1);
        EXPECT_EQ(complaint(true), "") << kind;
    }
}

TEST_F(SManagerTest, SaysWhyTheBackendCouldNotBeOpened)
{
    for (const int kind : {0, 1}) {
        registerKind(kind)->throwOnInit(SerialException("SerialPhy::open: failed: No such file or directory"));
        EXPECT_EQ(complaint(false), "SManager: initBacked: SerialPhy::open: failed: No such file or directory\n");
    }
    registerKind(0)->throwOnInit(std::logic_error("any standard exception"));
    EXPECT_EQ(complaint(false), "SManager: initBacked: any standard exception\n");
}

} // namespace
