#include "direct-poll.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

// Beside the keys of sockets.
constexpr std::uint64_t OF_TIMER = 0;
constexpr std::uint64_t OF_WAKE = ~std::uint64_t{0};

}  // namespace

DirectPoll::DirectPoll()
    : m_sockets(epoll_create1(EPOLL_CLOEXEC)),
      m_for_loop(epoll_create1(EPOLL_CLOEXEC)),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_end(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))
{
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(m_for_loop.Number(), EPOLL_CTL_ADD, m_sockets.Number(), &event);
    event.data.u64 = OF_TIMER;
    epoll_ctl(m_sockets.Number(), EPOLL_CTL_ADD, m_timer.Number(), &event);
    event.data.u64 = OF_WAKE;
    epoll_ctl(m_sockets.Number(), EPOLL_CTL_ADD, m_wake.Number(), &event);
}

void DirectPoll::RemindIn(std::chrono::microseconds time)
{
    itimerspec once{};
    once.it_value.tv_nsec = std::chrono::nanoseconds(time).count();
    timerfd_settime(m_timer.Number(), 0, &once, nullptr);
}

void DirectPoll::LetLoopIn(bool is_let_in)
{
    epoll_event event{};
    event.events = is_let_in ? EPOLLIN : 0U;
    epoll_ctl(m_for_loop.Number(), EPOLL_CTL_MOD, m_sockets.Number(), &event);
}

DirectPoll::Events DirectPoll::Take(int timeout) const
{
    Events events;
    events.count = epoll_wait(m_sockets.Number(), events.of.data(),
                              static_cast<int>(events.of.size()), timeout);
    return events;
}

DirectPoll::Events DirectPoll::Wait()
{
    const Events events = Take(-1);
    ForgetWake();
    return events;
}

DirectPoll::Events DirectPoll::Look() const
{
    return Take(0);
}

void DirectPoll::Wake()
{
    eventfd_write(m_wake.Number(), 1);
    m_woken = true;
}

void DirectPoll::ForgetWake()
{
    eventfd_t count = 0;
    if (m_woken.exchange(false))
        eventfd_read(m_wake.Number(), &count);
}

void DirectPoll::WaitFor(int socket, std::chrono::steady_clock::time_point deadline) const
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    const milliseconds longest = std::chrono::hours(1);
    std::array<pollfd, 2> polled = {{{socket, POLLIN, 0}, {m_end.Number(), POLLIN, 0}}};
    poll(polled.data(), polled.size(),
         static_cast<int>(std::clamp(left, milliseconds(0), longest).count()));
}

void DirectPoll::End()
{
    eventfd_write(m_end.Number(), 1);
}

void DirectPoll::Watch(int socket, std::uint64_t key, bool reads, bool writes)
{
    epoll_event event{};
    event.events = (reads ? EPOLLIN : 0U) | (writes ? EPOLLOUT : 0U);
    event.data.u64 = key;
    if (epoll_ctl(m_sockets.Number(), EPOLL_CTL_MOD, socket, &event) != 0 && errno == ENOENT)
        epoll_ctl(m_sockets.Number(), EPOLL_CTL_ADD, socket, &event);
}

void DirectPoll::Forget(int socket)
{
    epoll_ctl(m_sockets.Number(), EPOLL_CTL_DEL, socket, nullptr);
}

void DirectPoll::ForEach(
    const Events& events,
    const std::function<void(std::uint64_t key, bool may_read, bool may_write)>& take) const
{
    for (int i = 0; i < events.count; ++i) {
        const epoll_event& event = events.of[static_cast<std::size_t>(i)];
        std::uint64_t expirations = 0;
        if (event.data.u64 == OF_WAKE ||
            (event.data.u64 == OF_TIMER &&
             read(m_timer.Number(), &expirations, sizeof expirations) != sizeof expirations))
            continue;
        // The end of a socket is read.
        take(event.data.u64, (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0,
             (event.events & EPOLLOUT) != 0);
    }
}
