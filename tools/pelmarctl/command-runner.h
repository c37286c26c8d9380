// One run of a shell command: bytes in, bytes out.
#ifndef PELMARCTL_COMMAND_RUNNER_H
#define PELMARCTL_COMMAND_RUNNER_H

#include <chrono>
#include <cstddef>
#include <string>

#include "output.h"

struct CommandLimits {
    std::chrono::milliseconds time;
    std::size_t output_bytes;
};

struct CommandResult {
    Bytes output;
    std::string error;  // why there is no output; empty when all went well
};

// Runs /bin/sh -c `command` with the input as its standard input and waits for it. Ends it, and all
// that it started, when it takes too long or writes too much, and when `stop` becomes readable.
CommandResult RunCommand(const std::string& command, const Bytes& input,
                         const CommandLimits& limits, int stop);

#endif
