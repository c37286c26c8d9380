// Waits for the sockets of all direct paths at once: one descriptor, however many there are.
// Internal.
#ifndef PELMAR_DIRECT_POLL_H
#define PELMAR_DIRECT_POLL_H

#include <cstdint>
#include <functional>

#include "direct-socket.h"

class DirectPoll {
public:
    // Not open when the process has no descriptors left.
    DirectPoll();

    bool IsOpen() const { return m_epoll.IsOpen(); }
    int Number() const { return m_epoll.Number(); }

    // Reports `key` when the socket can be read or written; again with other wishes, none included.
    void Watch(int socket, std::uint64_t key, bool reads, bool writes);
    void Forget(int socket);

    // What is the case now, without waiting: a call for each socket of some.
    void Look(const std::function<void(std::uint64_t key, bool may_read, bool may_write)>& take);

private:
    const Descriptor m_epoll;
};

#endif
