#include "MarkdownTable.h"
#include "dbus/SDBusManagerTable.h"
#include "dbus/SDBusSysD.h"
#include "sim/Device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

namespace {

using markdown::Row;
using testing::ElementsAreArray;
using testing::IsSubsetOf;
using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

std::string fileText(const std::filesystem::path& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The groups of each match.
std::vector<Row> matches(const std::string& text, const std::string& pattern)
{
    const std::regex regex(pattern);
    std::vector<Row> out;
    for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
        Row row;
        for (std::size_t group = 1; group < it->size(); ++group)
            row.push_back((*it)[group]);
        out.push_back(row);
    }
    return out;
}

TEST(BusDoc, ListsTheMembersOfTheObjectInTheirOrder)
{
    std::vector<Row> expected;
    for (const sd_bus_vtable* entry = kVorlanTable + 1; entry->type != _SD_BUS_VTABLE_END; ++entry) {
        if (entry->type == _SD_BUS_VTABLE_PROPERTY)
            expected.push_back({entry->x.property.member, "property", entry->x.property.signature});
        else if (entry->type == _SD_BUS_VTABLE_METHOD)
            expected.push_back({entry->x.method.member, "method", entry->x.method.signature});
        else if (entry->type == _SD_BUS_VTABLE_SIGNAL)
            expected.push_back({entry->x.signal.member, "signal", entry->x.signal.signature});
    }
    auto rows = markdown::table("bus.md", {"member", "kind", "signature", "meaning"});
    for (Row& row : rows)
        row.resize(3);
    EXPECT_THAT(rows, ElementsAreArray(expected));
}

// The stand-ins answer each of these calls in the tests of the real daemon.
TEST(BusDoc, ListsTheCallsWithTheirTypes)
{
    sim::Device device;
    std::vector<Row> answered;
    const auto add = [&](const char* bus, const sim::Service& service) {
        for (const auto& member : service.memberShapes())
            answered.push_back({bus, service.busName(), member.name, member.in, member.out});
    };
    add("system", device.sysd());
    const std::vector<Row> called = answered; // the others have members that nobody calls
    add("user", device.idle());
    add("user", device.logo());
    add("user", device.systemd());
    auto rows = markdown::table("bus.md", {"bus", "service", "member", "arguments", "answer", "when"});
    for (Row& row : rows)
        row.resize(5);
    EXPECT_THAT(rows, IsSubsetOf(answered));
    EXPECT_THAT(rows, IsSupersetOf(called));
}

TEST(BusDoc, ListsTheNumberedParametersWithTheirTypes)
{
    const auto known = matches(fileText(VORLAN_SOURCE_DIR "/dbus/ParamE.h"), R"(eParam\w+ = (\d+), +///< (\w+))");
    ASSERT_FALSE(known.empty());
    auto rows = markdown::table("bus.md", {"number", "type", "meaning"});
    std::erase_if(rows, [](const Row& row) { return row[0].ends_with(" and up"); });
    for (Row& row : rows)
        row.resize(2);
    EXPECT_THAT(rows, ElementsAreArray(known));
}

TEST(BusDoc, ListsTheDictionaryInItsOrder)
{
    sim::Device device;
    device.useInThisProcess();
    SDBusSysD sysd;
    NetConf conf;
    conf.mode = "static";
    conf.dnsServer0 = conf.dnsServer1 = conf.dnsServer2 = "8.8.8.8";
    sysd.configureNetIf("eth0", conf);
    const auto call = device.timeline().find(sim::match::call("ConfigureNetIf"));
    ASSERT_TRUE(call);
    const auto keys = matches(call->arguments, R"rx("(\w+)": )rx");
    auto rows = markdown::table("bus.md", {"key", "value", "present"});
    for (Row& row : rows)
        row.resize(1);
    EXPECT_THAT(rows, ElementsAreArray(keys));
}

TEST(BusDoc, ListsTheNamesThatAreReadFromTheConfiguration)
{
    std::set<Row> read;
    for (const char* room : {"core", "protocol", "dbus"})
        for (const auto& file : std::filesystem::directory_iterator(std::string(VORLAN_SOURCE_DIR "/") + room))
            for (Row& name : matches(fileText(file.path()), R"rx(getCfg(String|Int|Bool)\("(\w+)"\))rx"))
                read.insert({name[1], name[0] == "Int" ? "number" : name[0] == "Bool" ? "boolean" : "text"});
    auto rows = markdown::table("bus.md", {"name", "type", "read"});
    for (Row& row : rows)
        row.resize(2);
    EXPECT_THAT(rows, UnorderedElementsAreArray(read));
}

} // namespace
