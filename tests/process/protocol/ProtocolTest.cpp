#include "tests/process/protocol/ProtocolTest.h"

#include <algorithm>
#include <csignal>
#include <sstream>

using rig::milliseconds;

namespace {

std::string sortedLines(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line + "\n");
    std::ranges::sort(lines);
    std::string out;
    for (const std::string& line : lines)
        out += line;
    return out;
}

} // namespace

void ProtocolTest::TearDown()
{
    if (mBooted)
        stop();
    mRig.daemon().kill();
    if (HasFailure())
        std::fprintf(stderr, "%s--- standard output\n%s--- standard error\n%s", timeline().text().c_str(),
                     mRig.daemon().out().c_str(), mRig.daemon().err().c_str());
}

void ProtocolTest::boot(const sim::Daemon::tOptions& options)
{
    mRig.start(options);
    bootRunning();
}

void ProtocolTest::bootRunning()
{
    mBooted = true;
    mRig.restartPeer();
    ASSERT_TRUE(mRig.peer().sync());
    // The line comes when the service has its bus, or has none.
    ASSERT_TRUE(mRig.daemon().waitForOutput(rig::kRetrying));
    beginSpan();
}

void ProtocolTest::stop()
{
    mBooted = false;
    const auto& counts = mRig.peer().counts();
    EXPECT_EQ(0U, counts.stale + counts.broken + counts.resets + counts.repeats);
    EXPECT_EQ("", rig::hex(mRig.leftovers()));
    const auto end = rig::Clock::now() + rig::kDeadline;
    mRig.daemon().signal(SIGTERM);
    mRig.peer().setTimeout(milliseconds{200});
    // The flag is looked at between two requests only, and a request may overtake the signal.
    while (mRig.daemon().running() && rig::Clock::now() < end) {
        mRig.peer().sync();
        mRig.daemon().waitExit(milliseconds{100});
    }
    EXPECT_EQ(sim::exited(0), mRig.daemon().waitExit());
    compareLines();
    mOut = rig::kStarted;
    mErr.clear();
    // What QV sent after the daemon's last read would meet the next one.
    mRig.hangUp();
    mRig.device().line().reopen();
    mRig.connect();
}

void ProtocolTest::compareLines()
{
    EXPECT_EQ("", rig::sanitizerReport(mRig.daemon().err()));
    if (mAnyLines)
        return;
    const auto ordered = [this](const std::string& text) { return mAnyOrder ? sortedLines(text) : text; };
    EXPECT_EQ(ordered(mOut + rig::kStopped), ordered(mRig.daemon().out()));
    EXPECT_EQ(ordered(mErr), ordered(rig::linesWithout(mRig.daemon().err(), "SDBusManager: ")));
}

std::string ProtocolTest::ask(const Bytes& message)
{
    beginSpan();
    return mRig.ask(message);
}

void ProtocolTest::tell(const Bytes& message)
{
    beginSpan();
    mRig.peer().sendFrame(mRig.peer().number(), message);
}

std::string ProtocolTest::reply()
{
    const auto frame = mRig.peer().receiveFrame(qv::Clock::now() + rig::kDeadline);
    if (!frame || !frame->ok() || frame->header != qv::nextNumber(mRig.peer().number()))
        return "none";
    EXPECT_TRUE(mRig.peer().sync()); // it has not seen the number go on
    return rig::hex(frame->payload);
}

ProtocolTest::Calls ProtocolTest::calls()
{
    Calls out;
    for (const sim::tEvent& event :
         timeline().select([](const sim::tEvent& e) { return e.kind == sim::KindE::eCall; }, mSpan)) {
        const std::string call = event.call();
        out.push_back(event.service == "sysd" ? call.substr(sizeof "sysd." - 1) : call);
    }
    return out;
}

ProtocolTest::Calls ProtocolTest::signals()
{
    const std::string mark = std::to_string(++mMark);
    EXPECT_EQ("01", mRig.ask(req::status(mMark)));
    EXPECT_TRUE(comes(sim::match::property("StatusQV", mark)));
    Calls out;
    for (const sim::tEvent& event : timeline().events(mSpan)) {
        const bool heard =
            event.service == "vorlan" && (event.kind == sim::KindE::eSignal || event.kind == sim::KindE::eProperty);
        if (heard && !(event.member == "StatusQV" && event.arguments == mark))
            out.push_back(event.call().substr(sizeof "vorlan." - 1));
    }
    return out;
}

void ProtocolTest::when(const std::string& call, std::function<void()> action)
{
    mActions[call] = std::move(action);
    timeline().listen([actions = mActions](const sim::tEvent& event, bool) {
        const auto found = actions.find(event.member + "(" + event.arguments + ")");
        if (event.kind == sim::KindE::eCall && found != actions.end())
            found->second();
    });
}

namespace req {

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes u16(unsigned int value)
{
    return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8U)};
}

Bytes u32(std::uint32_t value)
{
    return joined({u16(value & 0xFFFFU), u16(value >> 16U)});
}

} // namespace req
