#pragma once

#include <string>
#include <vector>

namespace qv {

/// Cuts a command line at blanks. 'single' and "double" quotation marks keep blanks; a backslash keeps the next
/// character, except inside single ones. A line that begins with # has no words. Throws RequestError when a quotation
/// mark is missing.
std::vector<std::string> splitWords(const std::string& line);

/// The word so that splitWords gives it back as it is.
std::string quotedWord(const std::string& word);

} // namespace qv
