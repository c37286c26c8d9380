/// @file
/// Everything that passes over a private bus, as the daemon shows it to a monitor.
#ifndef PELMAR_TESTS_BUS_MONITOR_H
#define PELMAR_TESTS_BUS_MONITOR_H

#include <gio/gio.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "test-bus.h"

class BusMonitor {
public:
    struct Message {
        GDBusMessageType type;
        std::string sender;
        std::string destination;
        std::string member;
        std::vector<std::string> strings;  ///< the leading string arguments
    };

    /// Sees what passes from its construction on.
    explicit BusMonitor(const TestBus& bus);
    ~BusMonitor();
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    std::vector<Message> Messages(const std::function<bool(const Message&)>& which) const;

    /// The members of the calls and signals that `sender` sent, in order.
    std::vector<std::string> MembersFrom(const std::string& sender) const;

    /// The stage names that `owner` has released, in order.
    std::vector<std::string> PulsesOf(const std::string& owner) const;

    /// How many calls of `member` with `argument` as the first one there were.
    std::size_t Calls(const std::string& member, const std::string& argument) const;

    /// Returns when everything has been seen that was sent on `connection` before.
    void CatchUp(GDBusConnection* connection) const;

private:
    static GDBusMessage* cb_Message(GDBusConnection* connection, GDBusMessage* message,
                                    gboolean incoming, gpointer user_data);

    GDBusConnection* m_connection;
    mutable std::mutex m_mutex;
    std::vector<Message> m_messages;
};

#endif
