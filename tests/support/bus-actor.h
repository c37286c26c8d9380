/// @file
/// A peer on the bus that is no channel: a connection of its own inside the test's process, which
/// does what the test tells it. It plays the partner, or a stranger.
#ifndef PELMAR_TESTS_BUS_ACTOR_H
#define PELMAR_TESTS_BUS_ACTOR_H

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "test-bus.h"

using Bytes = std::vector<char>;

inline Bytes BytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

class BusActor {
public:
    explicit BusActor(const TestBus& bus) : BusActor(bus.Address()) {}
    explicit BusActor(const std::string& address);
    ~BusActor();
    BusActor(const BusActor&) = delete;
    BusActor& operator=(const BusActor&) = delete;

    GDBusConnection* Connection() const { return m_connection; }
    const std::string& UniqueName() const { return m_unique_name; }

    /// The daemon's answers: 1 owner, 3 somebody else owns it, 4 already the owner.
    guint32 Acquire(const std::string& name);
    guint32 Release(const std::string& name);

    /// Acquires the name and releases it at once.
    void Pulse(const std::string& name);

    /// Exports a channel's object whose Send calls `answer`, dispatched by the default context; the
    /// second time only the answer changes.
    void Serve(const std::string& channel, std::function<Bytes(const Bytes&)> answer);
    bool Serves() const { return m_answer != nullptr; }

    /// What a call came to: the reply, or the error's D-Bus name, or neither yet.
    struct Call {
        std::optional<Bytes> reply;
        std::string error;
        bool Done() const { return reply.has_value() || !error.empty(); }
    };

    /// Calls Send on the channel's object at `destination`. The main loop has to run for the reply.
    std::shared_ptr<Call> Send(const std::string& destination, const std::string& channel,
                               const Bytes& data);

    /// Any method of the channel's interface, with any arguments (consumed when floating).
    std::shared_ptr<Call> CallMethod(const std::string& destination, const std::string& path,
                                     const std::string& method, GVariant* arguments);

    /// Asks an endpoint at `destination` what partners ask, and does not wait for the answer.
    void Ask(const std::string& destination, const std::string& channel);

    /// A signal of the channel's interface; `destination` may be empty for a broadcast.
    void Emit(const std::string& destination, const std::string& path, const std::string& member,
              GVariant* body);

    /// Keeps the bytes of the notifications that reach this actor from now on.
    void Listen(const std::string& channel);
    const std::vector<Bytes>& Heard() const { return m_heard; }

    /// The changes of a name's owner from now on, each as "old=>new", dispatched by the main loop.
    std::shared_ptr<std::vector<std::string>> WatchOwner(const std::string& name);

    void Settle() { TestBus::Settle(m_connection); }

    /// Closes the connection: the unique name leaves the bus.
    void Leave();

    static GVariant* Body(const Bytes& data);
    static Bytes DataOf(GVariant* body);

private:
    guint32 CallDaemon(const char* method, GVariant* arguments);

    GDBusConnection* m_connection = nullptr;
    std::string m_unique_name;
    std::function<Bytes(const Bytes&)> m_answer;
    std::vector<Bytes> m_heard;
};

#endif
