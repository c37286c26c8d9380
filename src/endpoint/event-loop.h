// The endpoint's thread and its main context. Internal.
#ifndef PELMAR_EVENT_LOOP_H
#define PELMAR_EVENT_LOOP_H

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include "gio-handles.h"

// Runs the task when the context is iterated, after what is ready now. From any thread. Destroys it
// without having run it when the context ends first.
void PostTo(GMainContext* context, std::function<void()> task);

class EventLoop {
public:
    using Task = std::function<void()>;

    // Throws std::system_error when there can be no thread. The tasks may outlive the object.
    EventLoop();

    // The loop must have been ended.
    ~EventLoop() = default;
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    void Post(Task task) { PostTo(m_context.get(), std::move(task)); }

    // Dispatches in the loop's thread until the condition holds.
    void RunUntil(const std::function<bool()>& condition);

    // Dispatches in the loop's thread what is on its way, without waiting for more.
    void RunWhatIsReady();

    // Ends the loop after the task that calls this, in the loop's thread. Nothing is dispatched
    // from then on.
    void End() { m_ended = true; }

    // Waits for the thread; once, from another one.
    void Join() { m_thread.join(); }

    bool IsLoopThread() const { return g_main_context_is_owner(m_context.get()) != FALSE; }
    GMainContext* Context() const { return m_context.get(); }

private:
    void Run();

    ContextPtr m_context;
    bool m_ended = false;
    std::thread m_thread;
};

// One timer of a loop; used in its thread alone.
class LoopTimer {
public:
    explicit LoopTimer(EventLoop& loop) : m_loop(loop) {}

    // Replaces what was armed before.
    void Arm(std::chrono::milliseconds delay, EventLoop::Task task);
    void Disarm() { m_source.reset(); }

private:
    EventLoop& m_loop;
    SourcePtr m_source;
};

#endif
