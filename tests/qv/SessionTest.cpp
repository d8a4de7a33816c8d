#include "qv/Session.h"

#include "qv/Ping.h"
#include "qv/Shell.h"
#include "qv/Words.h"
#include "tests/qv/Hex.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

/// Answers each frame at once with what was laid down for it.
class AnsweringLine : public qv::Line
{
public:
    void write(qv::ByteView) override
    {
        if (!mAnswers.empty()) {
            mIncoming.insert(mIncoming.end(), mAnswers.front().begin(), mAnswers.front().end());
            mAnswers.pop_front();
        }
    }
    qv::Bytes read(qv::Clock::time_point deadline) override
    {
        if (mHangsUp && mAnswers.empty() && mIncoming.empty()) {
            throw qv::LineError("the line hung up");
        }
        if (mIncoming.empty()) {
            std::this_thread::sleep_until(deadline);
        }
        return std::exchange(mIncoming, {});
    }

    std::deque<qv::Bytes> mAnswers;
    bool mHangsUp = false; ///< after the answers

private:
    qv::Bytes mIncoming;
};

qv::Bytes frame(unsigned header, const std::string& payload)
{
    return qv::toWire(qv::buildFrame(static_cast<std::uint8_t>(header), hex(payload)));
}

class SessionTest : public testing::Test
{
protected:
    void answers(std::initializer_list<qv::Bytes> frames)
    {
        mLine.mAnswers.insert(mLine.mAnswers.end(), frames.begin(), frames.end());
    }

    AnsweringLine mLine;
    qv::Peer mPeer{mLine, {.timeout = 300ms, .tries = 3, .baud = 0, .firstNumber = 8}};
    std::ostringstream mOut;
    std::ostringstream mErr;
    qv::Session mSession{mPeer, mOut, mErr};
};

TEST_F(SessionTest, ReadsSeveralRegistersInATable)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 50"), frame(3, "00 61 00")});
    EXPECT_EQ(mSession.run(Words{"read", "brightness-raw", "ip-addr"}), qv::eStatusDone);
    EXPECT_EQ(mOut.str(), "brightness-raw  80\nip-addr         a\n");
}

TEST_F(SessionTest, ShowsRegistersBeyondTheTableAsBytes)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 50 51")});
    EXPECT_EQ(mSession.runLine("read 0xFE"), qv::eStatusDone);
    EXPECT_EQ(mOut.str(), "254  50 51\n");
}

TEST_F(SessionTest, NothingIsSentForAMistake)
{
    EXPECT_EQ(mSession.runLine("read brightness-raw nonsense"), qv::eStatusUsage);
    EXPECT_EQ(mPeer.counts().sent, 0U);
    EXPECT_EQ(mSession.runLine("write qv-status"), qv::eStatusUsage);
    EXPECT_EQ(mSession.runLine("read 'x"), qv::eStatusUsage);
    EXPECT_EQ(mSession.runLine("jump"), qv::eStatusUsage);
    EXPECT_EQ(mErr.str(), "there is no register to read called 'nonsense'; 'list' shows all\n"
                          "usage: write NAME VALUE\n"
                          "a quotation mark ' is missing\n"
                          "there is no command 'jump'; 'help' shows all\n");
    EXPECT_EQ(mSession.runLine("   "), qv::eStatusDone);
}

TEST_F(SessionTest, TellsOfARefusal)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "82")});
    EXPECT_EQ(mSession.runLine("call set-cfg-str '' x"), qv::eStatusRefused);
    EXPECT_NE(mErr.str().find("call set-cfg-str '' x: refused by the device (error bit set)"), std::string::npos);
}

TEST_F(SessionTest, TellsWhenNothingComes)
{
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("call beep: no answer: nothing at all came back in 3 tries of 300 ms."),
              std::string::npos);
    EXPECT_NE(mErr.str().find("Is the daemon running"), std::string::npos);
    EXPECT_NE(mErr.str().find("--baud"), std::string::npos);
    EXPECT_EQ(mErr.str().find("may have been carried out"), std::string::npos) << "it was never sent";
}

