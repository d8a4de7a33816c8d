#pragma once

#include <array>
#include <chrono>
#include <string>
#include <vector>

/// One run of vorlan-qv.
struct tRun
{
    int status = -1; ///< exit status; -1 when it was killed or did not end in time
    std::string out;
    std::string err;
};

/// A program under way. It is killed when nobody waits for its end.
class Program
{
public:
    /// `input` is its whole standard input.
    explicit Program(const std::vector<std::string>& argv, const std::string& input = "");
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    void signal(int number) const;
    /// Waits until it wrote this to its standard output or error.
    bool writes(const std::string& text);
    /// Waits for its end; it is killed when it does not come.
    tRun end();

private:
    /// Takes what it wrote; false at the end, or when the deadline passed.
    bool take();

    int mPid = -1;
    std::array<int, 2> mStreams{-1, -1}; ///< its standard output and error
    std::chrono::steady_clock::time_point mDeadline;
    tRun mRun;
};

/// Runs vorlan-qv with the arguments, `input` as standard input, and gives what it wrote.
tRun runCommand(const std::vector<std::string>& arguments, const std::string& input = "");

/// Runs any program likewise.
tRun runProgram(const std::vector<std::string>& argv, const std::string& input = "");

/// vorlan-qv.
extern const char* const kVorlanQv;
