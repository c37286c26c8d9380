// When the bus is tried again. Internal. Knows no clock.
#ifndef PELMAR_RECONNECT_DELAY_H
#define PELMAR_RECONNECT_DELAY_H

#include <algorithm>
#include <chrono>

// After so long without a bus: a daemon that is restarted is found soon, and one that does not come
// back is not asked too often.
constexpr std::chrono::milliseconds ReconnectDelayAfter(std::chrono::milliseconds absence)
{
    return std::clamp(absence, std::chrono::milliseconds(50), std::chrono::milliseconds(1000));
}

#endif
