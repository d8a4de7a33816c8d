#pragma once

#include <map>
#include <string>
#include <vector>

/// One run of vorlan-qv.
struct tRun
{
    int status = -1; ///< exit status; -1 when it was killed or did not end in time
    std::string out;
    std::string err;
};

/// Runs vorlan-qv with the arguments, `input` as standard input, and gives what it wrote.
tRun runCommand(const std::vector<std::string>& arguments, const std::string& input = "");

/// Runs any program likewise.
tRun runProgram(const std::vector<std::string>& argv, const std::string& input = "");

/// vorlan-qv.
extern const char* const kVorlanQv;
