#include "direct-poll.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>

namespace {

constexpr std::size_t AT_A_TIME = 64;

}  // namespace

DirectPoll::DirectPoll() : m_epoll(epoll_create1(EPOLL_CLOEXEC)) {}

void DirectPoll::Watch(int socket, std::uint64_t key, bool reads, bool writes)
{
    epoll_event event{};
    event.events = (reads ? EPOLLIN : 0U) | (writes ? EPOLLOUT : 0U);
    event.data.u64 = key;
    if (epoll_ctl(m_epoll.Number(), EPOLL_CTL_MOD, socket, &event) != 0 && errno == ENOENT)
        epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, socket, &event);
}

void DirectPoll::Forget(int socket)
{
    epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, socket, nullptr);
}

void DirectPoll::Look(
    const std::function<void(std::uint64_t key, bool may_read, bool may_write)>& take)
{
    std::array<epoll_event, AT_A_TIME> events{};
    const int count = epoll_wait(m_epoll.Number(), events.data(), AT_A_TIME, 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        // The end of a socket is read.
        take(event.data.u64, (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0,
             (event.events & EPOLLOUT) != 0);
    }
}
