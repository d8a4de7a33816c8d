#include "os/Log.h"

#include "tests/support/LogOutput.h"
#include "tests/support/Sleeper.h"
#include "tests/support/StandardStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using sim::Clock;
using sim::UniqueFd;

/// Nothing can be opened while it lives; what is open stays open.
class NoMoreDescriptors
{
public:
    NoMoreDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        const rlimit few{3, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit mBefore{};
};

/// The thread that made it gets a signal every half a millisecond while it lives, and no system call is restarted.
class Interruptions
{
public:
    Interruptions()
    {
        struct sigaction action
        {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event._sigev_un._tid = gettid();
        timer_create(CLOCK_MONOTONIC, &event, &mTimer);
        const itimerspec interval{{0, 500000}, {0, 500000}};
        timer_settime(mTimer, 0, &interval, nullptr);
    }
    ~Interruptions() { timer_delete(mTimer); }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

private:
    timer_t mTimer{};
};

std::string lines(const std::string& word, std::size_t from, std::size_t to)
{
    std::string out;
    for (std::size_t i = from; i < to; ++i)
        out += word + std::to_string(i) + "\n";
    return out;
}

void logLines(const std::string& word, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        logErr({word, std::to_string(i)});
}

/// Runs it on a thread of its own. False when it takes long; then the reader reads until it returns.
bool returns(const LogOutput& output, std::function<void()> action)
{
    auto done = std::async(std::launch::async, std::move(action));
    const bool inTime = done.wait_for(20s) == std::future_status::ready;
    while (done.wait_for(0s) != std::future_status::ready)
        output.readSome();
    return inTime;
}

/// The numbers of the lines that begin with the word. Each must be whole, and they must grow.
std::vector<std::size_t> numbersOf(const std::string& text, const std::string& word)
{
    std::vector<std::size_t> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with(word))
            continue;
        const std::size_t number = std::strtoul(line.c_str() + word.size(), nullptr, 10);
        EXPECT_EQ(line, word + std::to_string(number));
        EXPECT_TRUE(out.empty() || number > out.back()) << line;
        out.push_back(number);
    }
    return out;
}

/// More lines than any of the outputs holds.
constexpr std::size_t kMany = 10000;

class Log : public ::testing::Test
{
protected:
    Log()
    {
        for (const int number : {SIGPIPE, SIGXFSZ})
            std::signal(number, SIG_IGN);
    }
    ~Log() override
    {
        for (const int number : {SIGPIPE, SIGXFSZ})
            std::signal(number, SIG_DFL);
    }

    std::uint64_t dropped() const { return logDropped() - mBefore; }

    /// The reader is back, and one more line, "back", arrives at the end. Returns all that was read.
    std::string readAll(const LogOutput& output) const
    {
        std::string out;
        std::uint64_t before = 0;
        do {
            for (std::string some = output.readSome(); !some.empty(); some = output.readSome())
                out += some;
            before = dropped();
            logErr({"back"});
        } while (dropped() != before);
        return out + output.readTo("back\n");
    }

private:
    const std::uint64_t mBefore = logDropped();
};

struct tKind
{
    const char* name;
    LogOutput (*open)();
    bool canBeOpened = true; ///< by the log for itself
};

void PrintTo(const tKind& kind, std::ostream* out)
{
    *out << kind.name;
}

/// Standard error is an output whose reader stands still.
class LogTo : public Log, public ::testing::WithParamInterface<tKind>
{
protected:
    LogTo() { begin(mOutput); }

    /// Its first line, and its reader has read it.
    static void begin(const LogOutput& output)
    {
        {
            std::optional<NoMoreDescriptors> noMore;
            if (!GetParam().canBeOpened)
                noMore.emplace();
            logErr({"first"});
        }
        EXPECT_EQ(output.readTo("first\n"), "first\n");
    }

    LogOutput mOutput = GetParam().open();
    const StandardStream mErr{STDERR_FILENO, mOutput.fd()};
};

TEST_P(LogTo, KeepsOrderAndBytes)
{
    std::string wanted;
    for (std::size_t length = 0; length < 50; ++length) {
        const std::string part(length, static_cast<char>(' ' + length));
        logErr({part, "", "-", part});
        wanted += part + "-" + part + "\n";
    }
    logErr({});
    logErr({"end"});
    EXPECT_EQ(mOutput.readTo("end\n"), wanted + "\nend\n");
    EXPECT_EQ(dropped(), 0U);
}