TEST_F(SessionTest, TellsWhenOnlyTheAnswerIsMissing)
{
    answers({frame(9, "00 00"), frame(1, "00 00")});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("The daemon was in step just before."), std::string::npos);
    EXPECT_NE(mErr.str().find("may have been carried out"), std::string::npos);
}

TEST_F(SessionTest, TellsThatAnUnknownRegisterIsNeverAnswered)
{
    answers({frame(9, "00 00"), frame(1, "00 00")});
    EXPECT_EQ(mSession.runLine("read 10"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("The daemon never answers the read of a register that it does not have"),
              std::string::npos);
}

TEST_F(SessionTest, TellsOfBrokenFrames)
{
    answers({hex("55 66 77 00"), hex("55 66 77 00"), hex("55 66 77 00")});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("only broken frames came back"), std::string::npos);
    EXPECT_NE(mErr.str().find("Most likely the rate is wrong"), std::string::npos);
}

TEST_F(SessionTest, OnceInStepResetFramesAreNotTakenForSilence)
{
    qv::Peer peer(mLine, {.timeout = 300ms, .tries = 1, .firstNumber = 8});
    qv::Session session(peer, mOut, mErr);
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(0x15, "00"), frame(6, "00 00")});
    EXPECT_EQ(session.runLine("read brightness-raw"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("the daemon answered with reset frames"), std::string::npos) << mErr.str();
    EXPECT_NE(mErr.str().find("The line works but is bad"), std::string::npos) << mErr.str();
    EXPECT_EQ(mErr.str().find("Is it stopped"), std::string::npos) << mErr.str();
}

TEST_F(SessionTest, OnceInStepTheRateIsNotBlamedForBrokenFrames)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), hex("55 66 77 00"), hex("55 66 77 00"), hex("55 66 77 00")});
    EXPECT_EQ(mSession.runLine("read 10"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("only broken frames came back"), std::string::npos) << mErr.str();
    EXPECT_NE(mErr.str().find("The line works but is bad"), std::string::npos) << mErr.str();
    EXPECT_EQ(mErr.str().find("register that it does not have"), std::string::npos) << mErr.str();
}

TEST_F(SessionTest, TellsOfALineThatHangsUpLikeOfAnyOtherFailure)
{
    qv::Session session(mPeer, mOut, mErr, {.json = true});
    mLine.mHangsUp = true;
    answers({frame(9, "00 00"), frame(1, "00 00"), {}});
    EXPECT_EQ(session.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_EQ(mErr.str().find("call beep: the line hung up.\n  Was the adapter unplugged"), 0U) << mErr.str();
    EXPECT_NE(mErr.str().find("may have been carried out"), std::string::npos) << mErr.str();
    EXPECT_EQ(mOut.str(), R"({"request":"call beep","name":"beep","number":9,"error":"line gone","mayBeDone":true})"
                          "\n");
    EXPECT_EQ(session.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mOut.str().find(R"("mayBeDone":false)"), std::string::npos) << "the second one was never sent";
    EXPECT_EQ(session.runLine("watch brightness-raw --every 0"), qv::eStatusNoAnswer) << "and it ends";
    EXPECT_EQ(session.runLine("ping"), qv::eStatusNoAnswer);
}

TEST_F(SessionTest, AReplyOfTheWrongSizeIsNoValue)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 01 02"), frame(3, "00")});
    EXPECT_EQ(mSession.runLine("read brightness-raw"), qv::eStatusNoAnswer);
    EXPECT_EQ(mOut.str(), "");
    EXPECT_EQ(mErr.str().find("read brightness-raw: the reply makes no sense: 01 02 (not a u8).\n"), 0U) << mErr.str();
    qv::Session session(mPeer, mOut, mErr, {.json = true});
    EXPECT_EQ(session.runLine("read brightness-raw"), qv::eStatusNoAnswer);
    EXPECT_EQ(
        mOut.str(),
        R"({"request":"read brightness-raw","name":"brightness-raw","number":9,"error":"bad reply","mayBeDone":false})"
        "\n");
    EXPECT_NE(mErr.str().find("the reply makes no sense: nothing (not a u8)."), std::string::npos) << mErr.str();
}

