#include "handler-queue.h"

#include <utility>

#include "quiet-thread.h"

namespace {

// The queues of which the thread runs a task, from the innermost.
struct Inside {
    const HandlerQueue* queue;
    const Inside* outer;
};
thread_local const Inside* t_inside = nullptr;

}  // namespace

HandlerQueue::~HandlerQueue()
{
    if (m_thread.joinable())
        m_thread.detach();
}

void HandlerQueue::Open(Executor executor, HandlerIdle* idle)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_executor = std::move(executor);
    m_idle = idle;
    m_open = true;
    if (!m_executor)
        m_thread =
            QuietThread("pelmar-handler", [self = shared_from_this()] { self->RunInThread(); });
    else if (!m_tasks.empty())
        Schedule();
}

void HandlerQueue::Post(Task task)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_closed) {
        lock.unlock();
        task->Abandon();
        return;
    }
    m_tasks.push_back(std::move(task));
    if (!m_open)
        return;
    if (m_executor)
        Schedule();
    else if (!m_running)
        WakeThread();
}

// With the lock held: an executor hands on and does not call.
void HandlerQueue::Schedule()
{
    if (std::exchange(m_scheduled, true))
        return;
    m_executor([self = shared_from_this()] { self->RunOne(); });
}

void HandlerQueue::RunInThread()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_closed) {
        if (m_tasks.empty())
            WaitForTasks(lock);
        else
            RunFirst(lock);
    }
    if (m_idle != nullptr)
        m_idle->Leave();
}

void HandlerQueue::WaitForTasks(std::unique_lock<std::mutex>& lock)
{
    if (m_idle == nullptr || !m_idle->IsNeeded()) {
        if (m_idle != nullptr)
            m_idle->Leave();
        m_changed.wait(lock, [this] { return m_closed || !m_tasks.empty(); });
        return;
    }
    m_is_idle = true;
    lock.unlock();
    m_idle->Wait();
    lock.lock();
    m_is_idle = false;
}

// With the lock held. What is posted by the thread itself it finds without.
void HandlerQueue::WakeThread()
{
    m_changed.notify_all();
    if (std::this_thread::get_id() != m_thread.get_id() && std::exchange(m_is_idle, false))
        m_idle->Wake();
}

void HandlerQueue::RunOne()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_closed || m_tasks.empty()) {
        m_scheduled = false;
        return;
    }
    RunFirst(lock);
    m_scheduled = false;
    if (!m_closed && !m_tasks.empty())
        Schedule();
}

// The lock is held before and after, and not while the task runs.
void HandlerQueue::RunFirst(std::unique_lock<std::mutex>& lock)
{
    Task task = std::move(m_tasks.front());
    m_tasks.pop_front();
    m_running = true;
    lock.unlock();
    if (m_idle != nullptr)
        m_idle->Leave();
    CallInside([&task] { task->Run(); });
    task.reset();
    lock.lock();
    m_running = false;
    if (m_closed)
        m_changed.notify_all();
}

void HandlerQueue::CallInside(const std::function<void()>& function) const
{
    const Inside inside{this, t_inside};
    t_inside = &inside;
    function();
    t_inside = inside.outer;
}

void HandlerQueue::Abandon(const std::deque<Task>& tasks) const
{
    CallInside([&tasks] {
        for (const Task& task : tasks)
            task->Abandon();
    });
}

void HandlerQueue::TaskIsNearlyOver()
{
    if (m_idle == nullptr || !m_idle->IsNeeded())
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_tasks.empty())
        m_idle->Return();
}

bool HandlerQueue::IsInside() const
{
    for (const Inside* inside = t_inside; inside != nullptr; inside = inside->outer) {
        if (inside->queue == this)
            return true;
    }
    return false;
}

void HandlerQueue::Close()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_closed = true;
    WakeThread();
    m_changed.wait(lock, [this] { return !m_running; });
    std::deque<Task> left = std::move(m_tasks);
    std::thread thread = std::move(m_thread);
    lock.unlock();
    if (thread.joinable())
        thread.join();
    Abandon(left);
}
