// One kind of bad line at one rate: prints a row of figures, then what should not have happened. tests/qv/bad_line runs
// many of these.

#include "tests/qv/BadLineRun.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "header") {
        std::printf("%s\n", bad_line::tFigures::header().c_str());
        return 0;
    }
    if (argc != 6) {
        std::fputs("Usage: bad_line_driver DAEMON KIND PERCENT REQUESTS SEED\n"
                   "       bad_line_driver header\n",
                   stderr);
        return 2;
    }
    try {
        const bad_line::tCase what{argv[2], static_cast<unsigned>(std::stoul(argv[3])),
                                   static_cast<unsigned>(std::stoul(argv[4])), std::stoull(argv[5])};
        rig::Rig rig(argv[1]);
        const auto figures = bad_line::run(rig, what);
        std::string text = figures.row(what) + "\n";
        for (const auto& violation : figures.violations)
            text += "VIOLATION: " + what.kind + " " + argv[3] + " % seed " + argv[5] + ": " + violation + "\n";
        std::fputs(text.c_str(), stdout);
        return figures.violations.empty() ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bad_line_driver: %s %s %s %s: %s\n", argv[2], argv[3], argv[4], argv[5], e.what());
        return 1;
    }
}