TEST_F(SessionTest, WhatIsStoppedSendsNothingMore)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "02"), frame(3, "02")});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusDone);
    mSession.stop();
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_EQ(mErr.str(), "call beep: interrupted.\n");
    EXPECT_EQ(mPeer.counts().sent, 3U);
    mSession.forgetStop();
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusDone);
}

TEST_F(SessionTest, TellsOfAnEcho)
{
    answers({frame(0x18, "00 00"), frame(0x1F, "00 00"), frame(0x16, "00 00")});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("only what was sent came back (an echo)"), std::string::npos);
    EXPECT_NE(mErr.str().find("loop-back plug"), std::string::npos);
}

TEST_F(SessionTest, TellsWhatIsUnknownAfterAReset)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(0x15, "00"), frame(6, "00 00")});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_NE(mErr.str().find("UNKNOWN"), std::string::npos);
}

TEST_F(SessionTest, SpeaksJson)
{
    qv::Session session(mPeer, mOut, mErr, {.json = true});
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 FF"), frame(3, "01"), frame(4, "02"), frame(5, "82")});
    EXPECT_EQ(session.runLine("read start-code"), qv::eStatusDone);
    EXPECT_EQ(session.runLine("write qv-text-1 'a\"b'"), qv::eStatusDone);
    EXPECT_EQ(session.runLine("call set-cfg-str Key 'a b'"), qv::eStatusDone);
    EXPECT_EQ(session.runLine("call beep"), qv::eStatusRefused);
    EXPECT_EQ(session.runLine("call beep"), qv::eStatusNoAnswer);
    EXPECT_EQ(mOut.str(), R"({"request":"read start-code","name":"start-code","number":8,"value":-1})"
                          "\n"
                          R"({"request":"write qv-text-1 'a\"b'","name":"qv-text-1","number":3,"done":true})"
                          "\n"
                          R"({"request":"call set-cfg-str Key 'a b'","name":"set-cfg-str","number":1,"done":true})"
                          "\n"
                          R"({"request":"call beep","name":"beep","number":9,"error":"refused","mayBeDone":false})"
                          "\n"
                          R"({"request":"call beep","name":"beep","number":9,"error":"no answer","mayBeDone":true})"
                          "\n");
}

TEST_F(SessionTest, TracesEachField)
{
    mSession.setTrace(true);
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 50")});
    mSession.runLine("read brightness-raw");
    auto text = mErr.str();
    for (auto at = text.find(" ms  "); at != std::string::npos;
         at = text.find(" ms  ", at)) { // the times are not the same
        const auto line = text.rfind('\n', at) == std::string::npos ? 0 : text.rfind('\n', at) + 1;
        text.replace(line, at + 5 - line, "");
        at = line;
    }
    EXPECT_EQ(text, "-->  get in step: 02 18 01 03 26 5E 00\n"
                    "                   0  18           number 8, reset flag\n"
                    "                   1  00           read register\n"
                    "                   2  00           const-0\n"
                    "                   3  26 5E        CRC, right\n"
                    "<--  reply: 02 09 01 03 52 0D 00\n"
                    "                   0  09           number 9\n"
                    "                   1  00           answers read register\n"
                    "                   2  00           const-0 0\n"
                    "                   3  52 0D        CRC, right\n"
                    "-->  get in step: 02 10 01 03 8F FF 00\n"
                    "                   0  10           number 0, reset flag\n"
                    "                   1  00           read register\n"
                    "                   2  00           const-0\n"
                    "                   3  8F FF        CRC, right\n"
                    "<--  reply: 02 01 01 03 FB AC 00\n"
                    "                   0  01           number 1\n"
                    "                   1  00           answers read register\n"
                    "                   2  00           const-0 0\n"
                    "                   3  FB AC        CRC, right\n"
                    "-->  request: 02 01 04 09 6A 85 00\n"
                    "                   0  01           number 1\n"
                    "                   1  00           read register\n"
                    "                   2  09           brightness-raw\n"
                    "                   3  6A 85        CRC, right\n"
                    "<--  reply: 02 02 04 50 F8 09 00\n"
                    "                   0  02           number 2\n"
                    "                   1  00           answers read register\n"
                    "                   2  50           brightness-raw 80\n"
                    "                   3  F8 09        CRC, right\n");
}

