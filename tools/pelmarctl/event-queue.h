// The main thread's one place to wait. What other threads, GLib's callbacks and signals have to say
// is posted here and dealt with here, so that a command reads from top to bottom.
#ifndef PELMARCTL_EVENT_QUEUE_H
#define PELMARCTL_EVENT_QUEUE_H

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "gio-handles.h"

class EventQueue {
public:
    using Clock = std::chrono::steady_clock;
    using Deadline = std::optional<Clock::time_point>;
    using Task = std::function<void()>;

    // From any thread. The task runs inside a Wait; what it throws comes out of that.
    void Post(Task task);

    // From the first call on SIGINT, SIGTERM and SIGHUP come out of this as Interrupted; before
    // they do what they do to every program. Returns true as soon as the condition holds, false
    // when the deadline passes first. Dispatches the default main context meanwhile. May be nested.
    bool Wait(const std::function<bool()>& condition, Deadline deadline);

private:
    static gboolean cb_Interrupt(gpointer queue);
    static gboolean cb_Terminate(gpointer queue);
    static gboolean cb_HangUp(gpointer queue);
    void CatchSignals();
    void Interrupt(int signal);
    void RunTasks();

    std::mutex m_mutex;
    std::deque<Task> m_tasks;
    std::vector<SourcePtr> m_signals;
};

#endif
