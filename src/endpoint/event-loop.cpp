#include "event-loop.h"

#include "hand-over.h"
#include "quiet-thread.h"

namespace {

// Handed over to the thread that runs it.
class HeldTask {
public:
    explicit HeldTask(EventLoop::Task task) : m_task(std::move(task)) {}
    ~HeldTask() { m_hand_over.Take(); }
    HeldTask(const HeldTask&) = delete;
    HeldTask& operator=(const HeldTask&) = delete;

    void Run() const
    {
        m_hand_over.Take();
        m_task();
    }

private:
    const EventLoop::Task m_task;
    const HandOver m_hand_over;
};

gboolean RunOnce(gpointer task)
{
    static_cast<const HeldTask*>(task)->Run();
    return G_SOURCE_REMOVE;
}

void Attach(GSource* source, GMainContext* context, EventLoop::Task task)
{
    const auto destroy = [](gpointer held) { delete static_cast<HeldTask*>(held); };
    g_source_set_callback(source, RunOnce, new HeldTask(std::move(task)), destroy);
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

EventLoop::EventLoop()
    : m_context(g_main_context_new()), m_thread(QuietThread("pelmar-io", [this] { Run(); }))
{
}

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
