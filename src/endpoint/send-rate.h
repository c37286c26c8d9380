// Whether so much is sent at once that it is worth being collected. Internal. Knows no clock.
#ifndef PELMAR_SEND_RATE_H
#define PELMAR_SEND_RATE_H

#include <algorithm>
#include <chrono>

class SendRate {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // So many a second, and those of one moment beside.
    static constexpr std::chrono::microseconds INTERVAL{25};
    static constexpr int AT_ONCE = 16;

    // Fewer than none when more has come than was sent: who talks to and fro does not flood.
    void Count(TimePoint now, int messages)
    {
        m_due = std::min(std::max(m_due, now) + messages * INTERVAL, now + 2 * AT_ONCE * INTERVAL);
    }
    // It stays high until for the time of those of one moment fewer have come.
    bool IsHigh(TimePoint now) const { return m_due - now > AT_ONCE * INTERVAL; }

private:
    TimePoint m_due;  // when all that were counted would be through at that rate
};

#endif
