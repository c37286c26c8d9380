// One end of a direct path: a socket, what waits to be written to it, and what has been read of it.
// Internal. Knows no bus; never waits. Whoever uses it guards it.
#ifndef PELMAR_DIRECT_SOCKET_H
#define PELMAR_DIRECT_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "direct-frames.h"
#include "direct-slots.h"
#include "foreign-descriptor.h"

// Two ends that are connected, one for another process; both not open when the process has no
// descriptors left.
std::pair<SocketEnd, Descriptor> ConnectedSockets();

// Whether a descriptor of unknown origin is what a direct path runs on.
bool IsConnectedStream(int descriptor);

// Bytes on their way, maybe to several.
using Payload = std::shared_ptr<const std::vector<char>>;

class DirectSocket {
public:
    // `largest` message that is taken.
    DirectSocket(SocketEnd socket, std::uint64_t largest)
        : m_socket(std::move(socket)), m_reader(largest)
    {
    }
    DirectSocket(const DirectSocket&) = delete;
    DirectSocket& operator=(const DirectSocket&) = delete;

    int Number() const { return m_socket.Number(); }

    // The end, which the other side sees also where somebody else holds the descriptor, and whoever
    // waits for the socket.
    void Shutdown();

    // The frame leaves with Flush, after those before it. `payload` may be null. A large message
    // goes by a slot where one is free. Marks are the caller's, and never fall.
    void Write(FrameHead head, Payload payload, std::uint64_t mark);

    // As much as the socket takes; nothing while it is known to be full. False when it takes
    // nothing any more.
    bool Flush();
    void HasRoom() { m_is_full = false; }  // as the poll tells
    std::size_t Waiting() const { return m_waiting_bytes; }
    std::size_t FramesWaiting() const { return m_frames_waiting; }  // of those given to Write
    std::uint64_t Taken() const { return m_taken; }                 // up to this mark nothing waits

    // some: there may be more; drained: nothing came.
    enum class ReadResult { some, drained, ended, at_fault };
    // Reads once and adds to `frames`, but for those about slots: they are answered, by something
    // that waits to be written. `buffer` is its to use, and worth being kept.
    ReadResult Read(std::vector<char>& buffer, std::vector<Frame>& frames);

    // What is wrong when a read was at fault.
    const std::string& Fault() const { return m_reader.Fault(); }

    // Slots that were not used since the last call are given up. Whether there are any others.
    bool GiveUpIdleSlots();
    bool HasWordsWaiting() const { return m_own_waiting != 0; }
    bool HasSlots() const { return !m_own_slots.IsEmpty(); }

private:
    // Frames, of which the last may have its bytes elsewhere.
    struct Item {
        std::vector<char> bytes;
        Payload payload;
        Descriptor memory;       // leaves with it
        std::size_t frames = 0;  // that were given to Write
        std::uint64_t mark = 0;  // of the last of them
        std::size_t Size() const
        {
            return bytes.size() + (payload != nullptr ? payload->size() : 0);
        }
    };
    bool FillSlot(FrameHead& head, const Payload& payload);
    void WriteOwn(FrameType type, std::uint16_t slot, const std::vector<char>& payload,
                  Descriptor memory = Descriptor());
    Item& ItemFor(std::size_t size);
    void Append(Item& item, const FrameHead& head, Payload payload);
    ssize_t SendMany();
    ssize_t SendMemory(const Item& item) const;
    void TakeBackOffer();
    void Written(std::size_t size);
    void PopFirst();
    void TakeBytes(const char* data, std::size_t size, std::vector<Frame>& frames);
    void TakeMemory(Received& received);
    bool TakeIn(Frame& frame);
    bool TakeSlot(const Frame& frame);
    bool CopyOut(Frame& frame);
    bool Fail(const std::string& fault);

    const SocketEnd m_socket;
    FrameReader m_reader;
    OwnSlots m_own_slots;
    TheirSlots m_their_slots;
    ForeignDescriptor m_memory;    // of a slot whose frame is not whole
    bool m_memory_missed = false;  // there was no room for it
    std::vector<Frame> m_read;
    std::deque<Item> m_waiting;
    std::vector<char> m_spare;  // for the bytes of the next item
    std::size_t m_frames_waiting = 0;
    std::size_t m_own_waiting = 0;
    std::size_t m_waiting_bytes = 0;
    std::size_t m_written = 0;  // of the first that waits
    std::uint64_t m_taken = 0;
    bool m_is_full = false;
};

#endif
