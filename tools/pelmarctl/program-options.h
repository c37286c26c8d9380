// The whole command line: the options that every command has, and the commands.
#ifndef PELMARCTL_PROGRAM_OPTIONS_H
#define PELMARCTL_PROGRAM_OPTIONS_H

#include "command-line.h"

struct GlobalOptions {
    std::string bus;
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    Output::ColourMode colour = Output::ColourMode::automatic;
};

// Parsing fills `options` and the timeout of `tool`, and makes `chosen` the command.
void AddCommandLine(CLI::App& app, GlobalOptions& options, Tool& tool, Command& chosen);

// What is wrong, in better words than the library's where no command was recognised.
std::string UsageFault(const CLI::App& app, const CLI::ParseError& error);

#endif
