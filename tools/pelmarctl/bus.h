// A connection to the bus, beside that of the endpoint, and what is asked of the daemon and of
// others on the bus. All waiting is the queue's.
#ifndef PELMARCTL_BUS_H
#define PELMARCTL_BUS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "event-queue.h"
#include "gio-handles.h"

struct BusCall {
    std::string destination;
    std::string path;
    std::string interface;
    std::string method;
    GVariant* parameters = nullptr;  // floating
};

// One of the two is there; neither when there was no time to wait.
struct Answer {
    VariantPtr value;
    ErrorPtr error;
};

bool Is(const Answer& answer, GDBusError code);

// Nobody answered within the time.
bool IsSilent(const Answer& answer);

// Without the error's D-Bus name.
std::string TextOf(const Answer& answer);

// What the daemon knows of a process.
struct Credentials {
    std::optional<uid_t> uid;
    std::optional<pid_t> pid;
};

// A change of a bus name's owner.
struct OwnerChange {
    std::string name;
    std::string old_owner;
    std::string new_owner;
};

class Bus {
public:
    // Throws Failure when the bus cannot be reached. When it dies, that comes out of the queue as a
    // Failure.
    Bus(EventQueue& queue, std::chrono::milliseconds timeout);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // What the environment says the system bus's address is.
    static std::string Address();

    std::string UniqueName() const;

    Answer Call(const BusCall& call, std::chrono::milliseconds timeout);
    Answer CallDaemon(const std::string& method, GVariant* parameters = nullptr);

    // All at the same time, as far as the bus's limits allow; the answers in the calls' order.
    std::vector<Answer> CallAll(const std::vector<BusCall>& calls,
                                std::chrono::milliseconds timeout);

    static BusCall DaemonCall(const std::string& method, GVariant* parameters = nullptr);

    std::vector<std::string> Names();
    std::optional<std::string> OwnerOf(const std::string& name);
    Credentials CredentialsOf(const std::string& name);
    static Credentials CredentialsIn(const Answer& answer);

    // Tries the name for a moment. Whoever watches the name sees it, unless the policy refuses it.
    bool MayOwn(const std::string& name);

    // From now on, for all names, by the queue's thread.
    void WatchOwners(std::function<void(const OwnerChange& change)> seen);

private:
    // Returns when the daemon has dealt with all that was sent before. Throws Failure when it does
    // not say so within the time.
    void Settle(std::chrono::milliseconds timeout);

    static void cb_OwnerChanged(GDBusConnection* connection, const gchar* sender, const gchar* path,
                                const gchar* interface, const gchar* signal, GVariant* parameters,
                                gpointer bus);
    static void cb_Closed(GDBusConnection* connection, gboolean by_peer, GError* error,
                          gpointer bus);

    EventQueue& m_queue;
    GObjectPtr<GDBusConnection> m_connection;
    gulong m_closed_handler = 0;
    guint m_subscription = 0;
    std::function<void(const OwnerChange& change)> m_seen;
};

#endif
