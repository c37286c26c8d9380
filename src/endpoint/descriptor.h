// Owns a descriptor. Internal.
#ifndef PELMAR_DESCRIPTOR_H
#define PELMAR_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

// CLOSE is how it ends.
template <void (*CLOSE)(int descriptor)>
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int number = -1) : m_number(number) {}
    ~OwnedDescriptor() { Close(); }
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : m_number(other.Release()) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept
    {
        Close();
        m_number = other.Release();
        return *this;
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

    int Number() const { return m_number; }
    bool IsOpen() const { return m_number >= 0; }
    int Release() { return std::exchange(m_number, -1); }

private:
    void Close() const
    {
        if (m_number >= 0)
            CLOSE(m_number);
    }

    int m_number;
};

inline void CloseAtOnce(int descriptor)
{
    close(descriptor);
}
using Descriptor = OwnedDescriptor<CloseAtOnce>;

#endif
