// Owns a descriptor. Internal.
#ifndef PELMAR_DESCRIPTOR_H
#define PELMAR_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

class Descriptor {
public:
    explicit Descriptor(int number = -1) : m_number(number) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : m_number(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        Close();
        m_number = other.Release();
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const { return m_number; }
    bool IsOpen() const { return m_number >= 0; }
    int Release() { return std::exchange(m_number, -1); }

private:
    void Close() const
    {
        if (m_number >= 0)
            close(m_number);
    }

    int m_number;
};

#endif
