#include "tests/process/Rig.h"
#include "tests/qv/Command.h"
#include "tests/qv/ManPage.h"

#include <gmock/gmock.h>

namespace {

std::string usage()
{
    const auto run = runProgram({rig::kVorlan, "-h"});
    EXPECT_EQ(run.status, 1);
    return run.out;
}

/// Every option of one letter that begins a line: "-s, --serialdev", ".BR -s ...".
std::set<std::string> lettersIn(const std::string& text)
{
    static const std::regex kLetter(R"((?:^|\n)(?:\.BR? )?(-[a-z])[, ])");
    return {std::sregex_token_iterator(text.begin(), text.end(), kLetter, 1), std::sregex_token_iterator()};
}

/// The page's section on options; the others have those of other programs too.
std::string options()
{
    const auto page = readManPage(VORLAN_MAN_PAGE);
    const auto from = page.find(".SH OPTIONS");
    return page.substr(from, page.find(".SH EXIT STATUS") - from);
}

/// The usage does not tell of --help, the page does.
TEST(DaemonManPage, HasTheOptionsOfTheUsageAndHelp)
{
    auto names = optionsIn(usage());
    EXPECT_EQ(names.size(), 2U);
    names.insert("--help");
    EXPECT_EQ(optionsIn(options()), names);
    auto letters = lettersIn(usage());
    EXPECT_EQ(letters.size(), 2U);
    letters.insert("-h");
    EXPECT_EQ(lettersIn(options()), letters);
}

TEST(DaemonManPage, HasNoOptionThatTheDaemonDoesNotKnow)
{
    for (const auto& option : optionsIn(options())) {
        const auto run = runProgram({rig::kVorlan, option == "--help" ? option : option + "=1", "-h"});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "") << option;
    }
    EXPECT_NE(runProgram({rig::kVorlan, "--no-such-option", "-h"}).err, "");
}

} // namespace