TEST_F(SessionTest, TracesWhatGoesWrong)
{
    mSession.setTrace(true);
    auto broken = frame(2, "00 50");
    broken[broken.size() - 2] ^= 0x01;
    answers({frame(9, "00 00"), frame(1, "00 00"), broken, frame(0x12, "00")});
    mSession.runLine("call beep");
    const auto text = mErr.str();
    for (const auto* part : {"<--  BROKEN frame", "CRC, WRONG, computed F8 09", "nothing (more)", "repeat (sending 2)",
                             "<--  RESET frame: the daemon is out of step"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    }
}

/// A file of its own for as long as it lives.
struct tFile
{
    explicit tFile(const std::string& text)
        : name(testing::TempDir() + "qv-session-" + std::to_string(getpid()))
    {
        std::ofstream(name) << text;
    }
    ~tFile() { std::remove(name.c_str()); }
    tFile(const tFile&) = delete;
    tFile& operator=(const tFile&) = delete;

    const std::string name;
};

TEST_F(SessionTest, AStartUpIsCheckedBeforeItIsPlayed)
{
    const tFile file("read 0\n\n# comment\njump\ncall beep\nwrite qv-status many\nread 'x\nhelp\nping --count x\n"
                     "trace maybe\nwatch nothing\nboot other\n");
    EXPECT_EQ(mSession.boot(file.name), qv::eStatusUsage);
    EXPECT_EQ(mPeer.counts().sent, 0U);
    EXPECT_EQ(mOut.str(), "");
    const auto& name = file.name;
    const std::string commands = "; there are read, write, call, network, watch, ping, list, trace\n";
    EXPECT_EQ(mErr.str(), name + ":4: there is no command 'jump'" + commands + name +
                              ":6: qv-status: 'many' is no number (80, 0x50, 0o120 and 0b1010000 are)\n" + name +
                              ":7: a quotation mark ' is missing\n" + name + ":8: there is no command 'help'" +
                              commands + name + ":9: --count: 'x' is no number (80, 0x50, 0o120 and 0b1010000 are)\n" +
                              name + ":10: 'maybe' will not do: true or false (yes, no, on, off, 1, 0)\n" + name +
                              ":11: there is no register to read called 'nothing'; 'list' shows all\n" + name +
                              ":12: a boot file cannot play another one\n" + name + ": nothing was sent\n");
}

TEST_F(SessionTest, AStartUpTellsWhereItStopped)
{
    const tFile file("call beep\n\ncall set-cfg-str '' x\ncall beep\n");
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "02"), frame(3, "82")});
    EXPECT_EQ(mSession.boot(file.name), qv::eStatusRefused);
    EXPECT_EQ(mOut.str(), "call beep\ncall set-cfg-str '' x\n");
    EXPECT_NE(mErr.str().find("call set-cfg-str '' x: refused"), std::string::npos) << mErr.str();
    EXPECT_NE(mErr.str().find(file.name + ":3: stopped here\n"), std::string::npos) << mErr.str();
}

TEST_F(SessionTest, AFolderIsNoStartUp)
{
    EXPECT_EQ(mSession.runLine("boot ."), qv::eStatusUsage);
    EXPECT_EQ(mErr.str(), "cannot read .: Is a directory\n");
}

