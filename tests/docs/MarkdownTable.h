#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

/// The rows of a document's tables, for tests that compare a document with the code.
namespace markdown {

using Row = std::vector<std::string>;

inline std::string trimmed(const std::string& text)
{
    const auto begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

inline Row cells(const std::string& line)
{
    Row row;
    std::istringstream in(line.substr(1, line.rfind('|') - 1));
    for (std::string cell; std::getline(in, cell, '|');)
        row.push_back(trimmed(cell));
    return row;
}

/// The rows of all tables whose header has exactly these cells; empty when there is none.
inline std::vector<Row> table(const std::string& document, const Row& header)
{
    std::ifstream in(std::string(VORLAN_SOURCE_DIR "/docs/") + document);
    std::vector<Row> rows;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        const bool isRow = line.size() > 1 && line.front() == '|';
        if (isRow && inside && line.compare(0, 4, "|---") != 0)
            rows.push_back(cells(line));
        else if (isRow && !inside)
            inside = cells(line) == header;
        else if (!isRow)
            inside = false;
    }
    return rows;
}

} // namespace markdown
