#include "tests/process/protocol/VisuTest.h"

#include <algorithm>
#include <array>

namespace {

using sim::match::call;
using sim::match::property;

enum ConditionE
{
    eTime,
    eAddress,
    eStatus,
    eApplyConfig
};

using Order = std::vector<ConditionE>;

std::string nameOf(const Order& order)
{
    static const char* const kNames[] = {"Time", "Address", "Status", "ApplyConfig"};
    std::string out;
    for (const ConditionE condition : order)
        out += kNames[condition];
    return out;
}

std::vector<Order> orders(Order conditions)
{
    std::vector<Order> out;
    do
        out.push_back(conditions);
    while (std::next_permutation(conditions.begin(), conditions.end()));
    return out;
}

class GateTest : public VisuTest
{
protected:
    void meet(ConditionE condition)
    {
        switch (condition) {
        case eTime:
            EXPECT_EQ("02", ask(req::setTime()));
            break;
        case eAddress:
            EXPECT_EQ("01", ask(req::address("10.0.0.5")));
            break;
        case eStatus:
            EXPECT_EQ("01", ask(req::running()));
            break;
        case eApplyConfig:
            EXPECT_EQ("02", ask(req::applyConfig()));
            prints("Vorlan: ApplyConfig\n");
            break;
        }
    }

    /// The gate opens with this one.
    void openedBy(ConditionE condition)
    {
        EXPECT_EQ(0U, count("ConfigureNetwork"));
        meet(condition);
        EXPECT_EQ(1U, count("ConfigureNetwork"));
        EXPECT_TRUE(comes(call("Start").to("logo")));
        prints("Vorlan::startLogoHandler\n");
    }

    std::size_t count(const std::string& member) { return timeline().count(call(member)); }
};

class GateOrderTest : public GateTest, public testing::WithParamInterface<Order>
{
protected:
    /// Meets the conditions one after the other: the last one opens the gate, and nothing opens it again.
    void expectOpenedOnceByTheLast(std::size_t networkCalls)
    {
        const Order& order = GetParam();
        for (std::size_t i = 0; i < order.size(); ++i) {
            EXPECT_EQ(0U, count("Start"));
            EXPECT_EQ(0U, count("ConfigureNetwork"));
            EXPECT_EQ(0U, count("SaveConfig") - 1); // the one at the start
            meet(order[i]);
        }
        prints("Vorlan::startLogoHandler\n");
        EXPECT_TRUE(comes(call("Start").to("logo")));
        for (const ConditionE condition : order)
            meet(condition);
        EXPECT_EQ("01", ask(req::status(req::kNotRunning)));
        EXPECT_EQ("01", ask(req::running()));
        finishLogos();
        for (const ConditionE condition : order)
            meet(condition);
        EXPECT_EQ(networkCalls, count("ConfigureNetwork"));
        EXPECT_EQ(1U, count("Start"));
        settle();
        EXPECT_EQ(1U, timeline().count(property("ShowQVStatus")));
        EXPECT_EQ(1U, timeline().count(property("ShowLogos")));
    }
};

class HypervisorGateTest : public GateOrderTest
{};

} // namespace

TEST_P(GateOrderTest, OpensOnceWhenTheLastConditionIsMet)
{
    boot();
    expectOpenedOnceByTheLast(1);
}

INSTANTIATE_TEST_SUITE_P(Orders, GateOrderTest, testing::ValuesIn(orders({eTime, eAddress, eStatus, eApplyConfig})),
                         [](const auto& row) { return nameOf(row.param); });

TEST_P(HypervisorGateTest, NeedsNoTimeAndSetsUpNoNetwork)
{
    sysd().setCfg("IsHypervisorSys", true);
    boot();
    expectOpenedOnceByTheLast(0);
}

INSTANTIATE_TEST_SUITE_P(Orders, HypervisorGateTest, testing::ValuesIn(orders({eAddress, eStatus, eApplyConfig})),
                         [](const auto& row) { return nameOf(row.param); });

