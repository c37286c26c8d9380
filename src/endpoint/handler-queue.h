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

// What the queue's own thread waits for beside tasks.
class HandlerIdle {
public:
    HandlerIdle() = default;
    virtual ~HandlerIdle() = default;
    HandlerIdle(const HandlerIdle&) = delete;
    HandlerIdle& operator=(const HandlerIdle&) = delete;

    // Whether there is anything but tasks; from any thread. What comes later may be passed over.
    virtual bool IsNeeded() const = 0;
    // In the queue's thread. Returns when there may be a task; it may post tasks.
    virtual void Wait() = 0;
    // In the queue's thread, which does not come to wait for a while: it runs a task, or ends.
    virtual void Leave() = 0;
    // In the queue's thread, which comes to wait at once.
    virtual void Return() = 0;
    // Has Wait return, if it has not by itself; from any thread.
    virtual void Wake() = 0;
};

class HandlerQueue : public std::enable_shared_from_this<HandlerQueue> {
public:
    using Task = std::unique_ptr<HandlerTask>;
    using Executor = std::function<void(std::function<void()>)>;

    HandlerQueue() = default;
    ~HandlerQueue();
    HandlerQueue(const HandlerQueue&) = delete;
    HandlerQueue& operator=(const HandlerQueue&) = delete;

    // From now on tasks are run, without an executor in a thread of the queue's own. `idle`, which
    // may be null, is used by that thread until Close. Throws std::system_error when there can be
    // no thread.
    void Open(Executor executor, HandlerIdle* idle = nullptr);

    // From any thread. A task that comes after Close is abandoned by the caller's thread.
    void Post(Task task);

    // Waits for the task that runs and abandons, in order, those that have not begun. Not from
    // inside a task.
    void Close();

    // Abandons tasks that it did not get.
    void Abandon(const std::deque<Task>& tasks) const;

    // From inside a task: what is left of it takes no time.
    void TaskIsNearlyOver();

    // Whether the calling thread is inside a task of this queue.
    bool IsInside() const;

private:
    void RunInThread();
    void WaitForTasks(std::unique_lock<std::mutex>& lock);
    void WakeThread();
    void Schedule();
    void RunOne();
    void RunFirst(std::unique_lock<std::mutex>& lock);
    void CallInside(const std::function<void()>& function) const;

    Executor m_executor;
    HandlerIdle* m_idle = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Task> m_tasks;
    bool m_open = false;
    bool m_closed = false;
    bool m_scheduled = false;  // the executor has a call of RunOne that has not ended
    bool m_running = false;
    bool m_is_idle = false;  // the thread is in m_idle->Wait, and was not woken
    std::thread m_thread;
};

#endif
