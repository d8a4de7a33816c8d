#include "MarkdownTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <set>

namespace {

std::set<std::string> wordsOf(const std::string& text)
{
    std::istringstream in(std::regex_replace(text, std::regex(","), " "));
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

TEST(TestingDoc, NamesEveryStageOfTheChecks)
{
    std::ifstream script(VORLAN_SOURCE_DIR "/.ci/run");
    std::smatch match;
    std::string line;
    while (std::getline(script, line) && !std::regex_match(line, match, std::regex(R"(kStages=\((.*)\))"))) {
    }
    ASSERT_EQ(match.size(), 2U);
    std::set<std::string> named;
    for (const markdown::Row& row : markdown::table("testing.md", {"proof", "command", "in `.ci/run` as"}))
        named.merge(wordsOf(row[2]));
    EXPECT_THAT(named, testing::IsSupersetOf(wordsOf(match[1])));
}

} // namespace
