// D-Bus calls whose answers come back to the loop. Internal.
#ifndef PELMAR_ASYNC_CALLS_H
#define PELMAR_ASYNC_CALLS_H

#include <functional>

#include "gio-handles.h"

struct BusMethod {
    const char* destination;
    const char* path;
    const char* interface;
    const char* name;
};

// A method of the bus daemon itself.
constexpr BusMethod DaemonMethod(const char* name)
{
    return {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", name};
}

// Used by the loop's thread alone, but for Cancel and Cancellation.
class AsyncCalls {
public:
    // One of the two is null.
    using Done = std::function<void(GVariant* reply, const GError* error)>;

    static constexpr int DEFAULT_TIMEOUT = -1;
    static constexpr int NO_TIMEOUT = G_MAXINT;

    // Consumes floating parameters; `reply_type` may be null for any. The timeout is in
    // milliseconds. `done` is called once, from the loop, also when the calls are cancelled.
    void Start(GDBusConnection* connection, const BusMethod& method, GVariant* parameters,
               const char* reply_type, int timeout, Done done);

    std::size_t Pending() const { return m_pending; }

    // All pending and later calls end at once with G_IO_ERROR_CANCELLED.
    void Cancel() { g_cancellable_cancel(m_cancellation.get()); }
    GCancellable* Cancellation() const { return m_cancellation.get(); }

private:
    std::size_t m_pending = 0;
    GObjectPtr<GCancellable> m_cancellation{g_cancellable_new()};
};

#endif
