// What became of the messages.
#ifndef PELMAR_BRIDGE_COUNTERS_H
#define PELMAR_BRIDGE_COUNTERS_H

#include <cstdint>
#include <string>

struct Counters {
    std::uint64_t requests = 0;       // forwarded
    std::uint64_t answers = 0;        // forwarded
    std::uint64_t notifications = 0;  // forwarded
    std::uint64_t refused = 0;        // too large, no room, nobody there, not allowed
    std::uint64_t expired = 0;        // requests that were too old, or had no answer in time
    std::uint64_t duplicates = 0;     // came a second time, or after one that was sent later
    std::uint64_t lost = 0;           // missing between two that came

    std::string ToString() const
    {
        return "forwarded " + std::to_string(requests) + " requests, " + std::to_string(answers) +
               " answers, " + std::to_string(notifications) + " notifications; refused " +
               std::to_string(refused) + ", expired " + std::to_string(expired) + ", duplicates " +
               std::to_string(duplicates) + ", lost " + std::to_string(lost);
    }
};

#endif
