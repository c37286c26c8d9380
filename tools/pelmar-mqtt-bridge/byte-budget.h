// How many bytes may be under way. From any thread.
#ifndef PELMAR_BRIDGE_BYTE_BUDGET_H
#define PELMAR_BRIDGE_BYTE_BUDGET_H

#include <atomic>
#include <cstddef>
#include <memory>

class ByteBudget {
public:
    // Gives its bytes back when the last copy goes.
    using Share = std::shared_ptr<void>;

    explicit ByteBudget(std::size_t limit) : m_limit(limit) {}

    // Null when there is no room. An empty budget has room for anything, also for a message that is
    // larger than the limit.
    Share Take(std::size_t size)
    {
        const std::size_t cost = size + MESSAGE_OVERHEAD;
        std::size_t used = m_used->load();
        do {
            if (used != 0 && used + cost > m_limit)
                return nullptr;
        } while (!m_used->compare_exchange_weak(used, used + cost));
        return {m_used.get(), [used = m_used, cost](void*) { *used -= cost; }};
    }

private:
    static constexpr std::size_t MESSAGE_OVERHEAD = 512;

    const std::size_t m_limit;
    const std::shared_ptr<std::atomic<std::size_t>> m_used =
        std::make_shared<std::atomic<std::size_t>>(0);
};

#endif
