#pragma once

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

/// Every --option of a text.
inline std::set<std::string> optionsIn(const std::string& text)
{
    static const std::regex kOption("--[a-z][a-z0-9-]*");
    return {std::sregex_token_iterator(text.begin(), text.end(), kOption), std::sregex_token_iterator()};
}

/// A page as a reader sees it: without fonts and escaped hyphens.
inline std::string readManPage(const std::string& fileName)
{
    std::stringstream text;
    text << std::ifstream(fileName).rdbuf();
    return std::regex_replace(std::regex_replace(text.str(), std::regex(R"(\\f[BIRP])"), ""), std::regex(R"(\\-)"),
                              "-");
}
