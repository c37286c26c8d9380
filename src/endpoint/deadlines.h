// What is to happen when, in order. Internal. Knows no clock.
#ifndef PELMAR_DEADLINES_H
#define PELMAR_DEADLINES_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

class Deadlines {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    using Task = std::function<void()>;

    // Names one entry; 0 names none.
    using Id = std::uint64_t;

    Id Add(TimePoint time, Task task)
    {
        const Id id = ++m_last;
        m_entries.emplace(std::make_pair(time, id), std::move(task));
        m_times.emplace(id, time);
        return id;
    }

    // Does nothing when it was taken before.
    void Remove(Id id)
    {
        const auto found = m_times.find(id);
        if (found == m_times.end())
            return;
        m_entries.erase({found->second, id});
        m_times.erase(found);
    }

    std::optional<TimePoint> Next() const
    {
        return m_entries.empty() ? std::nullopt : std::optional(m_entries.begin()->first.first);
    }

    // The first that is due, empty when none is.
    Task TakeDue(TimePoint now)
    {
        if (m_entries.empty() || m_entries.begin()->first.first > now)
            return {};
        auto node = m_entries.extract(m_entries.begin());
        m_times.erase(node.key().second);
        return std::move(node.mapped());
    }

    void Clear()
    {
        m_entries.clear();
        m_times.clear();
    }

private:
    Id m_last = 0;
    std::map<std::pair<TimePoint, Id>, Task> m_entries;
    std::map<Id, TimePoint> m_times;
};

#endif
