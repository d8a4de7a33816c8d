#include "tests/qv/ManPage.h"

#include "tests/qv/Command.h"

#include <gmock/gmock.h>

namespace {

std::string manPage()
{
    return readManPage(QV_MAN_PAGE);
}

TEST(ManPage, HasTheOptionsOfTheHelp)
{
    const auto help = runCommand({"--help-all"});
    ASSERT_EQ(help.status, 0);
    const auto options = optionsIn(help.out);
    EXPECT_GT(options.size(), 25U);
    EXPECT_EQ(optionsIn(manPage()), options);
}

TEST(ManPage, HasTheCommandsOfTheHelp)
{
    const auto help = runCommand({"--help"}).out;
    const auto page = manPage();
    for (const std::string command : {"read", "write", "call", "network", "boot", "shell", "list", "watch", "ping"}) {
        EXPECT_THAT(help, testing::HasSubstr("\n  " + command + " "));
        EXPECT_THAT(page, testing::HasSubstr("\n.B " + command)) << command;
    }
}

} // namespace
