#include "event-queue.h"

#include <glib-unix.h>

#include <csignal>
#include <utility>

#include "failure.h"

namespace {

gboolean WakeOnly(gpointer /*unused*/)
{
    return G_SOURCE_CONTINUE;
}

SourcePtr Alarm(EventQueue::Clock::time_point deadline)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - EventQueue::Clock::now());
    SourcePtr alarm(g_timeout_source_new(static_cast<guint>(left.count() > 0 ? left.count() : 0)));
    g_source_set_callback(alarm.get(), WakeOnly, nullptr, nullptr);
    g_source_attach(alarm.get(), nullptr);
    return alarm;
}

}  // namespace

void EventQueue::CatchSignals()
{
    struct sigaction hang_up = {};
    sigaction(SIGHUP, nullptr, &hang_up);
    const bool is_nohup = hang_up.sa_handler == SIG_IGN;
    const std::pair<int, GSourceFunc> signals[] = {
        {SIGINT, cb_Interrupt}, {SIGTERM, cb_Terminate}, {SIGHUP, cb_HangUp}};
    for (const auto& [signal, callback] : signals) {
        if (signal == SIGHUP && is_nohup)
            continue;
        m_signals.emplace_back(g_unix_signal_source_new(signal));
        g_source_set_callback(m_signals.back().get(), callback, this, nullptr);
        g_source_attach(m_signals.back().get(), nullptr);
    }
}

gboolean EventQueue::cb_Interrupt(gpointer queue)
{
    static_cast<EventQueue*>(queue)->Interrupt(SIGINT);
    return G_SOURCE_CONTINUE;
}

gboolean EventQueue::cb_Terminate(gpointer queue)
{
    static_cast<EventQueue*>(queue)->Interrupt(SIGTERM);
    return G_SOURCE_CONTINUE;
}

gboolean EventQueue::cb_HangUp(gpointer queue)
{
    static_cast<EventQueue*>(queue)->Interrupt(SIGHUP);
    return G_SOURCE_CONTINUE;
}

void EventQueue::Interrupt(int signal)
{
    Post([signal] { throw Interrupted{signal}; });
}

void EventQueue::Post(Task task)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    g_main_context_wakeup(nullptr);
}

void EventQueue::RunTasks()
{
    for (;;) {
        Task task;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_tasks.empty())
                return;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
    }
}

bool EventQueue::Wait(const std::function<bool()>& condition, Deadline deadline)
{
    if (m_signals.empty())
        CatchSignals();
    const SourcePtr alarm = deadline ? Alarm(*deadline) : nullptr;
    for (;;) {
        RunTasks();
        if (condition())
            return true;
        if (deadline && Clock::now() >= *deadline)
            return false;
        g_main_context_iteration(nullptr, TRUE);
    }
}
