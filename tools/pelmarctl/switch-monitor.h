// Sees the partners that go over to a direct path, where the bus lets this process monitor it: to
// root, as a rule. The call of Switch is the last that a client sends its service by the bus.
#ifndef PELMARCTL_SWITCH_MONITOR_H
#define PELMARCTL_SWITCH_MONITOR_H

#include <functional>
#include <memory>
#include <string>

#include "event-queue.h"
#include "gio-handles.h"

struct SwitchOver {
    std::string channel;
    std::string client;
    std::string service;
};

class SwitchMonitor {
public:
    using Seen = std::function<void(const SwitchOver& switch_over)>;

    // From now on, by the queue's thread. Has a connection of its own: a monitor may not send.
    SwitchMonitor(EventQueue& queue, Seen seen);
    ~SwitchMonitor();
    SwitchMonitor(const SwitchMonitor&) = delete;
    SwitchMonitor& operator=(const SwitchMonitor&) = delete;

    // Whether the bus lets it.
    bool IsMonitoring() const { return m_is_monitoring; }

private:
    struct Sink;

    void Monitor(EventQueue& queue);
    static GDBusMessage* cb_Message(GDBusConnection* connection, GDBusMessage* message,
                                    gboolean incoming, gpointer sink);

    std::shared_ptr<Sink> m_sink;
    GObjectPtr<GDBusConnection> m_connection;
    guint m_filter = 0;
    bool m_is_monitoring = false;
};

#endif
