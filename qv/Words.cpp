#include "qv/Words.h"

#include "qv/Request.h"

#include <utility>

namespace qv {

std::vector<std::string> splitWords(const std::string& line)
{
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    char quote = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '#' && words.empty() && !inWord) {
            return words;
        }
        if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord) {
                words.push_back(std::exchange(word, {}));
            }
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quote != 0) {
        throw RequestError(std::string("a quotation mark ") + quote + " is missing");
    }
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

std::string quotedWord(const std::string& word)
{
    if (!word.empty() && word.find_first_of(" \t\r\\'\"") == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

} // namespace qv
