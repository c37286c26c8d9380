#include "direct-socket.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace {

// How much is read at a time.
constexpr std::size_t READ_SIZE = 256UL * 1024;

// Frames that are written at a time, a head and a payload each.
constexpr std::size_t MOST_FRAMES = 128;

bool HasOption(int descriptor, int option, int wanted)
{
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, option, &value, &size) == 0 && value == wanted;
}

}  // namespace

int Descriptor::Release()
{
    return std::exchange(m_number, -1);
}

void Descriptor::Close()
{
    if (m_number >= 0)
        close(m_number);
}

std::pair<Descriptor, Descriptor> ConnectedSockets()
{
    std::array<int, 2> ends = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0)
        return {Descriptor(), Descriptor()};
    return {Descriptor(ends[0]), Descriptor(ends[1])};
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

void DirectSocket::Write(FrameHead head, Payload payload)
{
    head.size = payload != nullptr ? payload->size() : 0;
    m_waiting.push_back({EncodeHead(head), std::move(payload)});
    m_waiting_bytes += m_waiting.back().Size();
}

bool DirectSocket::Flush()
{
    while (!m_waiting.empty()) {
        std::array<iovec, 2 * MOST_FRAMES> parts{};
        std::size_t count = 0;
        std::size_t skip = m_written;
        const auto add = [&](const char* data, std::size_t size) {
            const std::size_t skipped = std::min(skip, size);
            skip -= skipped;
            if (size != skipped)
                parts[count++] = {const_cast<char*>(data) + skipped, size - skipped};
        };
        for (std::size_t i = 0; i < m_waiting.size() && i < MOST_FRAMES; ++i) {
            const Item& item = m_waiting[i];
            add(item.head.data(), item.head.size());
            if (item.payload != nullptr)
                add(item.payload->data(), item.payload->size());
        }
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = count;
        const ssize_t written = sendmsg(m_socket.Number(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written < 0)
            return errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM;
        Written(static_cast<std::size_t>(written));
    }
    return true;
}

void DirectSocket::Written(std::size_t size)
{
    m_waiting_bytes -= size;
    m_written += size;
    while (!m_waiting.empty() && m_written >= m_waiting.front().Size()) {
        m_written -= m_waiting.front().Size();
        m_waiting.pop_front();
    }
}

DirectSocket::ReadResult DirectSocket::Read(std::vector<char>& buffer, std::vector<Frame>& frames)
{
    buffer.resize(READ_SIZE);
    iovec part = {buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t size = recvmsg(m_socket.Number(), &message, MSG_DONTWAIT);
    if (size == 0)
        return ReadResult::ended;
    if (size < 0)
        return errno == EAGAIN || errno == EINTR ? ReadResult::drained : ReadResult::ended;
    // The kernel has closed them: there is no room for any.
    if ((message.msg_flags & MSG_CTRUNC) != 0)
        m_reader.Fail("a descriptor that nobody asked for");
    if (!m_reader.Take(buffer.data(), static_cast<std::size_t>(size), frames))
        return ReadResult::at_fault;
    return static_cast<std::size_t>(size) == buffer.size() ? ReadResult::more : ReadResult::some;
}
