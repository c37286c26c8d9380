#include "command-pool.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace {

// More than the bus lets one caller have unanswered; beyond it somebody floods.
constexpr std::size_t MOST_WAITING = 256;

}  // namespace

CommandPool::CommandPool(std::string command, const CommandLimits& limits, std::size_t threads,
                         Done done)
    : m_command(std::move(command)),
      m_limits(limits),
      m_done(std::move(done)),
      m_stop(eventfd(0, EFD_CLOEXEC))
{
    for (std::size_t i = 0; i < threads; ++i)
        m_threads.emplace_back([this] { Work(); });
}

CommandPool::~CommandPool()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_jobs.clear();
    }
    eventfd_write(m_stop, 1);
    m_changed.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
    close(m_stop);
}

void CommandPool::Submit(Bytes message, const PelmarEndpoint::Reply& reply)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_jobs.size() >= MOST_WAITING) {
            reply.Fail(Count(MOST_WAITING, "message") + " are waiting already");
            return;
        }
        m_jobs.push_back({std::move(message), reply});
    }
    m_changed.notify_one();
}

void CommandPool::Work()
{
    for (;;) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_stopped || !m_jobs.empty(); });
        if (m_stopped)
            return;
        const Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        Answer(job);
    }
}

void CommandPool::Answer(const Job& job) const
{
    CommandResult result = RunCommand(m_command, job.message, m_limits, m_stop);
    if (result.error.empty())
        job.reply.Send(result.output);
    else
        job.reply.Fail(result.error);
    m_done(job.message.size(), result);
}
