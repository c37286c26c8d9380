// What every command is given.
#ifndef PELMARCTL_TOOL_H
#define PELMARCTL_TOOL_H

#include <chrono>
#include <optional>

#include "event-queue.h"
#include "output.h"

struct Tool {
    // As given; commands that wait for one thing take the default, others go on for ever.
    std::optional<double> timeout_seconds;

    Output output;
    EventQueue queue;

    std::chrono::milliseconds Timeout() const;
    EventQueue::Deadline OptionalDeadline() const;
};

std::chrono::milliseconds Milliseconds(double seconds);

#endif