TEST_F(SessionTest, TracesBytesThatFormNoFrame)
{
    mSession.setTrace(true);
    answers({hex("6C 6F 67 69 6E 3A 20 FF"), qv::Bytes(1000, 0x55)});
    EXPECT_EQ(mSession.runLine("call beep"), qv::eStatusNoAnswer);
    const auto text = mErr.str();
    EXPECT_NE(text.find("<--  bytes without the end of a frame (8): 6C 6F 67 69 6E 3A 20 FF  \"login: .\"\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("(1000): 55 55"), std::string::npos) << text;
    EXPECT_NE(text.find("55 ...  \"UUUU"), std::string::npos) << text;
    EXPECT_LT(text.size(), 2000U);
}

TEST_F(SessionTest, WatchShowsEachChange)
{
    qv::Session session(mPeer, mOut, mErr, {.quiet = true});
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 50"), frame(3, "00 50"), frame(4, "00 51")});
    EXPECT_EQ(session.runLine("watch brightness-raw --every 0 --count 3"), qv::eStatusDone);
    EXPECT_EQ(mOut.str(), "80\n81\n");
}

TEST_F(SessionTest, PingReports)
{
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 00"), frame(3, "00 00"), frame(4, "00 00")});
    EXPECT_EQ(mSession.runLine("ping --count 3"), qv::eStatusDone);
    EXPECT_EQ(mOut.str().find("3 requests, 3 answered, 0 repeats\nminimum "), 0U);
}

TEST_F(SessionTest, PingOnADeadLineSaysSoAtOnce)
{
    EXPECT_EQ(mSession.runLine("ping --count 3"), qv::eStatusNoAnswer);
    EXPECT_EQ(mPeer.counts().sent, 3U) << "the tries of getting in step once";
    EXPECT_EQ(mErr.str().find("read const-0: no answer: nothing at all came back"), 0U) << mErr.str();
    EXPECT_EQ(mOut.str(), "");
}

TEST_F(SessionTest, PingOfNothingIsAMistake)
{
    EXPECT_EQ(mSession.runLine("ping --count 0"), qv::eStatusUsage);
    EXPECT_EQ(mPeer.counts().sent, 0U);
}

TEST_F(SessionTest, AQuietPingDrawsNothing)
{
    qv::Session session(mPeer, mOut, mErr, {.quiet = true});
    answers({frame(9, "00 00"), frame(1, "00 00"), frame(2, "00 00"), frame(3, "00 00"), frame(4, "00 00")});
    EXPECT_EQ(session.runLine("ping --count 3"), qv::eStatusDone);
    EXPECT_EQ(std::ranges::count(mOut.str(), '\n'), 2) << mOut.str();
}

TEST(Ping, PercentilesAreThoseOfTheNearestRank)
{
    qv::tPingReport report;
    for (int i = 100; i >= 1; --i) {
        report.times.emplace_back(std::chrono::milliseconds(i));
    }
    EXPECT_EQ(report.percentile(0), 1ms);
    EXPECT_EQ(report.percentile(50), 50ms);
    EXPECT_EQ(report.percentile(99), 99ms);
    EXPECT_EQ(report.percentile(100), 100ms);
    report.times = {5ms};
    EXPECT_EQ(report.percentile(99), 5ms);
}

TEST(Ping, DrawsAHistogram)
{
    qv::tPingReport report{4, 1, {1ms, 1ms, 1ms, 11ms}};
    std::ostringstream out;
    report.writeText(out);
    EXPECT_EQ(out.str().find("4 requests, 4 answered, 1 repeats\n"
                             "minimum 1.000 ms, median 1.000 ms, 99th percentile 11.000 ms, maximum 11.000 ms\n"
                             "    1.000 ms      3 " +
                             std::string(50, '#') + "\n"),
              0U)
        << out.str();
    EXPECT_NE(out.str().find("   10.000 ms      1 " + std::string(17, '#') + "\n"), std::string::npos) << out.str();
    std::ostringstream json;
    report.writeJson(json);
    EXPECT_EQ(
        json.str(),
        R"({"request":"ping","sent":4,"answered":4,"repeats":1,"minMs":1.000000,"medianMs":1.000000,"p99Ms":11.000000,"maxMs":11.000000})"
        "\n");
}

TEST(Words, AreSplitLikeInAShell)
{
    EXPECT_EQ(qv::splitWords("  read\t9 "), (Words{"read", "9"}));
    EXPECT_EQ(qv::splitWords("write qv-text-1 'a b'\"c d\"e"), (Words{"write", "qv-text-1", "a bc de"}));
    EXPECT_EQ(qv::splitWords(R"(a\ b "c\"d" 'e\f' '')"), (Words{"a b", "c\"d", "e\\f", ""}));
    EXPECT_EQ(qv::splitWords(""), Words{});
    EXPECT_EQ(qv::splitWords("  # a comment"), Words{});
    EXPECT_EQ(qv::splitWords("a #b"), (Words{"a", "#b"}));
    EXPECT_THROW(qv::splitWords("\"a"), qv::RequestError);
    for (const std::string word : {"", "a", "a b", "it's", "\"", "\\", "a\tb"}) {
        EXPECT_EQ(qv::splitWords(qv::quotedWord(word)), Words{word});
    }
}