TEST_P(LogTo, DropsWholeLinesWhileNobodyReads)
{
    ASSERT_TRUE(returns(mOutput, [] { logLines("line ", kMany); }));
    const std::uint64_t lost = dropped();
    ASSERT_GT(lost, 0U);
    ASSERT_LT(lost, kMany);
    EXPECT_EQ(readAll(mOutput), lines("line ", 0, kMany - lost) + "back\n");
}

TEST_P(LogTo, DropsWholeLinesWhileSignalsInterrupt)
{
    ASSERT_TRUE(returns(mOutput, [] {
        const Interruptions interruptions;
        logLines("line ", kMany);
    }));
    const std::uint64_t lost = dropped();
    ASSERT_GT(lost, 0U);
    EXPECT_EQ(readAll(mOutput), lines("line ", 0, kMany - lost) + "back\n");
}

/// On a machine that is so busy that the second passes it is tried again.
TEST_P(LogTo, WaitsForAReaderThatComesSoon)
{
    bool wasWaitedFor = false;
    for (int i = 0; i < 10 && !wasWaitedFor; ++i) {
        const LogOutput output = GetParam().open();
        const StandardStream err{STDERR_FILENO, output.fd()};
        begin(output);
        const std::string filler = output.fill();
        const std::uint64_t before = dropped();
        const Sleeper writer([] { logErr({"late"}); });
        const bool waited = writer.fallsAsleep();
        std::string text;
        while (text.size() < filler.size() || !writer.isDone())
            text += output.readSome();
        wasWaitedFor = waited && dropped() == before;
        if (wasWaitedFor) {
            text += text.ends_with("late\n") ? "" : output.readTo("late\n");
            EXPECT_EQ(text, filler + "late\n");
        }
    }
    EXPECT_TRUE(wasWaitedFor);
}

/// It takes a little now and then, never enough: all the waiting together stays short.
TEST_P(LogTo, DoesNotWaitForASlowReaderAgainAndAgain)
{
    const auto start = Clock::now();
    std::string text;
    std::size_t logged = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_LT(Clock::now() - start, 20s) << "was held up " << i << " times";
        for (const std::uint64_t before = dropped(); dropped() == before;)
            logErr({"line ", std::to_string(logged++)});
        text += mOutput.readSome(4096);
    }
    const std::uint64_t lost = dropped();
    text += readAll(mOutput);
    EXPECT_EQ(numbersOf(text, "line ").size(), logged - lost);
}

TEST_P(LogTo, KeepsTheLinesOfThreadsApart)
{
    constexpr std::size_t kEach = kMany / 4;
    const std::vector<std::string> words = {"a ", "bb ", "ccc ", "dddd "};
    {
        std::vector<std::jthread> threads;
        for (const std::string& word : words)
            threads.emplace_back([&word] { logLines(word, kEach); });
    }
    const std::uint64_t lost = dropped();
    const std::string text = readAll(mOutput);
    std::size_t written = 0;
    for (const std::string& word : words)
        written += numbersOf(text, word).size();
    EXPECT_EQ(written, 4 * kEach - lost);
    EXPECT_EQ(std::ranges::count(text, '\n'), static_cast<std::ptrdiff_t>(written + 1));
}

TEST_P(LogTo, CostsNothingWhenItsReaderIsGone)
{
    ASSERT_TRUE(returns(mOutput, [] { logLines("line ", kMany); }));
    mOutput.closeReader();
    const std::uint64_t lost = dropped();
    logLines("line ", kMany);
    EXPECT_EQ(dropped(), lost + kMany);
}

const tKind kPipe = {"Pipe", [] { return LogOutput::pipe(); }};
const tKind kStrangePipe = {"PipeOfAnother", [] { return LogOutput::pipe(); }, false};
const tKind kStream = {"StreamSocket", [] { return LogOutput::socket(SOCK_STREAM); }};
const tKind kPackets = {"PacketSocket", [] { return LogOutput::socket(SOCK_SEQPACKET); }};
const tKind kTerminal = {"Terminal", [] { return LogOutput::terminal(); }};
const tKind kStrangeTerminal = {"TerminalOfAnother", [] { return LogOutput::terminal(); }, false};

