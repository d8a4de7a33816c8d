#include "sim/Story.h"

#include "protocol/Wire.h"
#include "qv/Request.h"
#include "qv/Session.h"
#include "qv/Values.h"
#include "qv/Words.h"
#include "sim/Show.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <map>
#include <sstream>

namespace sim {

namespace {

constexpr milliseconds kPatience{10000};
constexpr std::size_t kShownEvents = 40;
constexpr const char* kFirstAddress = "192.168.10.1";
constexpr const char* kSecondAddress = "192.168.10.99";

using match::call;
using match::log;
using match::property;
using match::signal;

std::string quotedIn(const std::string& before, const std::string& text, const std::string& after = "")
{
    return "\"" + before + text + after + "\"";
}

Match request(const std::string& text)
{
    Match out;
    out.kind = KindE::eFrame;
    out.service = "qv";
    out.arguments = text;
    return out;
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string out;
    for (const std::string& text : texts)
        out += "\n    " + text;
    return texts.empty() ? " nothing" : out;
}

std::vector<std::string> assignments(const std::map<std::string, std::string>& values)
{
    std::vector<std::string> out;
    out.reserve(values.size());
    for (const auto& [name, value] : values)
        out.push_back(name + " = " + value);
    return out;
}

std::vector<std::string> callsOf(const Timeline& timeline, const std::string& service, std::size_t from)
{
    Match calls;
    calls.kind = KindE::eCall;
    calls.service = service;
    std::vector<std::string> out;
    for (const tEvent& event : timeline.select(calls, from))
        out.push_back(event.member + "(" + event.arguments + ")");
    return out;
}

} // namespace

StoryFailure::StoryFailure(const std::string& step, const std::string& expected, const std::string& seen)
    : std::runtime_error("\nFAILED in step " + step + "\n  expected: " + expected + "\n  seen: " + seen)
{}

Story::Story(Device& device, qv::Peer& peer, std::string daemon, std::string bootFile)
    : mDevice(device)
    , mTimeline(device.timeline())
    , mPeer(peer)
    , mDaemon(std::move(daemon))
    , mBootFile(std::move(bootFile))
{}

void Story::begin(const std::string& title)
{
    mTitle = std::to_string(++mNumber) + ". " + title;
    tEvent event;
    event.member = "step";
    event.arguments = mTitle;
    mFrom = mTimeline.add(std::move(event));
}

void Story::seen(const std::string& what) const
{
    const auto refused =
        mTimeline.find([](const tEvent& event) { return event.answer && event.answer->starts_with("error "); }, mFrom);
    if (refused)
        fail("every call to be answered", refused->call() + " -> " + *refused->answer);
    tEvent event;
    event.member = "seen";
    event.arguments = what;
    mTimeline.add(std::move(event));
}

void Story::fail(const std::string& expected, const std::string& seenText) const
{
    throw StoryFailure(mTitle, expected, seenText);
}

tEvent Story::expectInOrder(const std::vector<Match>& wanted)
{
    tEvent last;
    std::size_t from = mFrom;
    for (const Match& match : wanted) {
        const auto found = mTimeline.waitFor(match, from, kPatience);
        if (!found) {
            std::string what = match.text();
            if (from != mFrom)
                what += " after " + last.call();
            const auto events = mTimeline.events(mFrom);
            std::vector<std::string> texts;
            for (std::size_t i = events.size() > kShownEvents ? events.size() - kShownEvents : 0; i < events.size();
                 ++i)
                texts.push_back(sentence(events[i], false));
            fail(what, joined(texts));
        }
        last = *found;
        from = found->id + 1;
    }
    return last;
}

void Story::expectAll(const std::vector<Match>& wanted)
{
    for (const Match& match : wanted)
        expectInOrder({match});
}

void Story::expectEqual(const std::string& what, const std::string& expected, const std::string& seenText) const
{
    if (expected != seenText)
        fail(what + ": " + expected, seenText);
}

std::string Story::ask(const std::string& text)
{
    const auto words = qv::splitWords(text);
    const auto rest = std::span(words).subspan(2);
    const auto question = words[0] == "read"    ? qv::readRequest(words[1])
                          : words[0] == "write" ? qv::writeRequest(words[1], words[2])
                                                : qv::callRequest(words[1], rest);
    const auto result = mPeer.request(question.message, question.safeToRepeat);
    if (result.outcome == qv::OutcomeE::eRefused)
        fail("an answer to " + text, "the daemon refused it");
    if (!result.done())
        fail("an answer to " + text, "none");
    return question.replyType ? qv::formatValue(*question.replyType, result.data) : "";
}

void Story::check(const tAsked& asked)
{
    const std::size_t from = mTimeline.mark();
    const std::string value = ask(asked.request);
    expectEqual(std::string("value of ") + asked.request, asked.value, value);
    expectEqual(std::string("calls for ") + asked.request, joined(asked.calls),
                joined(callsOf(mTimeline, "sysd", from)));
}

void Story::daemonStarts()
{
    begin("The daemon starts and asks the system daemon for its settings");
    mDevice.start(mDaemon);
    expectInOrder({call("Ready"), call("AddCfgVar", "\"UpdateMode\""), call("AddCfgVar", "\"UpdatePath\""),
                   call("AddCfgVar", "\"UpdateTrigger\""), call("AddCfgVar", "\"BootLogoMD5Sum\""),
                   call("AddCfgVar", "\"AnimatedBootLogoMD5Sum\""), call("GetParamInt", "24"),
                   call("GetCfgBool", "\"IsHypervisorSys\""), call("GetParamInt", "211"), call("SetParamInt", "211, 0"),
                   call("SaveConfig"), call("GetCfgString", "\"VorlanDev\""), call("GetCfgInt", "\"VorlanBaud\"")});
    expectAll({log("kelvora vorlan daemon started")});
    seen("it has registered its names, consumed the start code and found its serial line");
}

void Story::qvOpensTheLink()
{
    begin("QV opens the link with harmless reads that carry the reset flag");
    if (!mPeer.sync())
        fail("an answer on the line", "none");
    Match reset = request("read const-0");
    reset.member = "reset";
    expectInOrder({reset});
    seen("both ends count from the same number now");
}

void Story::qvReadsEveryRegister()
{
    begin("QV reads every register");
    const std::vector<tAsked> reads = {
        {"read const-0", "0", {}},
        {"read cfg-applied", "false", {}},
        {"read ip-addr", "192.168.10.20", {"GetNetIPv4Addr()"}},
        {"read param-text", "1.4.2", {"GetParamString(127)"}},
        {"read hundredths-list",
         "23.00,-4.00",
         {"GetParamInt(200)", "GetParamInt(201)", "GetParamInt(200)", "GetParamInt(202)", "GetParamInt(200)"}},
        {"read byte-list",
         "1,2,3;9",
         {"GetParamInt(191)", "GetParamInt(192)", "GetParamInt(191)", "GetParamInt(193)", "GetParamInt(191)",
          "GetParamInt(194)", "GetParamInt(191)", "GetParamInt(190)"}},
        {"read param-word-a", "1280", {"GetParamInt(180)"}},
        {"read param-word-b", "800", {"GetParamInt(181)"}},
        {"read start-code", "0", {}},
        {"read brightness-raw", "200", {"GetParamInt(172)"}},
    };
    for (const tAsked& read : reads)
        check(read);
    seen("every value is the one in the system daemon's store, asked for when QV asked");
}

void Story::desktopReadsEveryProperty()
{
    begin("The desktop finds the daemon's service and reads its properties");
    if (!mDevice.desktop().waitForService(kPatience))
        fail("an answer of com.kelvora.vorlan on the user bus", "none");
    const std::map<std::string, std::string> expected = {{"AnimationEnabled", "true"},
                                                         {"StatusText", "\"Waiting for configuration...\""},
                                                         {"StatusQV", "0"},
                                                         {"IpAddrQV", "\"\""},
                                                         {"ShowLogos", "true"},
                                                         {"GifOffsetX", "10"},
                                                         {"GifOffsetY", "20"},
                                                         {"GifDelayMS", "40"},
                                                         {"ShowQVStatus", "true"}};
    const auto read = mDevice.desktop().allProperties();
    expectEqual("properties", joined(assignments(expected)), joined(assignments(read)));
    seen("nine properties, QV's still empty");
}

void Story::qvAsksForUpdates()
{
    begin("QV asks for automatic updates: it sets a configuration number");
    check({"call set-cfg-long UpdateTrigger 1", "", {"SetCfgInt(\"UpdateTrigger\", 1)"}});
    seen("the system daemon has it");
}

void Story::qvPlaysItsStartUp()
{
    begin("QV reports version, time, status and address, sends settings, and asks to apply them (" + mBootFile + ")");
    std::ostringstream out;
    std::ostringstream err;
    qv::Session session(mPeer, out, err);
    if (session.boot(mBootFile) != qv::eStatusDone)
        fail("the start-up of " + mBootFile + " to be done", err.str());
    const std::string url = quotedIn("http://", "localhost", "/visu");
    expectInOrder({call("SetUnixTime"), call("SetParamString", "214, " + quotedIn("", kFirstAddress)),
                   call("SetCfgString", "\"VisuURL\", " + url), call("SetCfgString", R"("VisuMode", "Web")"),
                   call("ConfigureNetwork"), call("GetCfgInt", "\"UpdateTrigger\""),
                   call("StartUnit", R"("autoupdated.service", "replace")").on(ChannelE::eUserBus),
                   call("GetCfgString", "\"ETHInternal\""), call("ConfigureNetIf")});
    expectAll({property("StatusQV", "4"), property("IpAddrQV", quotedIn("", kFirstAddress)),
               property("ShowQVStatus", "true"), property("ShowLogos", "true"), call("Start").to("logo"),
               log("Vorlan: writeReg eRegWrQVProtVersion 1"), log("Vorlan: ApplyConfig"),
               log("Vorlan::startLogoHandler"), log("Vorlan::startAutoUpdate")});
    seen("the start-up conditions are met: network set up, update unit started, logos started, desktop told");
}

void Story::logosFinish()
{
    begin("The logos run and finish, and the visualisation is set up");
    const std::string url = quotedIn("http://", kFirstAddress, "/visu");
    expectInOrder({signal("Finished").to("logo").with("true"), call("GetParamInt", "24"), call("SaveConfig"),
                   call("GetCfgString", "\"VisuURL\""), call("GetCfgString", "\"VisuMode\""),
                   call("SetParamInt", "0, 2"), call("SetParamString", "90, " + url), call("LoadConfig")});
    expectAll({signal("LogosFinished").to("vorlan"), log("Vorlan::startLogoHandler: finished")});
    expectEqual("value of read cfg-applied", "true", ask("read cfg-applied"));
    seen("start mode 2 is the web browser; its page, on localhost, became one on QV: " + url);
}

void Story::qvDoesEverythingElse()
{
    begin("While the idle application gets ready to leave, QV uses everything else");
    const std::vector<tAsked> requests = {
        {"write qv-text-1 'Press 4'", "", {}},
        {"write qv-text-2 'Hall B'", "", {}},
        {"write time-zone 12", "", {"GetParamInt(111)", "GetParamBool(112)", "SetTimeZone(12, true)"}},
        {"write time-zone-flag off", "", {"GetParamBool(112)", "GetParamInt(111)", "SetTimeZone(12, false)"}},
        {"call set-brightness 80", "", {"SetBrightness(80)"}},
        {"call set-brightness-raw 120", "", {"SetBrightnessRaw(120)"}},
        {"read brightness-raw", "120", {"GetParamInt(172)"}},
        {"call beep", "", {"Beep()"}},
        {"call beep-param 440 200", "", {"BeepParam(440, 200)"}},
        {"call emu-input-ev", "", {"EmulateInputEvent()"}},
        {"call app-triggered-update /media/usb/update.bin",
         "",
         {"SetParamString(66, \"/media/usb/update.bin\")", "SetParamInt(61, 3)", "SaveConfig()", "SysUpdate()"}},
        {"call set-network-cfg interface=eth0 mode=static ip-address=192.168.10.21 netmask=255.255.255.0 "
         "gateway=192.168.10.254 "
         "hostname=press4 dns-domain=hall.example dns-mode=given dns-server-1=192.168.10.253",
         "",
         {"GetCfgString(\"ETHInternal\")", "GetCfgString(\"EthDev\")",
          "ConfigureNetIf(\"eth0\", {\"Mode\": \"static\", \"IpAddress\": \"192.168.10.21\", \"Netmask\": "
          "\"255.255.255.0\", "
          "\"Gateway\": \"192.168.10.254\", \"Hostname\": \"press4\", \"DnsDomain\": \"hall.example\", "
          "\"DnsActivated\": true, "
          "\"DnsFromDhcp\": false, \"DnsServer1\": \"192.168.10.253\"})",
          "GetCfgString(\"EthDev\")"}},
        {"write qv-prot-version 1", "", {}},
    };
    for (const tAsked& asked : requests)
        check(asked);
    seen("each request was answered, and came to exactly the calls that it stands for");
}

void Story::qvMoves()
{
    begin("Somebody turns the display by 90 degrees, and QV moves to another address");
    mDevice.sysd().setParam(24, 90);
    ask(std::string("write qv-ip-addr ") + kSecondAddress);
    const std::string url = quotedIn("http://", kSecondAddress, "/visu");
    expectInOrder({call("SetParamString", "214, " + quotedIn("", kSecondAddress)), call("GetParamInt", "24"),
                   call("SaveConfig"), call("GetCfgString", "\"VisuURL\""), call("SetParamInt", "0, 2"),
                   call("SetParamString", "90, " + url), call("LoadConfig")});
    expectAll({property("IpAddrQV", quotedIn("", kSecondAddress)), signal("OrientationChanged").to("vorlan")});
    expectEqual("property IpAddrQV", kSecondAddress, mDevice.desktop().property("IpAddrQV").raw);
    seen("the page followed QV to " + url);
}

void Story::userOpensDiagnostics()
{
    begin("The user interface calls ShowQMX: QV's diagnostics page is wanted");
    tEvent event;
    event.channel = ChannelE::eUserBus;
    event.kind = KindE::eCall;
    event.service = "vorlan";
    event.member = "ShowQMX";
    const std::size_t id = mTimeline.add(event);
    const auto result = mDevice.desktop().showQmx(kPatience);
    mTimeline.setAnswer(id, result.ok ? "" : "error " + result.errorName);
    if (!result.ok)
        fail("an answer to ShowQMX", result.errorName + " " + result.errorText);
    expectInOrder(
        {call("SetCfgInt", "\"Startmode\", 2"),
         call("SetCfgString", "\"SelectedFavoriteWeb\", " + quotedIn("http://", kSecondAddress, "/qmx/index.html")),
         call("LoadConfig")});
    seen("start mode and address are set and loaded");
}

void Story::idleApplicationExits()
{
    begin("The idle application is told to exit: 4 s after each visualisation set-up, 2 s after ShowQMX");
    const Match exit = call("Exit").to("idle");
    if (!mTimeline.waitForCount(exit, 3, 0, kPatience))
        fail("3 calls of Exit", std::to_string(mTimeline.count(exit)));
    // The two set-ups and ShowQMX end in LoadConfig; the last of the three may be the first to be due.
    constexpr std::array kDelays = {std::chrono::seconds{4}, std::chrono::seconds{4}, std::chrono::seconds{2}};
    const std::vector<tEvent> causes = mTimeline.select(call("LoadConfig"));
    if (causes.size() < kDelays.size())
        fail("3 calls of LoadConfig", std::to_string(causes.size()));
    std::array<Clock::duration, kDelays.size()> due{};
    for (std::size_t i = 0; i < due.size(); ++i)
        due[i] = causes[i].time + kDelays[i];
    std::ranges::sort(due);
    const std::vector<tEvent> exits = mTimeline.select(exit);
    for (std::size_t i = 0; i < due.size(); ++i)
        if (exits[i].time < due[i])
            fail("no Exit before its time", "one came too early");
    seen("three times, as often as asked");
}

void Story::everythingWasUsed()
{
    const auto used = [&](const std::string& text) {
        return mTimeline.find([&](const tEvent& event) {
            return event.kind == KindE::eFrame && event.service == "qv" &&
                   (event.arguments == text || event.arguments.starts_with(text + " "));
        });
    };
    std::vector<std::string> missing;
    for (const auto& entry : wire::kReadRegisters)
        if (!used(std::string("read ") + entry.value.name))
            missing.push_back(std::string("read ") + entry.value.name);
    for (const auto& entry : wire::kWriteRegisters)
        if (!used(std::string("write ") + entry.value.name))
            missing.push_back(std::string("write ") + entry.value.name);
    for (const auto& entry : wire::kMethods)
        if (entry.id != wire::eMethodStartUpdate && !used(std::string("call ") + entry.name))
            missing.push_back(std::string("call ") + entry.name);
    if (!missing.empty())
        fail("every register and method to be used", "not used:" + joined(missing));
}

void Story::play()
{
    daemonStarts();
    qvOpensTheLink();
    qvReadsEveryRegister();
    desktopReadsEveryProperty();
    qvAsksForUpdates();
    qvPlaysItsStartUp();
    logosFinish();
    qvDoesEverythingElse();
    qvMoves();
    userOpensDiagnostics();
    idleApplicationExits();
    everythingWasUsed();
}

void Story::playUpdate()
{
    begin("QV starts the system update: the daemon answers, passes it on and ends");
    ask("call start-update");
    expectInOrder({call("SysUpdate")});
    const auto exit = mDevice.daemon().waitExit(kPatience);
    expectEqual("the daemon's end", exited(0).text(), exit ? exit->text() : "it still runs");
    expectAll({log("kelvora vorlan daemon stopped")});
    seen("it ended with status 0");
}

void Story::stop()
{
    begin("The daemon is asked to stop (SIGTERM); it does so with the next request");
    mDevice.daemon().signal(SIGTERM);
    mPeer.sync();
    const auto exit = mDevice.daemon().waitExit(kPatience);
    expectEqual("the daemon's end", exited(0).text(), exit ? exit->text() : "it still runs");
    expectAll({log("kelvora vorlan daemon stopped")});
    seen("it ended with status 0");
}

} // namespace sim
