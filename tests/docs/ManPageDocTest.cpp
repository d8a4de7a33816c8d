#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

std::string contentOf(const std::string& file)
{
    std::ifstream in(VORLAN_SOURCE_DIR "/" + file);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> numbersOf(const std::string& text, const std::regex& number, int group)
{
    return {std::sregex_token_iterator(text.begin(), text.end(), number, group), std::sregex_token_iterator()};
}

/// A rate that is missing on the page is not found; one that the daemon lacks hangs the line up.
TEST(ManPageDoc, NamesEveryRateOfTheLine)
{
    const std::string page = contentOf("packaging/vorlan.1");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(page, match, std::regex(R"(The rates are ([^.]*)\.)")));
    const auto rates = numbersOf(contentOf("link/SerialPhy.cpp"), std::regex(R"(\{(\d+), B\d+\})"), 1);
    EXPECT_GT(rates.size(), 20U);
    EXPECT_EQ(numbersOf(match[1], std::regex(R"(\d+)"), 0), rates);
}

} // namespace
