// The bytes that a command is to send: from its command line, a file or standard input.
#ifndef PELMARCTL_PAYLOAD_H
#define PELMARCTL_PAYLOAD_H

#include <CLI/CLI.hpp>
#include <string>

#include "output.h"

struct PayloadOptions {
    CLI::Option* text_option = nullptr;
    std::string text;
    std::string file = "-";
    bool hex = false;
};

// -m, -f and --hex.
void AddPayload(CLI::App& command, PayloadOptions& options);

// Throws Failure when it cannot be read, is no hexadecimal number, or is too large for a message.
Bytes ReadPayload(const PayloadOptions& options);

#endif
