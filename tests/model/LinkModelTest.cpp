// The rules of model/link.pml, read from the model itself, against the daemon's data link: every short sequence of
// frames that a fresh link can be given is played to both.

#include "link/SDataLink.h"
#include "link/SManager.h"
#include "qv/Cobs.h"
#include "qv/Frame.h"
#include "tests/support/ScriptedSerial.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tBytes = std::vector<unsigned char>;
using Words = std::vector<std::string>;

constexpr unsigned int kNumbers = 16;
constexpr unsigned int kResetFlag = 0x10;
/// What eOther stands for: the daemon's number and so much more, all but its own and the one before.
constexpr unsigned int kFirstOther = 1;
constexpr unsigned int kLastOther = kNumbers - 2;

/// The arguments of all lines "NAME(a, b, c)" of the model, which stand one to a line.
std::vector<Words> rowsOf(const std::string& name)
{
    std::ifstream model(VORLAN_LINK_MODEL);
    const std::regex row(R"(^\s+)" + name + R"(\(([^)]*)\)[ \\]*$)");
    std::vector<Words> rows;
    for (std::string line; std::getline(model, line);) {
        std::smatch match;
        if (!std::regex_match(line, match, row))
            continue;
        std::istringstream words(std::regex_replace(match[1].str(), std::regex(","), " "));
        rows.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    return rows;
}

/// A frame from QV, as the model tells frames apart.
struct tFrame
{
    const char* came;
    bool resetFlag;
    const char* relation; ///< of its number to the daemon's
    bool answered = true; ///< if it is delivered, before the next frame comes
};

constexpr std::array<tFrame, 14> kFrames = {{{"eShort", false, "eOther"},
                                             {"eBadCrc", false, "eSame"},
                                             {"eGood", false, "eSame"},
                                             {"eGood", false, "eBefore"},
                                             {"eGood", false, "eOther"},
                                             {"eGood", true, "eSame"},
                                             {"eGood", true, "eBefore"},
                                             {"eGood", true, "eOther"},
                                             {"eGood", false, "eSame", false},
                                             {"eGood", false, "eBefore", false},
                                             {"eGood", false, "eOther", false},
                                             {"eGood", true, "eSame", false},
                                             {"eGood", true, "eBefore", false},
                                             {"eGood", true, "eOther", false}}};
constexpr std::span kAnswered(kFrames.data(), 8);

/// Of what a broken frame says nothing counts.
constexpr std::array<tFrame, 15> kMostlyBroken = {{{"eGood", true, "eSame"},
                                                   {"eGood", false, "eSame"},
                                                   {"eGood", false, "eBefore"},
                                                   {"eShort", false, "eSame"},
                                                   {"eShort", false, "eBefore"},
                                                   {"eShort", false, "eOther"},
                                                   {"eShort", true, "eSame"},
                                                   {"eShort", true, "eBefore"},
                                                   {"eShort", true, "eOther"},
                                                   {"eBadCrc", false, "eSame"},
                                                   {"eBadCrc", false, "eBefore"},
                                                   {"eBadCrc", false, "eOther"},
                                                   {"eBadCrc", true, "eSame"},
                                                   {"eBadCrc", true, "eBefore"},
                                                   {"eBadCrc", true, "eOther"}}};

/// The daemon's end as the model has it.
class LinkModel
{
public:
    struct tOutcome
    {
        bool delivered = false;
        std::optional<unsigned int> header; ///< of the frame that is sent, if one is
        tBytes payload;
    };

    unsigned int number() const { return mNumber; }

    /// `reply` is what the daemon answers with if the frame is delivered.
    tOutcome take(const tFrame& frame, unsigned int itsNumber, const tBytes& reply)
    {
        const Words& rule = ruleFor(frame);
        const std::string& action = rule[5];
        if (rule[6] != "eStay")
            mSynchronised = rule[6] == "eYes";
        if (rule[7] == "eTake")
            mNumber = itsNumber;
        tOutcome outcome;
        outcome.delivered = action == "eDeliver";
        if (!outcome.delivered || frame.answered) {
            outcome.header = send(action, reply);
            outcome.payload = mStoredPayload;
        }
        return outcome;
    }

    /// The rules that were needed so far.
    static std::set<const Words*>& used()
    {
        static std::set<const Words*> rules;
        return rules;
    }
    static const std::vector<Words>& rules()
    {
        static const std::vector<Words> rows = rowsOf("RULE");
        return rows;
    }
    static const std::vector<Words>& sends()
    {
        static const std::vector<Words> rows = rowsOf("SEND");
        return rows;
    }

private:
    static bool fits(const std::string& wanted, bool have)
    {
        return wanted == "eAny" || wanted == (have ? "eYes" : "eNo");
    }

    const Words& ruleFor(const tFrame& frame) const
    {
        const Words* found = nullptr;
        for (const Words& rule : rules()) {
            if (rule[0] != frame.came || !fits(rule[1], frame.resetFlag) || !fits(rule[2], mSynchronised) ||
                (rule[3] != "eAny" && rule[3] != frame.relation) || !fits(rule[4], mStored.has_value()))
                continue;
            if (found != nullptr)
                throw std::logic_error("two rules for one case");
            found = &rule;
        }
        if (found == nullptr)
            throw std::logic_error("a case without a rule");
        used().insert(found);
        return *found;
    }

    /// The header of what is sent; what it carries is in mStoredPayload.
    unsigned int send(const std::string& action, const tBytes& reply)
    {
        for (const Words& row : sends()) {
            if (row[0] != action)
                continue;
            if (row[1] == "eYes")
                mResetPending = true;
            const unsigned int next = (mNumber + 1) % kNumbers;
            const unsigned int pending = mResetPending ? kResetFlag : 0;
            const unsigned int header = (row[2] == "eNext" ? next : mStored.value() % kNumbers) |
                                        (row[3] == "ePending" ? pending : mStored.value() & kResetFlag);
            if (row[3] == "ePending")
                mResetPending = false;
            if (row[4] == "eNext")
                mNumber = next;
            if (row[5] == "eYes") {
                mStored = header;
                mStoredPayload = action == "eReset" ? tBytes{0} : reply;
            }
            return header;
        }
        throw std::logic_error("nothing is known of " + action);
    }

    unsigned int mNumber = 0;
    bool mSynchronised = false;
    bool mResetPending = false;
    std::optional<unsigned int> mStored; ///< the last reply's header
    tBytes mStoredPayload;
};

/// The daemon's data link on a scripted line.
class LinkModelTest : public ::testing::Test
{
protected:
    ~LinkModelTest() override
    {
        mLink.reset();
        SManager::registerSerialBackend(nullptr);
    }

    void startLink()
    {
        mLink.reset();
        mLine = new ScriptedSerial;
        SManager::registerSerialBackend(mLine);
        mLink = std::make_unique<SDataLink>();
        ASSERT_TRUE(mLink->init());
    }

    /// What the link is given for it.
    static tBytes wireOf(const tFrame& frame, unsigned int number, const tBytes& request)
    {
        tBytes bytes = qv::buildFrame(static_cast<unsigned char>(number | (frame.resetFlag ? kResetFlag : 0)), request);
        if (frame.came == std::string("eBadCrc"))
            bytes.back() ^= 0x01U;
        if (frame.came == std::string("eShort"))
            bytes.resize(4);
        return qv::toWire(bytes);
    }

    /// `other`: what "any other number" is, from the daemon's on.
    static unsigned int numberOf(const tFrame& frame, unsigned int own, unsigned int other)
    {
        const std::string relation = frame.relation;
        const unsigned int offset = relation == "eSame" ? 0 : relation == "eBefore" ? kNumbers - 1 : other;
        return (own + offset) % kNumbers;
    }

    enum OthersE
    {
        eOneOther, ///< in turn
        eEachOther
    };

    /// All sequences of so many of these frames.
    void playEverySequence(std::span<const tFrame> kinds, std::size_t length, OthersE others = eOneOther)
    {
        std::size_t sequences = 1;
        for (std::size_t i = 0; i < length; ++i)
            sequences *= kinds.size();
        testing::internal::CaptureStderr(); // a line for each broken frame
        for (std::size_t sequence = 0; sequence < sequences && !HasFatalFailure(); ++sequence) {
            SCOPED_TRACE("sequence " + std::to_string(sequence));
            const bool each = others == eEachOther && hasOther(sequence, kinds, length);
            const unsigned int first =
                each ? kFirstOther : kFirstOther + static_cast<unsigned int>(sequence % kLastOther);
            const unsigned int last = each ? kLastOther : first;
            for (unsigned int other = first; other <= last && !HasFatalFailure(); ++other) {
                SCOPED_TRACE("other number " + std::to_string(other));
                play(sequence, kinds, length, other);
            }
        }
        testing::internal::GetCapturedStderr();
    }

    static bool hasOther(std::size_t sequence, std::span<const tFrame> kinds, std::size_t length)
    {
        for (std::size_t i = 0; i < length; ++i, sequence /= kinds.size())
            if (kinds[sequence % kinds.size()].relation == std::string("eOther"))
                return true;
        return false;
    }

    void play(std::size_t sequence, std::span<const tFrame> kinds, std::size_t length, unsigned int other)
    {
        startLink();
        LinkModel model;
        std::size_t sent = 0;
        for (std::size_t i = 0; i < length; ++i, sequence /= kinds.size()) {
            SCOPED_TRACE("frame " + std::to_string(i));
            const tFrame& frame = kinds[sequence % kinds.size()];
            const tBytes request = {0x02, static_cast<unsigned char>(i)};
            const tBytes reply = {0x02, static_cast<unsigned char>(i), 0x80};
            const unsigned int number = numberOf(frame, model.number(), other);
            const LinkModel::tOutcome wanted = model.take(frame, number, reply);

            mLine->deliver(wireOf(frame, number, request));
            tBytes message;
            ASSERT_EQ(mLink->tryRead(message), wanted.delivered ? SDataLink::eReadMessage : SDataLink::eReadHandled);
            if (wanted.delivered) {
                ASSERT_EQ(message, request);
                if (frame.answered)
                    mLink->reply(std::make_unique<tBytes>(reply));
            }
            sent += wanted.header ? 1U : 0U;
            const auto written = mLine->awaitWrites(sent);
            ASSERT_EQ(written.size(), sent);
            if (!wanted.header)
                continue;
            ASSERT_EQ(written.back(),
                      qv::toWire(qv::buildFrame(static_cast<unsigned char>(*wanted.header), wanted.payload)));
        }
    }

    ScriptedSerial* mLine = nullptr;
    std::unique_ptr<SDataLink> mLink;
};

} // namespace

TEST_F(LinkModelTest, theModelHasItsTables)
{
    ASSERT_EQ(LinkModel::rules().size(), 9U);
    for (const Words& rule : LinkModel::rules())
        ASSERT_EQ(rule.size(), 8U);
    ASSERT_EQ(LinkModel::sends().size(), 3U);
    for (const Words& row : LinkModel::sends())
        ASSERT_EQ(row.size(), 6U);
}

TEST_F(LinkModelTest, theDataLinkFollowsItWhenItAnswersEachRequest)
{
    playEverySequence(kAnswered, 4);
}

TEST_F(LinkModelTest, theDataLinkFollowsItWhateverTheOtherNumberIs)
{
    playEverySequence(kAnswered, 3, eEachOther);
    playEverySequence(kFrames, 2, eEachOther);
}

TEST_F(LinkModelTest, theDataLinkFollowsItWhateverIsInABrokenFrame)
{
    playEverySequence(kMostlyBroken, 3);
}

TEST_F(LinkModelTest, theDataLinkFollowsItWhenFramesOvertakeReplies)
{
    playEverySequence(kFrames, 3);
    EXPECT_EQ(LinkModel::used().size(), LinkModel::rules().size()) << "a rule is never needed";
}