TEST_F(GateTest, OtherStatusesAndTheAddressOfZerosAreNoConditions)
{
    boot();
    meet(eTime);
    meet(eApplyConfig);
    EXPECT_EQ("01", ask(req::address("0.0.0.0")));
    for (const char status : {'\1', '\2', '\3', '\5', '\xFF'})
        EXPECT_EQ("01", ask(req::status(static_cast<std::uint8_t>(status))));
    meet(eAddress);
    EXPECT_EQ(0U, count("ConfigureNetwork"));
    EXPECT_EQ("01", ask(req::address("0.0.0.0")));
    EXPECT_EQ(0U, count("ConfigureNetwork"));
    openedBy(eStatus);
}

TEST_F(GateTest, AFailedSettingOfTheTimeCounts)
{
    boot();
    meet(eAddress);
    meet(eStatus);
    meet(eApplyConfig);
    sysd().setBehaviour("SetUnixTime", sim::tBehaviour::error());
    complains("SysDDBusCtrl: Failed to call setTime\n");
    openedBy(eTime);
}

TEST_F(GateTest, AStatusThatWentAgainStillCounts)
{
    boot();
    meet(eStatus);
    EXPECT_EQ("01", ask(req::status(req::kNotRunning)));
    meet(eTime);
    meet(eAddress);
    openedBy(eApplyConfig);
}

TEST_F(GateTest, TheTimeIsSetBeforeTheGateOpens)
{
    boot();
    meet(eAddress);
    meet(eStatus);
    meet(eApplyConfig);
    openedBy(eTime);
    EXPECT_EQ("SetUnixTime(1700000000)", calls()[0]);
    EXPECT_EQ("ConfigureNetwork()", calls()[1]);
}

TEST_F(GateTest, TheAddressIsHandedOverAndPublishedBeforeTheGateOpens)
{
    boot();
    meet(eTime);
    meet(eStatus);
    meet(eApplyConfig);
    settle();
    openedBy(eAddress);
    EXPECT_EQ(R"(SetParamString(214, "10.0.0.5"))", calls()[0]);
    EXPECT_EQ("ConfigureNetwork()", calls()[1]);
    const Calls heard = signals();
    EXPECT_EQ(R"(IpAddrQV = "10.0.0.5")", heard.at(0));
    EXPECT_TRUE(has(heard, "ShowQVStatus = true"));
}

TEST_F(GateTest, TheStatusIsStoredAndPublishedBehindTheGate)
{
    boot();
    meet(eTime);
    meet(eAddress);
    meet(eApplyConfig);
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    sysd().setBehaviour("ConfigureNetwork", sim::tBehaviour::held());
    tell(req::running());
    prints("Vorlan::startLogoHandler\n");
    ASSERT_TRUE(comes(call("ConfigureNetwork")));
    EXPECT_EQ("0", mRig.device().desktop().property("StatusQV").value);
    sysd().release();
    EXPECT_EQ("01", reply());
    EXPECT_EQ("4", mRig.device().desktop().property("StatusQV").value);
    EXPECT_TRUE(comes(call("Start").to("logo")));
    EXPECT_TRUE(comes(property("StatusQV", "4")));
    EXPECT_EQ("", timeline().missingInOrder({property("ShowQVStatus"), property("StatusQV", "4")}));
}

TEST_F(GateTest, TheNetworkIsSetUpBeforeAnythingElse)
{
    boot();
    meet(eTime);
    meet(eAddress);
    meet(eStatus);
    settle();
    sysd().setBehaviour("ConfigureNetwork", sim::tBehaviour::held());
    tell(req::applyConfig());
    prints("Vorlan: ApplyConfig\n"
           "Vorlan::startLogoHandler\n");
    ASSERT_TRUE(comes(call("ConfigureNetwork")));
    EXPECT_EQ((Calls{"ConfigureNetwork()"}), calls());
    EXPECT_FALSE(came(property("ShowQVStatus")));
    EXPECT_FALSE(came(property("ShowLogos")));
    sysd().release();
    EXPECT_EQ("02", reply());
    EXPECT_TRUE(comes(call("Start").to("logo")));
    EXPECT_TRUE(comes(property("ShowQVStatus", "true")));
    EXPECT_TRUE(comes(property("ShowLogos", "true")));
}

