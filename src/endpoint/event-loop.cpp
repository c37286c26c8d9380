#include "event-loop.h"

namespace {

gboolean RunOnce(gpointer task)
{
    (*static_cast<EventLoop::Task*>(task))();
    return G_SOURCE_REMOVE;
}

void Attach(GSource* source, GMainContext* context, EventLoop::Task task)
{
    const auto destroy = [](gpointer held) { delete static_cast<EventLoop::Task*>(held); };
    g_source_set_callback(source, RunOnce, new EventLoop::Task(std::move(task)), destroy);
    g_source_attach(source, context);
}

}  // namespace

void PostTo(GMainContext* context, std::function<void()> task)
{
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    Attach(source, context, std::move(task));
    g_source_unref(source);
}

EventLoop::EventLoop() : m_context(g_main_context_new()), m_thread([this] { Run(); }) {}

void EventLoop::Run()
{
    g_main_context_push_thread_default(m_context.get());
    RunUntil([this] { return m_ended; });
    g_main_context_pop_thread_default(m_context.get());
}

void EventLoop::RunUntil(const std::function<bool()>& condition)
{
    while (!condition())
        g_main_context_iteration(m_context.get(), TRUE);
}

void EventLoop::RunWhatIsReady()
{
    while (g_main_context_iteration(m_context.get(), FALSE) != FALSE) {
    }
}

void LoopTimer::Arm(std::chrono::milliseconds delay, EventLoop::Task task)
{
    const auto rounded = static_cast<guint>(delay.count() > 0 ? delay.count() : 0);
    m_source.reset(g_timeout_source_new(rounded));
    Attach(m_source.get(), m_loop.Context(), std::move(task));
}
