#include "sim/Faults.h"
#include "sim/Tool.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace {

constexpr const char* kFooter = R"(
Examples
  vorlan-sim --daemon build/release/vorlan --story         the whole start-up, played and checked
  vorlan-sim --daemon build/release/vorlan                 the daemon on a device to play with
  vorlan-sim --daemon build/release/vorlan --fault sysd=late:2000 --fault sysd.GetParamInt=error*3
  vorlan-sim --port-link /tmp/qv --json - | jq .           what happens, for a program; vorlan-qv --port /tmp/qv joins in

Exit status: 0 ended as asked, 1 a step of the story did not happen, 2 usage, 3 the device could not be set up.)";

} // namespace

int main(int argc, char** argv)
{
    sim::tArguments arguments;
    arguments.bootFile = VORLAN_BOOT_FILE;
    CLI::App app(
        "A simulated display: private buses with every service that the vorlan daemon uses, and a serial line.",
        "vorlan-sim");
    app.set_version_flag("--version", "vorlan-sim " VORLAN_VERSION);
    auto* daemon = app.add_option("--daemon", arguments.daemon, "the daemon to run on it")
                       ->check(CLI::ExistingFile)
                       ->type_name("PATH");
    app.add_option("DAEMON-ARGUMENT", arguments.daemonArguments, "arguments for the daemon, after --");
    app.add_flag("--story", arguments.story,
                 "play the whole start-up and check every step; on a terminal it ends in QV's prompt")
        ->needs(daemon);
    app.add_option("--boot", arguments.bootFile, "the story's start-up commands of QV")
        ->check(CLI::ExistingFile)
        ->type_name("FILE");
    app.add_option("--fault", arguments.faults, "make the device misbehave from the start; may be repeated")
        ->type_name("WHAT=HOW");
    app.add_option("--json", arguments.json, "every event as a line of JSON; - is standard output")->type_name("FILE");
    app.add_option("--port-link", arguments.portLink, "a symbolic link to QV's port")->type_name("PATH");
    app.add_flag("--quiet", arguments.quiet, "show no timeline");
    std::string footer = "\nFaults\n";
    for (const std::string& line : sim::Faults::help())
        footer += "  " + line + "\n";
    app.footer(footer + kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        return sim::runTool(arguments);
    } catch (const std::invalid_argument& error) {
        std::cerr << "vorlan-sim: " << error.what() << '\n';
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "vorlan-sim: " << error.what() << '\n';
        return 3;
    }
}
