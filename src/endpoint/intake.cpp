#include "intake.h"

#include <atomic>
#include <memory>
#include <utility>

namespace {

// What a message costs beyond its body, about.
constexpr std::size_t MESSAGE_OVERHEAD = 1024;

std::size_t CostOf(GDBusMessage* message)
{
    GVariant* body = g_dbus_message_get_body(message);
    return MESSAGE_OVERHEAD + (body != nullptr ? g_variant_get_size(body) : 0);
}

bool AwaitsReply(GDBusMessage* message)
{
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
           (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
}

void AnswerRefused(GDBusConnection* connection, GDBusMessage* call)
{
    const GObjectPtr<GDBusMessage> reply(g_dbus_message_new_method_error_literal(
        call, "org.freedesktop.DBus.Error.LimitsExceeded",
        "too many messages wait for the handlers of this endpoint"));
    g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
}

// Shared by the filter and the messages that it let in; they may outlive the endpoint.
class Waiting {
public:
    Waiting(std::string object_path, std::size_t most, std::function<void()> refusing)
        : m_object_path(std::move(object_path)), m_most(most), m_refusing(std::move(refusing))
    {
    }

    bool Concerns(GDBusMessage* message) const
    {
        const GDBusMessageType type = g_dbus_message_get_message_type(message);
        return (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL || type == G_DBUS_MESSAGE_TYPE_SIGNAL) &&
               m_object_path == g_dbus_message_get_path(message);
    }

    bool Add(std::size_t cost)
    {
        const std::size_t before = m_bytes.fetch_add(cost);
        if (before == 0 || before + cost <= m_most)
            return true;
        Remove(cost);
        if (!m_is_refusing.exchange(true))
            m_refusing();
        return false;
    }

    void Remove(std::size_t cost)
    {
        if (m_bytes.fetch_sub(cost) == cost)
            m_is_refusing = false;
    }

private:
    const std::string m_object_path;
    const std::size_t m_most;
    const std::function<void()> m_refusing;
    std::atomic<std::size_t> m_bytes = 0;
    std::atomic<bool> m_is_refusing = false;
};

using SharedWaiting = std::shared_ptr<Waiting>;

void RemoveWithMessage(GDBusMessage* message, const SharedWaiting& waiting, std::size_t cost)
{
    using Share = std::pair<SharedWaiting, std::size_t>;
    const auto remove = [](gpointer held) {
        const std::unique_ptr<Share> share(static_cast<Share*>(held));
        share->first->Remove(share->second);
    };
    g_object_set_data_full(G_OBJECT(message), "pelmar-intake", new Share(waiting, cost), remove);
}

GDBusMessage* cb_Message(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                         gpointer user_data)
{
    const SharedWaiting& waiting = *static_cast<SharedWaiting*>(user_data);
    if (incoming == FALSE || !waiting->Concerns(message))
        return message;
    const std::size_t cost = CostOf(message);
    if (waiting->Add(cost)) {
        RemoveWithMessage(message, waiting, cost);
        return message;
    }
    if (AwaitsReply(message))
        AnswerRefused(connection, message);
    g_object_unref(message);
    return nullptr;
}

}  // namespace

Intake::Intake(GDBusConnection* connection, std::string object_path, std::size_t most_waiting,
               std::function<void()> refusing)
    : m_connection(NewReference(connection)),
      m_filter(g_dbus_connection_add_filter(
          connection, cb_Message,
          new SharedWaiting(
              std::make_shared<Waiting>(std::move(object_path), most_waiting, std::move(refusing))),
          [](gpointer held) { delete static_cast<SharedWaiting*>(held); }))
{
}

Intake::~Intake()
{
    g_dbus_connection_remove_filter(m_connection.get(), m_filter);
}