TEST_F(GateTest, TheStatusIsShownBeforeTheUpdateTriggerIsLookedAt)
{
    boot();
    meet(eTime);
    meet(eAddress);
    meet(eStatus);
    openedBy(eApplyConfig);
    EXPECT_EQ("", timeline().missingInOrder({call("ConfigureNetwork"), call("GetParamBool", "210"),
                                             call("GetCfgInt", R"("UpdateTrigger")")}));
    EXPECT_EQ("", timeline().missingInOrder({call("ConfigureNetwork"), call("GetParamBool", "92"), call("Start")}));
}

TEST_F(GateTest, TheShownPropertiesAreAskedForAtThatMoment)
{
    sysd().setParam(210, false);
    sysd().setParam(92, false);
    bootToLogos();
    EXPECT_TRUE(comes(property("ShowQVStatus", "false")));
    EXPECT_TRUE(comes(property("ShowLogos", "false")));
}

namespace {

struct tTrigger
{
    const char* name;
    sim::SysDaemon::CfgValue trigger;
    int startCode;
    bool started;
};

void PrintTo(const tTrigger& row, std::ostream* out)
{
    *out << row.name;
}

class UpdateTriggerTest : public VisuTest, public testing::WithParamInterface<tTrigger>
{};

const tTrigger kTriggers[] = {
    {"Trigger0Code0", 0, 0, false},       {"Trigger1Code0", 1, 0, true},        {"Trigger2Code0", 2, 0, false},
    {"TriggerMinus1Code0", -1, 0, false}, {"Trigger0Code5", 0, 5, false},       {"Trigger1Code5", 1, 5, false},
    {"Trigger2Code5", 2, 5, false},       {"Trigger1Code256", 1, 256, true}, // its low byte counts
    {"Trigger257Code0", 257, 0, false},   {"Trigger1CodeMinus1", 1, -1, false},
};

} // namespace

TEST_P(UpdateTriggerTest, StartsTheUpdateUnitOnlyFor1AndStartCode0)
{
    const tTrigger& row = GetParam();
    sysd().setCfg("UpdateTrigger", row.trigger);
    sysd().setParam(211, row.startCode);
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ("02", ask(req::applyConfig()));
    const std::string start = R"(systemd.StartUnit("autoupdated.service", "replace"))";
    const std::size_t asked = timeline().count(call("GetCfgInt", R"("UpdateTrigger")"));
    EXPECT_EQ((row.startCode & 0xFF) == 0 ? 1U : 0U, asked);
    EXPECT_EQ(row.started ? 1 : 0, std::ranges::count(calls(), start));
    EXPECT_EQ(row.started, came(call("StartUnit").on(sim::ChannelE::eUserBus)));
    EXPECT_TRUE(comes(call("Start").to("logo")));
    // Two threads write lines here, in any order.
    prints("Vorlan: ApplyConfig\nVorlan::startLogoHandler\n");
    if (row.started)
        prints("Vorlan::startAutoUpdate\n");
    linesInAnyOrder();
}

INSTANTIATE_TEST_SUITE_P(Table, UpdateTriggerTest, testing::ValuesIn(kTriggers),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(GateTest, TheStartCodeOfTheStartDecidesAboutTheUpdateAlsoWhenItWasCleared)
{
    sysd().setCfg("UpdateTrigger", 1);
    sysd().setParam(211, 5);
    boot();
    EXPECT_EQ("02", ask(rig::call(wire::eMethodClearStartCode)));
    meet(eTime);
    meet(eAddress);
    meet(eStatus);
    openedBy(eApplyConfig);
    EXPECT_FALSE(has(calls(), R"(GetCfgInt("UpdateTrigger"))"));
}

TEST_F(GateTest, QVSetsTheTriggerItself)
{
    boot();
    EXPECT_EQ("02", ask(rig::call(wire::eMethodSetCfgLong, req::joined({rig::text("UpdateTrigger"), req::u32(1)}))));
    meet(eTime);
    meet(eAddress);
    meet(eStatus);
    openedBy(eApplyConfig);
    EXPECT_TRUE(has(calls(), R"(systemd.StartUnit("autoupdated.service", "replace"))"));
    prints("Vorlan::startAutoUpdate\n");
    linesInAnyOrder();
}
