#include "tests/process/protocol/ProtocolTest.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <thread>

namespace {

using rig::call;
using Bytes = qv::Bytes;

/// With its standard output and error on pipes that the test can stop up.
class LogOrderTest : public ProtocolTest
{
protected:
    enum StreamE
    {
        eOut,
        eErr
    };

    void SetUp() override
    {
        for (const char* name : {"out", "err"}) {
            const std::string path = fifo(name);
            ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
            mFifos.emplace_back(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
            ASSERT_TRUE(mFifos.back());
        }
        sim::Daemon::tOptions options;
        options.wrapper = {"/bin/sh", "-c", R"(exec "$@" >"$0out" 2>"$0err")", mRig.device().folder() + "/"};
        mRig.start(options);
        mRig.restartPeer();
        ASSERT_TRUE(mRig.peer().sync());
        ASSERT_TRUE(says(eErr, rig::kRetrying)); // the last line of the status service for now
    }

    std::string fifo(const std::string& name) { return mRig.device().folder() + "/" + name; }

    /// The daemon blocks when it next writes there.
    void stopUp(StreamE stream)
    {
        const std::string filler(512, '#');
        while (write(mFifos[stream].get(), filler.data(), filler.size()) > 0) {
        }
        while (write(mFifos[stream].get(), filler.data(), 1) > 0) {
        }
    }

    /// Reads until the text has come; what was used for stopping up is left out.
    bool says(StreamE stream, const std::string& text)
    {
        std::string all;
        while (all.find(text) == std::string::npos) {
            pollfd poller{mFifos[stream].get(), POLLIN, 0};
            char chunk[4096];
            if (poll(&poller, 1, static_cast<int>(rig::kDeadline.count())) <= 0)
                return false;
            const ssize_t count = read(mFifos[stream].get(), chunk, sizeof chunk);
            all.append(chunk, count > 0 ? static_cast<std::size_t>(count) : 0);
            std::erase(all, '#');
        }
        return true;
    }

    /// Waits until the daemon's main thread is stuck in a write to the stream.
    bool blocks(StreamE stream)
    {
        const std::string wanted = std::to_string(SYS_write) + (stream == eOut ? " 0x1 " : " 0x2 ");
        const auto end = rig::Clock::now() + rig::kDeadline;
        while (rig::Clock::now() < end) {
            std::ifstream syscall("/proc/" + std::to_string(mRig.daemon().pid()) + "/syscall");
            std::string line;
            if (std::getline(syscall, line) && line.starts_with(wanted))
                return true;
            std::this_thread::yield();
        }
        return false;
    }

    /// The reply came before the line that could not be written.
    void expectReplyBefore(StreamE stream, const Bytes& request, const std::string& wanted, const std::string& line)
    {
        stopUp(stream);
        EXPECT_EQ(wanted, ask(request));
        EXPECT_TRUE(blocks(stream));
        EXPECT_TRUE(says(stream, line));
    }

    /// The line kept the reply back.
    void expectReplyBehind(StreamE stream, const Bytes& request, const std::string& wanted, const std::string& line)
    {
        stopUp(stream);
        tell(request);
        EXPECT_TRUE(blocks(stream));
        EXPECT_EQ("", rig::hex(mRig.port().read(qv::Clock::now() + rig::milliseconds{50})));
        EXPECT_TRUE(says(stream, line));
        EXPECT_EQ(wanted, reply());
    }

    std::vector<sim::UniqueFd> mFifos;
};

} // namespace

TEST_F(LogOrderTest, AnUnknownCommandIsLoggedBehindItsReply)
{
    expectReplyBefore(eErr, {0x07, 0x00}, "87", "Vorlan: unknown cmd detected: 7\n");
}

TEST_F(LogOrderTest, AnUnknownMethodIsLoggedBeforeItsReply)
{
    expectReplyBehind(eErr, call(13), "82", "Vorlan: unknown methodID detected: 13\n");
}

TEST_F(LogOrderTest, ApplyConfigIsLoggedBeforeItsReply)
{
    expectReplyBehind(eOut, req::applyConfig(), "02", "Vorlan: ApplyConfig\n");
}

TEST_F(LogOrderTest, TheRawBrightnessIsLoggedBeforeItsReply)
{
    expectReplyBehind(eOut, rig::readReg(wire::eRegRdDispBrightnessRaw), "00 c8",
                      "Vorlan: readReg eRegRdDispBrightnessRaw 200\n");
}

TEST_F(LogOrderTest, TheProtocolVersionIsLoggedBeforeItsReply)
{
    expectReplyBehind(eOut, rig::writeReg(wire::eRegWrQVProtVersion, Bytes{9}), "01",
                      "Vorlan: writeReg eRegWrQVProtVersion 9\n");
}

TEST_F(LogOrderTest, AWriteToAnUnknownAddressIsLoggedBeforeItsReply)
{
    expectReplyBehind(eErr, rig::writeReg(7, Bytes{9}), "81",
                      "Vorlan: unknown address for register write detected: 7\n");
}

TEST_F(LogOrderTest, TheConfiguredInterfaceIsLoggedBeforeItsReply)
{
    ask(req::applyConfig());
    expectReplyBehind(eErr, call(wire::eMethodSetNetworkCfg), "02", "Vorlan: setNetworkCfg: ETHInternal: eth0\n");
}
