#include "foreign-descriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>

#include "quiet-thread.h"

namespace {

// Much more than a socket's buffer is not read to empty it.
constexpr int MOST_READS = 1024;
constexpr std::size_t READ_SIZE = 16UL * 1024;

// The kernel lets no more come with one message.
constexpr std::size_t MOST_DESCRIPTORS = 253;

bool IsMemory(int descriptor)
{
    return fcntl(descriptor, F_GET_SEALS) >= 0;
}

class Closer {
public:
    void Add(int descriptor)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_waiting.push_back(descriptor);
        if (m_runs)
            return;
        try {
            QuietThread("pelmar-closer", [this] { Run(); }).detach();
            m_runs = true;
        } catch (const std::system_error&) {
            CloseAll(lock);
        }
    }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        CloseAll(lock);
        m_runs = false;
    }
    void CloseAll(std::unique_lock<std::mutex>& lock)
    {
        while (!m_waiting.empty()) {
            const int descriptor = m_waiting.back();
            m_waiting.pop_back();
            lock.unlock();
            const linger none{};
            setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &none, sizeof none);
            close(descriptor);
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::vector<int> m_waiting;
    bool m_runs = false;
};

// Never destroyed: its thread may run until the process ends.
Closer& TheCloser()
{
    static auto* const closer = new Closer;
    return *closer;
}

// False when there may be more.
bool ReadRest(int socket)
{
    std::array<char, READ_SIZE> buffer;
    for (int i = 0; i < MOST_READS; ++i) {
        if (Receive(socket, buffer.data(), buffer.size()).size <= 0)
            return true;
    }
    return false;
}

std::vector<ForeignDescriptor> DescriptorsOf(const msghdr& message)
{
    std::vector<ForeignDescriptor> came;
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
        return came;
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
        int number = -1;
        std::memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
        came.emplace_back(number);
    }
    return came;
}

}  // namespace

void CloseElsewhere(int descriptor)
{
    if (IsMemory(descriptor))
        close(descriptor);
    else
        TheCloser().Add(descriptor);
}

void CloseSocketEnd(int descriptor)
{
    shutdown(descriptor, SHUT_RDWR);
    if (ReadRest(descriptor))
        close(descriptor);
    else
        TheCloser().Add(descriptor);
}

Received Receive(int socket, char* buffer, std::size_t size)
{
    iovec part = {buffer, size};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(MOST_DESCRIPTORS * sizeof(int))> control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t received = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received < 0)
        return {received, {}, false};
    return {received, DescriptorsOf(message), (message.msg_flags & MSG_CTRUNC) != 0};
}
