#include "switch-monitor.h"

#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "bus.h"
#include "channel-names.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds PATIENCE{5000};

// What is waited for ends without anybody who looks at it, where the wait ended early.
struct Waiting {
    GObjectPtr<GDBusConnection> connection;
    bool is_granted = false;
    bool is_done = false;
};
using WaitingPtr = std::shared_ptr<Waiting>;

WaitingPtr Taken(gpointer user_data)
{
    const std::unique_ptr<WaitingPtr> held(static_cast<WaitingPtr*>(user_data));
    return *held;
}

void cb_Connected(GObject* /*source*/, GAsyncResult* result, gpointer user_data)
{
    const WaitingPtr waiting = Taken(user_data);
    waiting->connection.reset(g_dbus_connection_new_for_address_finish(result, nullptr));
    waiting->is_done = true;
}

void cb_Granted(GObject* source, GAsyncResult* result, gpointer user_data)
{
    const WaitingPtr waiting = Taken(user_data);
    const VariantPtr answer(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr));
    waiting->is_granted = answer != nullptr;
    waiting->is_done = true;
}

GVariant* WhatIsWanted()
{
    const std::string rule =
        std::string("type='method_call',interface='") + DIRECT_PATH_INTERFACE + "',member='Switch'";
    const gchar* const rules[] = {rule.c_str(), nullptr};
    return g_variant_new("(^asu)", rules, guint32{0});
}

std::string Text(const gchar* text)
{
    return text != nullptr ? text : "";
}

// Whoever may send to the addressee can make this up, so all of it is looked at.
std::optional<SwitchOver> SwitchOverIn(GDBusMessage* message)
{
    const std::string path = Text(g_dbus_message_get_path(message));
    const std::string root = ObjectPathOf("");
    const bool is_switch = Text(g_dbus_message_get_interface(message)) == DIRECT_PATH_INTERFACE &&
                           Text(g_dbus_message_get_member(message)) == "Switch" &&
                           path.compare(0, root.size(), root) == 0;
    SwitchOver switch_over;
    if (!is_switch)
        return std::nullopt;
    switch_over.channel = path.substr(root.size());
    switch_over.client = Text(g_dbus_message_get_sender(message));
    switch_over.service = Text(g_dbus_message_get_destination(message));
    const bool is_plausible = FaultInChannelName(switch_over.channel).empty() &&
                              g_dbus_is_unique_name(switch_over.client.c_str()) != FALSE &&
                              g_dbus_is_unique_name(switch_over.service.c_str()) != FALSE;
    return is_plausible ? std::optional(switch_over) : std::nullopt;
}

}  // namespace

// The filter runs in GIO's thread, also while it is being removed.
struct SwitchMonitor::Sink {
    std::mutex mutex;
    EventQueue* queue;  // null: nobody looks any more
    Seen seen;
};

SwitchMonitor::SwitchMonitor(EventQueue& queue, Seen seen) : m_sink(std::make_shared<Sink>())
{
    m_sink->queue = &queue;
    m_sink->seen = std::move(seen);
    const auto waiting = std::make_shared<Waiting>();
    const auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(Bus::Address().c_str(), flags, nullptr, nullptr, cb_Connected,
                                      new WaitingPtr(waiting));
    queue.Wait([&] { return waiting->is_done; }, EventQueue::Clock::now() + PATIENCE);
    m_connection = std::move(waiting->connection);
    if (m_connection == nullptr)
        return;
    m_filter = g_dbus_connection_add_filter(
        m_connection.get(), cb_Message, new std::shared_ptr<Sink>(m_sink),
        [](gpointer sink) { delete static_cast<std::shared_ptr<Sink>*>(sink); });
    Monitor(queue);
}

SwitchMonitor::~SwitchMonitor()
{
    if (m_filter != 0)
        g_dbus_connection_remove_filter(m_connection.get(), m_filter);
    const std::lock_guard<std::mutex> lock(m_sink->mutex);
    m_sink->queue = nullptr;
}

void SwitchMonitor::Monitor(EventQueue& queue)
{
    const auto waiting = std::make_shared<Waiting>();
    g_dbus_connection_call(m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus.Monitoring", "BecomeMonitor", WhatIsWanted(),
                           nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(PATIENCE.count()),
                           nullptr, cb_Granted, new WaitingPtr(waiting));
    queue.Wait([&] { return waiting->is_done; }, std::nullopt);
    m_is_monitoring = waiting->is_granted;
}

// Takes away what is none of this connection's: GIO would answer it, and a monitor that sends is
// thrown off the bus.
GDBusMessage* SwitchMonitor::cb_Message(GDBusConnection* /*connection*/, GDBusMessage* message,
                                        gboolean incoming, gpointer sink)
{
    if (incoming == FALSE ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;
    const std::shared_ptr<Sink>& self = *static_cast<std::shared_ptr<Sink>*>(sink);
    if (const auto switch_over = SwitchOverIn(message)) {
        const std::lock_guard<std::mutex> lock(self->mutex);
        if (self->queue != nullptr)
            self->queue->Post([self, switch_over] { self->seen(*switch_over); });
    }
    g_object_unref(message);
    return nullptr;
}
