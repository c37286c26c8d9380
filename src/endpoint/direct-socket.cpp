#include "direct-socket.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace {

// How much is read at a time.
constexpr std::size_t READ_SIZE = 64UL * 1024;

// Small messages are copied behind one another, so that the kernel has few pieces to put together.
constexpr std::size_t SMALL = 4096;
constexpr std::size_t COLLECTED_BYTES = 64UL * 1024;

// Items that are written at a time.
constexpr std::size_t MOST_ITEMS = 16;

// What is kept of an item that has left.
constexpr std::size_t MOST_SPARE = 1024;

// Room for one descriptor beside the bytes.
struct OneDescriptor {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> bytes{};
};

bool HasOption(int descriptor, int option, int wanted)
{
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, option, &value, &size) == 0 && value == wanted;
}

}  // namespace

std::pair<SocketEnd, Descriptor> ConnectedSockets()
{
    std::array<int, 2> ends = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0)
        return {SocketEnd(), Descriptor()};
    return {SocketEnd(ends[0]), Descriptor(ends[1])};
}

bool IsConnectedStream(int descriptor)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    return HasOption(descriptor, SO_DOMAIN, AF_UNIX) &&
           HasOption(descriptor, SO_TYPE, SOCK_STREAM) &&
           getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
}

void DirectSocket::Shutdown()
{
    shutdown(m_socket.Number(), SHUT_RDWR);
}

// ---- Out -----------------------------------------------------------------------------------

void DirectSocket::Write(FrameHead head, Payload payload, std::uint64_t mark)
{
    head.size = payload != nullptr ? payload->size() : 0;
    if (OwnSlots::IsLarge(head.size) && FillSlot(head, payload))
        payload.reset();
    Item& item = ItemFor(payload != nullptr ? payload->size() : 0);
    Append(item, head, std::move(payload));
    item.mark = mark;
    ++item.frames;
    ++m_frames_waiting;
}

// The last that waits, or a new one.
DirectSocket::Item& DirectSocket::ItemFor(std::size_t size)
{
    const bool fits = !m_waiting.empty() && m_waiting.back().frames != 0 &&
                      m_waiting.back().payload == nullptr &&
                      m_waiting.back().bytes.size() + FrameHead::SIZE + size <= COLLECTED_BYTES;
    if (!fits) {
        m_waiting.emplace_back();
        m_waiting.back().bytes = std::exchange(m_spare, {});
    }
    return m_waiting.back();
}

void DirectSocket::Append(Item& item, const FrameHead& head, Payload payload)
{
    const std::size_t before = item.Size();
    const auto bytes = EncodeHead(head);
    item.bytes.insert(item.bytes.end(), bytes.begin(), bytes.end());
    if (payload != nullptr && payload->size() <= SMALL)
        item.bytes.insert(item.bytes.end(), payload->begin(), payload->end());
    else
        item.payload = std::move(payload);
    m_waiting_bytes += item.Size() - before;
}

// The first large message goes inline, and makes that the next need not.
bool DirectSocket::FillSlot(FrameHead& head, const Payload& payload)
{
    head.slot = m_own_slots.Fill(*payload);
    if (head.slot != 0)
        return true;
    if (auto offer = m_own_slots.MakeFor(payload->size()))
        WriteOwn(FrameType::slot, offer->number, EncodeCapacity(offer->capacity),
                 std::move(offer->memory));
    return false;
}

void DirectSocket::WriteOwn(FrameType type, std::uint16_t slot, const std::vector<char>& payload,
                            Descriptor memory)
{
    FrameHead head;
    head.type = type;
    head.slot = slot;
    head.size = payload.size();
    m_waiting.emplace_back();
    Append(m_waiting.back(), head, std::make_shared<const std::vector<char>>(payload));
    m_waiting.back().memory = std::move(memory);
    ++m_own_waiting;
}

bool DirectSocket::GiveUpIdleSlots()
{
    for (const std::uint16_t number : m_own_slots.GiveUpIdle())
        WriteOwn(FrameType::slot, number, {});
    return HasSlots();
}

bool DirectSocket::Flush()
{
    while (!m_waiting.empty() && !m_is_full) {
        const bool has_memory = m_waiting.front().memory.IsOpen();
        const ssize_t written = has_memory ? SendMemory(m_waiting.front()) : SendMany();
        m_is_full = written < 0 && errno == EAGAIN;
        if (written >= 0)
            Written(static_cast<std::size_t>(written));
        else if (has_memory && errno == ETOOMANYREFS)
            TakeBackOffer();
        else if (!m_is_full)
            return errno == EINTR || errno == ENOBUFS || errno == ENOMEM;
    }
    return true;
}

