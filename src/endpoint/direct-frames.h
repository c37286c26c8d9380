// What stands on the stream of a direct path: frames, each a head of 16 bytes and what it
// announces. Internal. Knows no socket. docs/protocol.md describes it.
#ifndef PELMAR_DIRECT_FRAMES_H
#define PELMAR_DIRECT_FRAMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class FrameType : std::uint8_t {
    hello = 1,    // the first frame: what this side speaks and takes
    request = 2,  // answered by its serial
    answer = 3,   // the bytes that answer a request
    error = 4,    // that there are none: one byte that says why, and a text
    notify = 5,   // a notification
    bye = 6,      // nothing follows
    slot = 7,     // with a descriptor: from now on there is such a slot; without bytes: no more
    taken = 8     // one byte: whether a slot was taken
};

// Memory that both ends have (direct-slots.h).
struct DirectSlot {
    static constexpr std::uint16_t MOST = 4;  // of each end
    static constexpr std::size_t MOST_CAPACITY = 16UL * 1024 * 1024;
};

struct FrameHead {
    static constexpr std::size_t SIZE = 16;
    // Of an answer or an error: the request came by the bus, and the serial is the bus's.
    static constexpr std::uint8_t OF_BUS = 1;

    FrameType type = FrameType::bye;
    std::uint8_t flags = 0;
    std::uint16_t slot = 0;  // whose bytes these are, or which it is about; 0: none
    std::uint32_t serial = 0;
    std::uint64_t size = 0;  // in bytes: of what follows, or stands in the slot

    bool IsAboutSlot() const { return type == FrameType::slot || type == FrameType::taken; }
    bool IsInSlot() const { return slot != 0 && !IsAboutSlot(); }
};

// In the order of bytes of the machine: both ends are on one.
std::array<char, FrameHead::SIZE> EncodeHead(const FrameHead& head);

struct Hello {
    static constexpr std::uint32_t VERSION = 1;

    std::uint32_t version = VERSION;
    std::uint64_t largest = 0;  // the largest message that this side takes, in bytes
};
std::vector<char> EncodeHello(const Hello& hello);
// Nothing when it is none that this side understands.
std::optional<Hello> DecodeHello(const std::vector<char>& payload);

std::vector<char> EncodeCapacity(std::uint64_t capacity);
std::uint64_t DecodeCapacity(const std::vector<char>& payload);

// Why a request has no answer.
enum class FrameError : std::uint8_t { failed = 0, gone = 1, busy = 2 };
std::vector<char> EncodeError(FrameError error, const std::string& text);

struct Frame {
    FrameHead head;
    std::vector<char> payload;  // empty where the message is in a slot
};

// Puts the stream together again. What cannot be a frame ends it: nothing after that is looked at.
class FrameReader {
public:
    static constexpr std::size_t LONGEST_ERROR = 1 + 4096;

    // `largest` message that is taken.
    explicit FrameReader(std::uint64_t largest) : m_largest(largest) {}

    // Adds to `frames` those that are whole now. False when the stream is at fault.
    bool Take(const char* data, std::size_t size, std::vector<Frame>& frames);

    // From outside: the stream is at fault.
    void Fail(const std::string& fault) { m_fault = fault; }

    // Whether the frame that a slot comes with has begun.
    bool IsInsideSlot() const
    {
        return m_head_size != 0 && static_cast<FrameType>(m_head[0]) == FrameType::slot;
    }

    // What is wrong with the stream; empty when nothing is.
    const std::string& Fault() const { return m_fault; }

private:
    bool TakeHead(const char*& data, std::size_t& size);
    std::string FaultOf(const FrameHead& head) const;

    const std::uint64_t m_largest;
    std::array<char, FrameHead::SIZE> m_head{};
    std::size_t m_head_size = 0;
    Frame m_frame;
    bool m_had_hello = false;
    std::string m_fault;
};

#endif