constexpr auto nameOf = [](const auto& row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(Outputs, LogTo,
                         ::testing::Values(kPipe, kStrangePipe, kStream, kPackets, kTerminal, kStrangeTerminal),
                         nameOf);

/// What takes a line in parts.
using LogToStream = LogTo;

TEST_P(LogToStream, CompletesALongLineBeforeAnyOther)
{
    const std::string line(1U << 20U, 'x');
    ASSERT_TRUE(returns(mOutput, [&line] { logErr({line, "y"}); }));
    EXPECT_EQ(dropped(), 0U); // a part went out
    std::string text;
    std::size_t logged = 0;
    for (const auto end = Clock::now() + 20s; text.size() < line.size() + 1000 && Clock::now() < end;) {
        text += mOutput.readSome(3000);
        logErr({"line ", std::to_string(logged++)});
    }
    const std::uint64_t lost = dropped();
    EXPECT_GT(lost, 0U);
    text += readAll(mOutput);
    ASSERT_GT(text.size(), line.size() + 2);
    EXPECT_TRUE(text.starts_with(line + "y\nline "));
    const std::string others = text.substr(line.size() + 2);
    EXPECT_EQ(numbersOf(others, "line ").size(), logged - lost);
    EXPECT_EQ(static_cast<std::uint64_t>(std::ranges::count(others, '\n')), logged - lost + 1);
}

INSTANTIATE_TEST_SUITE_P(Outputs, LogToStream,
                         ::testing::Values(kPipe, kStrangePipe, kStream, kTerminal, kStrangeTerminal), nameOf);

TEST_F(Log, WritesEachLineAtOnce)
{
    const LogOutput output = LogOutput::socket(SOCK_SEQPACKET);
    const StandardStream err(STDERR_FILENO, output.fd());
    logErr({"1", "2", "3", "", "4", "5", "6"});
    logErr({});
    logErr({std::string(100000, 'x')});
    EXPECT_THAT(output.writes(), ::testing::ElementsAre("123456\n", "\n", std::string(100000, 'x') + "\n"));
}

TEST_F(Log, WritesEachLineAtOnceToThePipeOfAnother)
{
    const LogOutput output = LogOutput::pipe(O_DIRECT); // a pipe that keeps writes apart
    const StandardStream err(STDERR_FILENO, output.fd());
    {
        const NoMoreDescriptors noMore;
        logErr({"1", "2"});
    }
    logErr({"3", "4", "5"});
    EXPECT_THAT(output.writes(), ::testing::ElementsAre("12\n", "345\n"));
}

TEST_F(Log, DropsALineThatIsLongerThanAPacket)
{
    const LogOutput output = LogOutput::socket(SOCK_SEQPACKET);
    const StandardStream err(STDERR_FILENO, output.fd());
    logErr({std::string(1U << 20U, 'x')});
    EXPECT_EQ(dropped(), 1U);
    logErr({"short"});
    EXPECT_THAT(output.writes(), ::testing::ElementsAre("short\n"));
}

TEST_F(Log, IsHeldOnATerminalByItsUser)
{
    const LogOutput output = LogOutput::terminal();
    const StandardStream err(STDERR_FILENO, output.fd());
    logErr({"first"});
    EXPECT_EQ(output.readTo("first\n"), "first\n");
    tcflow(output.fd(), TCOOFF);
    const bool returned = returns(output, [] { logLines("line ", 100); });
    tcflow(output.fd(), TCOON);
    EXPECT_TRUE(returned);
    EXPECT_EQ(dropped(), 100U);
    EXPECT_EQ(readAll(output), "back\n");
}

TEST_F(Log, KeepsTheOrderOfBothStreamsOnOnePipe)
{
    const LogOutput output = LogOutput::pipe();
    std::string text;
    {
        const StandardStream out(STDOUT_FILENO, output.fd());
        const StandardStream err(STDERR_FILENO, output.fd());
        for (std::size_t i = 0; i < 100; i += 2) {
            logOut({"line ", std::to_string(i)});
            logErr({"line ", std::to_string(i + 1)});
        }
        text = output.readTo("99\n");
    }
    EXPECT_EQ(text, lines("line ", 0, 100));
}

/// The end of the long line goes out before the next line of the other stream.
TEST_F(Log, CompletesALineBeforeThoseOfTheOtherStream)
{
    const LogOutput output = LogOutput::pipe();
    const std::string line(100000, 'x');
    std::string text;
    bool returned = false;
    {
        const StandardStream out(STDOUT_FILENO, output.fd());
        const StandardStream err(STDERR_FILENO, output.fd());
        returned = returns(output, [&line] { logErr({line}); });
        text = output.readSome();
        logOut({"after"});
        text += output.readTo("after\n");
    }
    EXPECT_TRUE(returned);
    EXPECT_EQ(text, line + "\nafter\n");
    EXPECT_EQ(dropped(), 0U);
}

TEST_F(Log, ReachesAnotherReaderThanTheOneThatStandsStill)
{
    const LogOutput still = LogOutput::pipe();
    const LogOutput other = LogOutput::pipe();
    const StandardStream before(STDERR_FILENO, still.fd());
    still.fill();
    ASSERT_TRUE(returns(still, [] { logLines("line ", 10); }));
    EXPECT_EQ(dropped(), 10U);
    const StandardStream err(STDERR_FILENO, other.fd());
    logErr({"here"});
    EXPECT_EQ(other.readTo("here\n"), "here\n");
}

/// A file that ends with its process.
class LogToFile : public Log
{
protected:
    static UniqueFd file(int flags = 0)
    {
        UniqueFd out(open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC | flags, 0600));
        EXPECT_TRUE(out);
        return out;
    }

    static std::string content(const UniqueFd& file)
    {
        std::string out(4096, '\0');
        const ssize_t got = pread(file.get(), out.data(), out.size(), 0);
        out.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return out;
    }
};

