// What was received from one sender, so that nothing is taken twice or out of order.
#ifndef PELMAR_BRIDGE_SEQUENCE_MEMORY_H
#define PELMAR_BRIDGE_SEQUENCE_MEMORY_H

#include <algorithm>
#include <cstdint>

// A sender numbers its messages one by one. MQTT keeps their order, so whatever is not above the
// last number is a duplicate or comes too late, and one number is all that has to be remembered.
class SequenceMemory {
public:
    // Numbers up to this one are over.
    void StartAfter(std::uint64_t number) { m_last = std::max(m_last, number); }

    // False for what must not be taken. `missing` is how many before it never came.
    bool Take(std::uint64_t number, std::uint64_t& missing)
    {
        if (number <= m_last)
            return false;
        missing = number - m_last - 1;
        m_last = number;
        return true;
    }

private:
    std::uint64_t m_last = 0;
};

#endif