ssize_t DirectSocket::SendMany()
{
    std::array<iovec, 2 * MOST_ITEMS> parts{};
    std::size_t count = 0;
    std::size_t skip = m_written;
    const auto add = [&](const std::vector<char>& bytes) {
        const std::size_t skipped = std::min(skip, bytes.size());
        skip -= skipped;
        if (bytes.size() != skipped)
            parts[count++] = {const_cast<char*>(bytes.data()) + skipped, bytes.size() - skipped};
    };
    for (std::size_t i = 0; i < m_waiting.size() && i < MOST_ITEMS; ++i) {
        const Item& item = m_waiting[i];
        if (item.memory.IsOpen())
            break;
        add(item.bytes);
        if (item.payload != nullptr)
            add(*item.payload);
    }
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    return sendmsg(m_socket.Number(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Alone, so that the descriptor arrives with this frame and with no other; so few bytes are taken
// whole or not at all.
ssize_t DirectSocket::SendMemory(const Item& item) const
{
    iovec part = {const_cast<char*>(item.bytes.data()), item.bytes.size()};
    OneDescriptor control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes.data();
    message.msg_controllen = control.bytes.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int number = item.memory.Number();
    std::memcpy(CMSG_DATA(header), &number, sizeof number);
    return sendmsg(m_socket.Number(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// This user has too many descriptors under way.
void DirectSocket::TakeBackOffer()
{
    m_own_slots.TakeAnswer(m_own_slots.Offered(), false);
    Written(m_waiting.front().Size());
}

void DirectSocket::Written(std::size_t size)
{
    m_waiting_bytes -= size;
    m_written += size;
    while (!m_waiting.empty() && m_written >= m_waiting.front().Size()) {
        m_written -= m_waiting.front().Size();
        PopFirst();
    }
}

void DirectSocket::PopFirst()
{
    Item& first = m_waiting.front();
    if (first.frames != 0)
        m_taken = first.mark;
    else
        --m_own_waiting;
    m_frames_waiting -= first.frames;
    if (first.bytes.capacity() <= MOST_SPARE) {
        m_spare = std::move(first.bytes);
        m_spare.clear();
    }
    m_waiting.pop_front();
}

// ---- In ------------------------------------------------------------------------------------

DirectSocket::ReadResult DirectSocket::Read(std::vector<char>& buffer, std::vector<Frame>& frames)
{
    buffer.resize(READ_SIZE);
    Received received = Receive(m_socket.Number(), buffer.data(), buffer.size());
    if (received.size < 0)
        return errno == EAGAIN || errno == EINTR ? ReadResult::drained : ReadResult::ended;
    TakeMemory(received);
    if (received.size == 0)
        return ReadResult::ended;
    try {
        TakeBytes(buffer.data(), static_cast<std::size_t>(received.size), frames);
    } catch (const std::bad_alloc&) {
        Fail("there is no memory for what it sends");
    }
    if ((m_memory.IsOpen() || m_memory_missed) && !m_reader.IsInsideSlot())
        Fail("a descriptor that nobody asked for");
    if (!Fault().empty())
        return ReadResult::at_fault;
    return ReadResult::some;
}

void DirectSocket::TakeBytes(const char* data, std::size_t size, std::vector<Frame>& frames)
{
    m_read.clear();
    m_reader.Take(data, size, m_read);
    for (Frame& frame : m_read) {
        if (!TakeIn(frame))
            return;
        if (!frame.head.IsAboutSlot())
            frames.push_back(std::move(frame));
    }
}

// One at a time.
void DirectSocket::TakeMemory(Received& received)
{
    std::vector<ForeignDescriptor>& came = received.descriptors;
    if (came.empty() && !received.is_short)
        return;
    const bool had_one = m_memory.IsOpen() || m_memory_missed;
    if (had_one || came.size() > 1 || (received.is_short && !came.empty()))
        Fail("more descriptors than slots");
    else if (received.is_short)
        m_memory_missed = true;
    else
        m_memory = std::move(came.front());
}

bool DirectSocket::TakeIn(Frame& frame)
{
    switch (frame.head.type) {
        case FrameType::slot:
            return TakeSlot(frame);
        case FrameType::taken:
            return m_own_slots.TakeAnswer(frame.head.slot, frame.payload.front() != 0) ||
                   Fail("a word about a slot that was not offered");
        default:
            return !frame.head.IsInSlot() || CopyOut(frame);
    }
}

// One is offered at a time; whoever offers more without reading the answers wants to fill memory.
bool DirectSocket::TakeSlot(const Frame& frame)
{
    using Verdict = TheirSlots::Verdict;
    // A descriptor that has come belongs to a frame behind this.
    if (frame.payload.empty()) {
        m_their_slots.Forget(frame.head.slot);
        return true;
    }
    const ForeignDescriptor memory = std::move(m_memory);
    const bool was_missed = std::exchange(m_memory_missed, false);
    if (!memory.IsOpen() && !was_missed)
        return Fail("a slot without its memory");
    const Verdict verdict =
        m_their_slots.Take(frame.head.slot, DecodeCapacity(frame.payload), memory.Number());
    if (verdict == Verdict::at_fault)
        return Fail("memory for a slot that is not safe");
    if (m_own_waiting > DirectSlot::MOST)
        return Fail("slots whose answers are not read");
    WriteOwn(FrameType::taken, frame.head.slot, {verdict == Verdict::taken ? '\1' : '\0'});
    return true;
}

bool DirectSocket::CopyOut(Frame& frame)
{
    auto bytes = m_their_slots.CopyOut(frame.head.slot, frame.head.size);
    if (!bytes)
        return Fail("a message of " + std::to_string(frame.head.size) + " bytes in slot " +
                    std::to_string(frame.head.slot) + ", which is not filled, or smaller");
    frame.payload = std::move(*bytes);
    return true;
}

bool DirectSocket::Fail(const std::string& fault)
{
    if (Fault().empty())
        m_reader.Fail(fault);
    return false;
}