TEST(Completion, KnowsEveryNameAndArgument)
{
    EXPECT_EQ(qv::completions({}, "w"), (Words{"write", "watch"}));
    EXPECT_EQ(qv::completions(Words{"read"}, "bright"), Words{"brightness-raw"});
    EXPECT_EQ(qv::completions(Words{"read", "ip-addr"}, "").size(), std::size(wire::kReadRegisters));
    EXPECT_EQ(qv::completions(Words{"write"}, "time"), (Words{"time-zone", "time-zone-flag"}));
    EXPECT_EQ(qv::completions(Words{"write", "time-zone-flag"}, "t"), Words{"true"});
    EXPECT_EQ(qv::completions(Words{"call"}, "").size(), std::size(wire::kMethods));
    EXPECT_EQ(qv::completions(Words{"call", "set-cfg-long"}, ""), (Words{"key=", "value="}));
    EXPECT_EQ(qv::completions(Words{"call", "set-cfg-long", "key=x"}, ""), Words{"value="});
    EXPECT_EQ(qv::completions(Words{"call", "set-time"}, "n"), Words{"now"});
    EXPECT_EQ(qv::completions(Words{"network"}, "dns-mode=d"), Words{"dns-mode=dhcp"});
    EXPECT_EQ(qv::completions(Words{"network"}, "gate"), Words{"gateway="});
    EXPECT_EQ(qv::completions(Words{"watch"}, "cfg"), Words{"cfg-applied"});
    EXPECT_EQ(qv::completions(Words{"watch", "cfg-applied"}, "--e"), Words{"--every"});
    EXPECT_EQ(qv::completions(Words{"trace"}, ""), (Words{"on", "off"}));
    EXPECT_EQ(qv::completions(Words{"help"}, "emu"), Words{"emu-input-ev"});
    EXPECT_EQ(qv::completions(Words{"nonsense"}, ""), Words{});
}

TEST(Completion, GivesFileNamesAsTheyHaveToBeTyped)
{
    const tFile file("");
    const auto odd = file.name + " it's";
    std::ofstream(odd) << "";
    EXPECT_EQ(qv::completions(Words{"boot"}, file.name), (Words{file.name, file.name + "\\ it\\'s"}));
    EXPECT_EQ(qv::splitWords(file.name + "\\ it\\'s"), Words{odd});
    std::remove(odd.c_str());
    EXPECT_EQ(qv::completions(Words{"boot"}, "/no/such/folder/"), Words{});
}

TEST(Completion, KnowsCommandsThatWereAdded)
{
    const qv::tExtraCommand extra[] = {{"fault", "NAME", "break something", [](auto) { return 0; },
                                        [](auto) {
                                            return Words{"sysd", "idle"};
                                        }}};
    EXPECT_EQ(qv::completions({}, "fau", extra), Words{"fault"});
    EXPECT_EQ(qv::completions(Words{"fault"}, "s", extra), Words{"sysd"});
}

} // namespace
