#include "direct-frames.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// "PLMR", as its bytes stand in memory.
constexpr std::array<char, 4> MAGIC = {'P', 'L', 'M', 'R'};
constexpr std::size_t HELLO_SIZE = 16;

// More is not reserved for a message before some of its bytes have come: a false size costs
// nothing.
constexpr std::size_t MOST_RESERVED = 1024UL * 1024;
constexpr std::size_t GROWTH = 8;

constexpr std::size_t CAPACITY_SIZE = sizeof(std::uint64_t);

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

// type, flags, slot, serial, size
FrameHead DecodeHead(const std::array<char, FrameHead::SIZE>& bytes)
{
    FrameHead head;
    head.type = Get<FrameType>(bytes.data());
    head.flags = Get<std::uint8_t>(bytes.data() + 1);
    head.slot = Get<std::uint16_t>(bytes.data() + 2);
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
    Put(bytes.data() + 2, head.slot);
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

std::vector<char> EncodeCapacity(std::uint64_t capacity)
{
    std::vector<char> payload(CAPACITY_SIZE);
    Put(payload.data(), capacity);
    return payload;
}

std::uint64_t DecodeCapacity(const std::vector<char>& payload)
{
    return Get<std::uint64_t>(payload.data());
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
        const std::uint64_t whole = m_frame.head.IsInSlot() ? 0 : m_frame.head.size;
        const std::uint64_t missing = whole - payload.size();
        const std::size_t part = missing < size ? static_cast<std::size_t>(missing) : size;
        if (payload.size() + part > payload.capacity())
            payload.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(
                whole, std::max(GROWTH * payload.capacity(), payload.size() + part))));
        payload.insert(payload.end(), data, data + part);
        data += part;
        size -= part;
        if (payload.size() < whole)
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
    if (m_fault.empty() && !m_frame.head.IsInSlot())
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
    if (head.type < FrameType::hello || head.type > FrameType::taken)
        return "unknown frame type " + type;
    if (m_had_hello == (head.type == FrameType::hello))
        return m_had_hello ? "a second greeting" : "frame type " + type + " before the greeting";
    const bool is_reply = head.type == FrameType::answer || head.type == FrameType::error;
    const bool is_message = head.type == FrameType::request || head.type == FrameType::answer ||
                            head.type == FrameType::notify;
    const bool has_serial = head.type == FrameType::request || is_reply;
    if (!has_serial && head.serial != 0)
        return "serial " + std::to_string(head.serial) + " of frame type " + type;
    if (head.slot > (is_message || head.IsAboutSlot() ? DirectSlot::MOST : 0) ||
        (head.IsAboutSlot() && head.slot == 0))
        return "slot " + std::to_string(head.slot) + " of frame type " + type;
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
        case FrameType::slot:
            return head.size == 0 || head.size == CAPACITY_SIZE ? "" : "a slot of a wrong size";
        case FrameType::taken:
            return head.size == 1 ? "" : "a word about a slot of a wrong size";
    }
    return "";
}
