// Runs an application's handlers: one at a time, in order, apart from all input and output.
// Internal.
#ifndef PELMAR_HANDLER_QUEUE_H
#define PELMAR_HANDLER_QUEUE_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

// One call of the application, or what takes its place when the queue is closed before.
class HandlerTask {
public:
    virtual ~HandlerTask() = default;
    virtual void Run() = 0;
    virtual void Abandon() {}
};

class HandlerQueue : public std::enable_shared_from_this<HandlerQueue> {
public:
    using Task = std::unique_ptr<HandlerTask>;
    using Executor = std::function<void(std::function<void()>)>;

    HandlerQueue() = default;
    ~HandlerQueue();
    HandlerQueue(const HandlerQueue&) = delete;
    HandlerQueue& operator=(const HandlerQueue&) = delete;

    // From now on tasks are run, without an executor in a thread of the queue's own. Throws
    // std::system_error when there can be no thread.
    void Open(Executor executor);

    // From any thread. A task that comes after Close is abandoned by the caller's thread.
    void Post(Task task);

    // Waits for the task that runs and abandons, in order, those that have not begun. Not from
    // inside a task.
    void Close();

    // Abandons tasks that it did not get.
    void Abandon(const std::deque<Task>& tasks) const;

    // Whether the calling thread is inside a task of this queue.
    bool IsInside() const;

private:
    void RunInThread();
    void Schedule();
    void RunOne();
    void RunFirst(std::unique_lock<std::mutex>& lock);
    void CallInside(const std::function<void()>& function) const;

    Executor m_executor;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Task> m_tasks;
    bool m_open = false;
    bool m_closed = false;
    bool m_scheduled = false;  // the executor has a call of RunOne that has not ended
    bool m_running = false;
    std::thread m_thread;
};

#endif
