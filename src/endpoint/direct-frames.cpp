#include "direct-frames.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// "PLMR", as its bytes stand in memory.
constexpr std::array<char, 4> MAGIC = {'P', 'L', 'M', 'R'};
constexpr std::size_t HELLO_SIZE = 16;

// More is not reserved for a message before its bytes have come: a false size costs nothing.
constexpr std::size_t MOST_RESERVED = 1024UL * 1024;

template <typename Value>
void Put(char* at, Value value)
{
    std::memcpy(at, &value, sizeof value);
}

template <typename Value>
Value Get(const char* at)
{
    Value value{};
    std::memcpy(&value, at, sizeof value);
    return value;
}

// type, flags, two bytes that are 0, serial, size
FrameHead DecodeHead(const std::array<char, FrameHead::SIZE>& bytes)
{
    FrameHead head;
    head.type = Get<FrameType>(bytes.data());
    head.flags = Get<std::uint8_t>(bytes.data() + 1);
    head.serial = Get<std::uint32_t>(bytes.data() + 4);
    head.size = Get<std::uint64_t>(bytes.data() + 8);
    return head;
}

}  // namespace

std::array<char, FrameHead::SIZE> EncodeHead(const FrameHead& head)
{
    std::array<char, FrameHead::SIZE> bytes{};
    Put(bytes.data(), head.type);
    Put(bytes.data() + 1, head.flags);
    Put(bytes.data() + 4, head.serial);
    Put(bytes.data() + 8, head.size);
    return bytes;
}

std::vector<char> EncodeHello(const Hello& hello)
{
    std::vector<char> payload(HELLO_SIZE);
    std::copy(MAGIC.begin(), MAGIC.end(), payload.begin());
    Put(payload.data() + 4, hello.version);
    Put(payload.data() + 8, hello.largest);
    return payload;
}

std::optional<Hello> DecodeHello(const std::vector<char>& payload)
{
    if (payload.size() != HELLO_SIZE || !std::equal(MAGIC.begin(), MAGIC.end(), payload.begin()))
        return std::nullopt;
    Hello hello;
    hello.version = Get<std::uint32_t>(payload.data() + 4);
    hello.largest = Get<std::uint64_t>(payload.data() + 8);
    if (hello.version != Hello::VERSION)
        return std::nullopt;
    return hello;
}

std::vector<char> EncodeError(FrameError error, const std::string& text)
{
    std::vector<char> payload(1 + text.size(), static_cast<char>(error));
    std::copy(text.begin(), text.end(), payload.begin() + 1);
    return payload;
}

bool FrameReader::Take(const char* data, std::size_t size, std::vector<Frame>& frames)
{
    while (m_fault.empty() && TakeHead(data, size)) {
        std::vector<char>& payload = m_frame.payload;
        const std::uint64_t missing = m_frame.head.size - payload.size();
        const std::size_t part = missing < size ? static_cast<std::size_t>(missing) : size;
        if (payload.size() + part > payload.capacity())
            payload.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(
                m_frame.head.size, std::max(2 * payload.capacity(), payload.size() + part))));
        payload.insert(payload.end(), data, data + part);
        data += part;
        size -= part;
        if (payload.size() < m_frame.head.size)
            break;
        m_head_size = 0;
        m_had_hello = true;
        frames.push_back(std::move(m_frame));
        m_frame = {};
    }
    return m_fault.empty();
}

// Whether the frame at hand has a whole head that is without fault.
bool FrameReader::TakeHead(const char*& data, std::size_t& size)
{
    if (m_head_size == FrameHead::SIZE)
        return size != 0;
    const std::size_t part = std::min(FrameHead::SIZE - m_head_size, size);
    std::copy(data, data + part, m_head.begin() + static_cast<std::ptrdiff_t>(m_head_size));
    m_head_size += part;
    data += part;
    size -= part;
    if (m_head_size < FrameHead::SIZE)
        return false;
    m_frame.head = DecodeHead(m_head);
    m_fault = FaultOf(m_frame.head);
    if (m_fault.empty())
        m_frame.payload.reserve(std::min<std::uint64_t>(m_frame.head.size, MOST_RESERVED));
    return m_fault.empty();
}

std::string FrameReader::FaultOf(const FrameHead& head) const
{
    const auto too_large = [&head](std::uint64_t most) {
        return head.size <= most ? ""
                                 : "a frame of " + std::to_string(head.size) + " bytes where " +
                                       std::to_string(most) + " are taken";
    };
    const std::string type = std::to_string(static_cast<unsigned>(head.type));
    if (m_had_hello == (head.type == FrameType::hello))
        return m_had_hello ? "a second greeting" : "frame type " + type + " before the greeting";
    if (m_head[2] != 0 || m_head[3] != 0)
        return "a frame whose reserved bytes are not 0";
    const bool is_reply = head.type == FrameType::answer || head.type == FrameType::error;
    if ((head.flags & ~(is_reply ? FrameHead::OF_BUS : 0U)) != 0)
        return "unknown flags " + std::to_string(head.flags) + " of frame type " + type;
    switch (head.type) {
        case FrameType::hello:
            return head.size == HELLO_SIZE ? "" : "a greeting of a wrong size";
        case FrameType::request:
        case FrameType::answer:
        case FrameType::notify:
            return too_large(m_largest);
        case FrameType::error:
            return head.size != 0 ? too_large(LONGEST_ERROR) : "an error without a reason";
        case FrameType::bye:
            return too_large(0);
    }
    return "unknown frame type " + type;
}
