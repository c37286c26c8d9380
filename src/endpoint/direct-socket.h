// One end of a direct path: a socket, what waits to be written to it, and what has been read of it.
// Internal. Knows no bus; never waits. Whoever uses it guards it.
#ifndef PELMAR_DIRECT_SOCKET_H
#define PELMAR_DIRECT_SOCKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "direct-frames.h"

// Owns a descriptor.
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
    int Release();

private:
    void Close();

    int m_number;
};

// Two ends that are connected; both not open when the process has no descriptors left.
std::pair<Descriptor, Descriptor> ConnectedSockets();

// Whether a descriptor of unknown origin is what a direct path runs on.
bool IsConnectedStream(int descriptor);

// Bytes on their way, maybe to several.
using Payload = std::shared_ptr<const std::vector<char>>;

class DirectSocket {
public:
    // `largest` message that is taken.
    DirectSocket(Descriptor socket, std::uint64_t largest)
        : m_socket(std::move(socket)), m_reader(largest)
    {
    }
    ~DirectSocket() { Shutdown(); }
    DirectSocket(const DirectSocket&) = delete;
    DirectSocket& operator=(const DirectSocket&) = delete;

    int Number() const { return m_socket.Number(); }

    // The end, which the other side sees also where somebody else holds the descriptor, and whoever
    // waits for the socket.
    void Shutdown();

    // The frame leaves with Flush, after those before it. `payload` may be null.
    void Write(FrameHead head, Payload payload);

    // As much as the socket takes. False when it takes nothing any more.
    bool Flush();
    std::size_t Waiting() const { return m_waiting_bytes; }
    std::size_t FramesWaiting() const { return m_waiting.size(); }

    // more: there may be much more; some: there may be; drained: nothing came.
    enum class ReadResult { more, some, drained, ended, at_fault };
    // Reads once and adds to `frames`. `buffer` is its to use, and worth being kept.
    ReadResult Read(std::vector<char>& buffer, std::vector<Frame>& frames);

    // What is wrong when a read was at fault.
    const std::string& Fault() const { return m_reader.Fault(); }

private:
    struct Item {
        std::array<char, FrameHead::SIZE> head;
        Payload payload;
        std::size_t Size() const
        {
            return head.size() + (payload != nullptr ? payload->size() : 0);
        }
    };
    void Written(std::size_t size);

    const Descriptor m_socket;
    FrameReader m_reader;
    std::deque<Item> m_waiting;
    std::size_t m_waiting_bytes = 0;
    std::size_t m_written = 0;  // of the first that waits
};

#endif
