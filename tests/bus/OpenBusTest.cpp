#include "dbus/Bus.h"
#include "tests/bus/BusTest.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace {

/// Takes the addresses from the environment, as the daemon's own is on a display.
class OpenBusTest : public BusTest
{
protected:
    static std::string addressOf(sd_bus* bus)
    {
        const char* address = nullptr;
        return sd_bus_get_address(bus, &address) >= 0 ? address : "none";
    }

    /// A call that the bus itself answers.
    static bool works(sd_bus* bus)
    {
        const MessagePtr call = newCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "GetId");
        return callBus(bus, call.get()) >= 0;
    }
};

} // namespace

TEST_F(OpenBusTest, TakesTheUsersRuntimeFolderWhateverItsNameWhereNoAddressIsGiven)
{
    const std::string folder = mDevice.folder() + "/a b,c=d%;\xc3\xa4_-.\\*~";
    std::filesystem::create_directory(folder);
    const std::string given = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::filesystem::create_symlink(given.substr(given.find('/')), folder + "/bus");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    BusPtr ours;
    EXPECT_EQ(openBus(BusE::eUser, ours), 0);
    BusPtr librarys;
    EXPECT_GE(adopt(librarys, [](sd_bus** bus) { return sd_bus_open_user(bus); }), 0);
    unsetenv("XDG_RUNTIME_DIR");
    ASSERT_TRUE(ours);
    EXPECT_EQ(addressOf(ours.get()), addressOf(librarys.get()));
    EXPECT_TRUE(works(ours.get()));
}

TEST_F(OpenBusTest, KnowsNoUserBusWithoutAnAddressAndAFolder)
{
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
    BusPtr bus;
    EXPECT_EQ(openBus(BusE::eUser, bus), -ENOMEDIUM);
    EXPECT_EQ(bus, nullptr);
}

TEST_F(OpenBusTest, TakesTheUsualSystemBusWhereNoAddressIsGiven)
{
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    BusPtr ours;
    const int result = openBus(BusE::eSystem, ours);
    BusPtr librarys;
    EXPECT_EQ(result, std::min(adopt(librarys, [](sd_bus** bus) { return sd_bus_open_system(bus); }), 0));
    EXPECT_EQ(ours ? addressOf(ours.get()) : "", librarys ? addressOf(librarys.get()) : "");
}

TEST_F(OpenBusTest, TakesNoFileDescriptorsFromAnybody)
{
    for (const BusE which : {BusE::eSystem, BusE::eUser}) {
        BusPtr bus;
        ASSERT_EQ(openBus(which, bus), 0);
        ASSERT_TRUE(works(bus.get()));
        EXPECT_EQ(sd_bus_can_send(bus.get(), SD_BUS_TYPE_UNIX_FD), 0);
    }
}
