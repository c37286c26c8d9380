// A fuzzer's bytes as the values that a target asks for, in order; zeros when they are used up.
#ifndef PELMAR_FUZZ_INPUT_H
#define PELMAR_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

    bool Empty() const { return m_left == 0; }

    std::uint8_t Byte()
    {
        if (m_left == 0)
            return 0;
        --m_left;
        return *m_data++;
    }

    std::size_t Below(std::size_t limit) { return Byte() % limit; }

    // As many bytes as its first one says.
    std::string Text()
    {
        const std::size_t length = std::min<std::size_t>(Byte(), m_left);
        return Take(length);
    }

    std::string Rest() { return Take(m_left); }

private:
    std::string Take(std::size_t length)
    {
        std::string text(reinterpret_cast<const char*>(m_data), length);
        m_data += length;
        m_left -= length;
        return text;
    }

    const std::uint8_t* m_data;
    std::size_t m_left;
};

// Says what does not hold, and where, and ends the process as a crash.
#define FUZZ_ASSERT(condition)                                                                  \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)

#endif