TEST_F(LogToFile, GoesOnWhereTheFileIs)
{
    const UniqueFd own = file();
    ASSERT_EQ(write(own.get(), "0123456789", 10), 10);
    lseek(own.get(), 4, SEEK_SET);
    const StandardStream err(STDERR_FILENO, own.get());
    logErr({"ab"});
    EXPECT_EQ(content(own), "0123ab\n789");
}

TEST_F(LogToFile, AppendsWhereTheFileIsAppendedTo)
{
    const UniqueFd own = file(O_APPEND);
    ASSERT_EQ(write(own.get(), "0123456789", 10), 10);
    lseek(own.get(), 4, SEEK_SET);
    const StandardStream err(STDERR_FILENO, own.get());
    logErr({"ab"});
    EXPECT_EQ(content(own), "0123456789ab\n");
}

TEST_F(LogToFile, CompletesALineThatFoundTheFileFull)
{
    const UniqueFd own = file();
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{10, before.rlim_max};
    {
        const StandardStream err(STDERR_FILENO, own.get());
        setrlimit(RLIMIT_FSIZE, &small);
        logErr({"0123456"});
        logErr({"abcdefg"});
        logErr({"dropped"});
        setrlimit(RLIMIT_FSIZE, &before);
        logErr({"later"});
    }
    EXPECT_EQ(content(own), "0123456\nabcdefg\nlater\n");
    EXPECT_EQ(dropped(), 1U);
}

TEST_F(LogToFile, CountsWhatAFullDeviceDoesNotTake)
{
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const StandardStream err(STDERR_FILENO, full.get());
    logLines("line ", kMany);
    EXPECT_EQ(dropped(), kMany);
}

TEST_F(Log, CostsNothingWithoutAReader)
{
    LogOutput output = LogOutput::pipe();
    const StandardStream err(STDERR_FILENO, output.fd());
    output.closeReader();
    logLines("line ", kMany);
    EXPECT_EQ(dropped(), kMany);
}

TEST_F(Log, LetsTheProcessEndWhileThreadsWrite)
{
    const auto writeAndEnd = [] {
        const LogOutput output = LogOutput::pipe();
        dup2(output.fd(), STDERR_FILENO);
        for (int i = 0; i < 4; ++i)
            std::thread([] {
                for (;;)
                    logErr({"line"});
            }).detach();
        for (const std::uint64_t before = logDropped(); logDropped() == before;)
            std::this_thread::yield();
        std::exit(7);
    };
    EXPECT_EXIT(writeAndEnd(), ::testing::ExitedWithCode(7), "");
}

TEST_F(Log, CostsNothingWhenTheStreamIsClosed)
{
    const UniqueFd before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    close(STDERR_FILENO);
    logLines("line ", 10);
    dup2(before.get(), STDERR_FILENO);
    EXPECT_EQ(dropped(), 10U);
}

} // namespace
