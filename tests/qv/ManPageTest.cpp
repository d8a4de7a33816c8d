#include "tests/qv/Command.h"

#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace {

/// Every --option of a text.
std::set<std::string> optionsIn(const std::string& text)
{
    static const std::regex kOption("--[a-z][a-z0-9-]*");
    return {std::sregex_token_iterator(text.begin(), text.end(), kOption), std::sregex_token_iterator()};
}

/// The page as a reader sees it: without macros' names, fonts and escaped hyphens.
std::string manPage()
{
    std::stringstream text;
    text << std::ifstream(QV_MAN_PAGE).rdbuf();
    return std::regex_replace(std::regex_replace(text.str(), std::regex(R"(\\f[BIRP])"), ""), std::regex(R"(\\-)"),
                              "-");
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
