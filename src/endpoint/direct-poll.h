// Waits for the sockets of all direct paths at once. Internal.
#ifndef PELMAR_DIRECT_POLL_H
#define PELMAR_DIRECT_POLL_H

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

#include "direct-socket.h"

// Either of two threads waits: the endpoint's loop, by a descriptor, or another in Wait, as long as
// the loop is kept out.
class DirectPoll {
public:
    // Not open when the process has no descriptors left.
    DirectPoll();

    bool IsOpen() const
    {
        return m_sockets.IsOpen() && m_for_loop.IsOpen() && m_wake.IsOpen() && m_end.IsOpen() &&
               m_timer.IsOpen();
    }

    // What the loop waits for; ready when there is something to look at and the loop is let in.
    int ForLoop() const { return m_for_loop.Number(); }
    void LetLoopIn(bool is_let_in);

    // What is the case with some of the sockets.
    struct Events {
        std::array<epoll_event, 64> of;
        int count = 0;
    };
    // When there is something, or after Wake, which counts until ForgetWake or a Wait.
    Events Wait();
    void Wake();
    void ForgetWake();

    // Returns when the socket can be read, at the deadline, or after End.
    void WaitFor(int socket, std::chrono::steady_clock::time_point deadline) const;
    void End();

    // Reports `key` when the socket can be read or written, and its end whatever is wished for;
    // again with other wishes, none included, which costs less than to forget it for a while.
    void Watch(int socket, std::uint64_t key, bool reads, bool writes);
    void Forget(int socket);

    // Reports the key 0 after that time; nobody else's is 0.
    void RemindIn(std::chrono::microseconds time);

    // Now, without waiting.
    Events Look() const;

    // A call for each socket.
    void ForEach(
        const Events& events,
        const std::function<void(std::uint64_t key, bool may_read, bool may_write)>& take) const;

private:
    Events Take(int timeout) const;

    const Descriptor m_sockets;
    const Descriptor m_for_loop;
    const Descriptor m_wake;
    std::atomic<bool> m_woken{false};
    const Descriptor m_end;
    const Descriptor m_timer;
};

#endif
