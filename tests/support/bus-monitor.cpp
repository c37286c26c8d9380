#include "bus-monitor.h"

#include <atomic>
#include <stdexcept>

#include "main-loop.h"

namespace {

std::string Text(const gchar* text)
{
    return text != nullptr ? text : "";
}

std::vector<std::string> LeadingStrings(GDBusMessage* message)
{
    std::vector<std::string> strings;
    GVariant* body = g_dbus_message_get_body(message);
    for (gsize i = 0; body != nullptr && i < g_variant_n_children(body); ++i) {
        GVariant* child = g_variant_get_child_value(body, i);
        const bool is_string = g_variant_is_of_type(child, G_VARIANT_TYPE_STRING) != FALSE;
        if (is_string)
            strings.push_back(g_variant_get_string(child, nullptr));
        g_variant_unref(child);
        if (!is_string)
            break;
    }
    return strings;
}

}  // namespace

BusMonitor::BusMonitor(const TestBus& bus)
{
    const auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    m_connection = g_dbus_connection_new_for_address_sync(bus.Address().c_str(), flags, nullptr,
                                                          nullptr, nullptr);
    if (m_connection == nullptr)
        throw std::runtime_error("a monitor cannot connect to " + bus.Address());
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Monitoring", "BecomeMonitor", g_variant_new("(asu)", nullptr, 0),
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr)
        throw std::runtime_error("the daemon does not let a connection become a monitor");
    g_variant_unref(reply);
    g_dbus_connection_add_filter(m_connection, cb_Message, this, nullptr);
}

BusMonitor::~BusMonitor()
{
    // The filter may be running in GIO's thread: it is over when the flag is set.
    std::atomic<bool> ended{false};
    g_signal_connect(m_connection, "closed",
                     G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer flag) {
                         static_cast<std::atomic<bool>*>(flag)->store(true);
                     }),
                     &ended);
    g_dbus_connection_close(m_connection, nullptr, nullptr, nullptr);
    while (!ended)
        g_main_context_iteration(nullptr, TRUE);
    g_object_unref(m_connection);
}

// Takes every message away: a monitor that answers one is thrown off the bus.
GDBusMessage* BusMonitor::cb_Message(GDBusConnection* /*connection*/, GDBusMessage* message,
                                     gboolean incoming, gpointer user_data)
{
    if (incoming == FALSE)
        return message;
    auto* self = static_cast<BusMonitor*>(user_data);
    {
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_messages.push_back(
            {g_dbus_message_get_message_type(message), Text(g_dbus_message_get_sender(message)),
             Text(g_dbus_message_get_destination(message)),
             Text(g_dbus_message_get_member(message)), LeadingStrings(message)});
    }
    g_object_unref(message);
    g_main_context_wakeup(nullptr);
    return nullptr;
}

std::vector<BusMonitor::Message> BusMonitor::Messages(
    const std::function<bool(const Message&)>& which) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Message> chosen;
    for (const Message& message : m_messages) {
        if (which(message))
            chosen.push_back(message);
    }
    return chosen;
}

std::vector<std::string> BusMonitor::MembersFrom(const std::string& sender) const
{
    std::vector<std::string> members;
    for (const Message& message :
         Messages([&](const Message& each) { return each.sender == sender; })) {
        if (!message.member.empty())
            members.push_back(message.member);
    }
    return members;
}

std::vector<std::string> BusMonitor::PulsesOf(const std::string& owner) const
{
    const auto is_release = [&](const Message& message) {
        return message.member == "NameOwnerChanged" && message.strings.size() == 3 &&
               message.strings[0].front() != ':' && message.strings[1] == owner &&
               message.strings[2].empty();
    };
    std::vector<std::string> pulses;
    for (const Message& message : Messages(is_release))
        pulses.push_back(message.strings[0]);
    return pulses;
}

std::size_t BusMonitor::Calls(const std::string& member, const std::string& argument) const
{
    const auto is_meant = [&](const Message& message) {
        return message.type == G_DBUS_MESSAGE_TYPE_METHOD_CALL && message.member == member &&
               !message.strings.empty() && message.strings[0] == argument;
    };
    return Messages(is_meant).size();
}

void BusMonitor::CatchUp(GDBusConnection* connection) const
{
    TestBus::Settle(connection);
    static std::atomic<int> count{0};
    const std::string mark = "org.vaska.PelmarTest.Mark" + std::to_string(++count);
    g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "NameHasOwner",
                           g_variant_new("(s)", mark.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                           nullptr, nullptr, nullptr);
    IterateUntil([&] { return Calls("NameHasOwner", mark) == 1; }, "the monitor to catch up");
}
