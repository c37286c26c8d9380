// Goes through all worlds that follow from a plan, the nearest first, and keeps of each no more
// than what tells it from the others.
#ifndef PELMAR_HANDSHAKE_SEARCH_H
#define PELMAR_HANDSHAKE_SEARCH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "handshake-world.h"

namespace handshakes {

struct Finding {
    Fault fault = Fault::none;
    std::string trace = {};  // the shortest way to it
    std::size_t worlds = 0;
    std::size_t steps = 0;
    std::size_t machines = 0;
    double seconds = 0;
};

// Looks until it has found a fault of one of these kinds; without any kind, until it has found any.
Finding Explore(const Plan& plan, const std::vector<Fault>& wanted = {});

}  // namespace handshakes

#endif
