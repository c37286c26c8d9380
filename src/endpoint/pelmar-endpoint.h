/// @file
/// The endpoint: what an application uses when it wants threads, repair of lost pulses and a safe
/// end around one channel.
#ifndef PELMAR_ENDPOINT_H
#define PELMAR_ENDPOINT_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmar-export.h"

/// One end of a channel, with a thread of its own. Its partners may be endpoints or plain channels
/// (pelmar-dbus-local.h); on the bus it is a channel like any other, and beyond that
///
/// - it sees to it that the handshake ends: a pulse of its own that did not show on the bus is
///   pulsed again (how, and how far that goes with a plain partner: docs/protocol.md);
/// - it reports each partner ready once and lost once;
/// - its functions may be called from any thread and say what came of them;
/// - it ends safely, and it survives the end of the bus daemon and returns to the next one.
///
/// Partners are known by their unique bus names (":1.57"). One process is one end of a channel: the
/// two ends do not find each other inside one process, since they would share its bus connection.
///
/// Threads: all functions may be called from any thread and from inside the handlers; exceptions
/// are named with the function. The handlers are called one at a time by the endpoint's thread and
/// with no lock held. A handler that takes long delays everything else the endpoint does. What a
/// handler throws is logged and goes no further (Handlers::message: it becomes the reply).
///
/// Log: everything goes to the platform log (platform-log.h) with the tag "kestrin".
class PELMAR_API PelmarEndpoint {
public:
    using Bytes = std::vector<char>;

    /// The largest message, either way, in bytes: what fits into the 32 MiB that a bus daemon takes
    /// as one message, with room for its header. A larger one would get the process disconnected.
    static constexpr std::size_t MAX_MESSAGE_BYTES = 32UL * 1024 * 1024 - 64UL * 1024;

    enum class Role {
        service,
        client,
    };

    /// What came of a call. The text for a log or a user is ToString's.
    enum class Status {
        ok,               ///< sent, or answered
        no_such_partner,  ///< not on the channel, or gone; Notify to all: nobody is ready
        not_ready,        ///< its handshake is still under way
        too_large,        ///< more than MAX_MESSAGE_BYTES
        queue_full,       ///< Options::queue_bytes are waiting for the bus; nothing was sent
        bus_gone,         ///< the endpoint is not on the bus; it tries to come back by itself
        stopped,          ///< Stop was called
        timeout,          ///< Request: no answer within the time given
        refused,          ///< Request: the bus's policy does not allow the call
        partner_lost,     ///< Request: the partner went before it answered
        remote_error,     ///< Request: the partner answered with an error
    };
    static const char* ToString(Status status);

    /// What a Request came to.
    struct Response {
        Status status = Status::ok;
        Bytes data;         ///< the partner's reply when status is ok, else empty
        std::string error;  ///< what went wrong, in words; empty when status is ok
    };

    /// The means to answer one message later, from any thread. Copies answer the same message, and
    /// the first answer counts. When the last copy goes without one, the caller gets an error. It
    /// may outlive the endpoint; an answer then goes nowhere.
    class PELMAR_API Reply {
    public:
        /// Answers with `data`; more than MAX_MESSAGE_BYTES become an error.
        void Send(Bytes data) const;

        /// Answers with an error; the caller's Request gets Status::remote_error and the text.
        void Fail(const std::string& text) const;

    private:
        friend class PelmarEndpoint;
        struct PELMAR_HIDDEN State;
        explicit Reply(std::shared_ptr<State> state);
        std::shared_ptr<State> m_state;
    };

    /// What the application wants to be told. Any of them may be empty. They may be called before
    /// the constructor has returned.
    struct Handlers {
        /// Answers a partner's message: the result is the reply. To throw a std::exception fails
        /// the caller's call with its text. When empty, and deferred_message is too, calls fail.
        std::function<Bytes(Bytes& data)> message;

        /// The same for an answer that takes its time; used instead of `message` when set.
        std::function<void(Bytes& data, Reply reply)> deferred_message;

        std::function<void(Bytes& data)> notification;

        /// Once each for a partner's lifetime on the bus; never lost without ready before.
        std::function<void(const std::string& partner)> ready;
        std::function<void(const std::string& partner)> lost;

        /// The bus daemon is gone; `lost` follows for each partner that was ready.
        std::function<void()> bus_lost;

        /// The endpoint is on the bus, after it was not; the handshakes begin anew.
        std::function<void()> bus_back;

        /// Something that somebody has to mend outside this program, with its remedy: the policy
        /// forbids a name, a limit of the bus is met, the connection cannot be renewed. Each is
        /// logged as an error as well, and reported once for as long as it lasts.
        std::function<void(const std::string& text)> problem;
    };

    struct Options {
        Role role = Role::service;

        /// How many bytes of notifications may wait until the bus daemon has taken them; what is
        /// over it is queue_full to the caller. Memory stays bounded by it when a partner or the
        /// daemon stops reading.
        std::size_t queue_bytes = 64UL * 1024 * 1024;

        /// How many bytes of messages and notifications may wait for the handlers, a message until
        /// it is answered. Over it a message is refused with an error (Status::remote_error to the
        /// one who sent it), a notification is dropped, and `problem` is told.
        std::size_t intake_bytes = 64UL * 1024 * 1024;

        /// GLib's default for a program that lives by the bus: SIGTERM when the daemon dies.
        bool exit_when_bus_dies = false;
    };

    /// Brings the endpoint onto the bus and returns when it is there, or when the bus turned out to
    /// be out of reach; the endpoint then goes on trying, and calls bus_back when it succeeds.
    ///
    /// `channel` is the channel's name: 1 to 222 letters, digits and underscores, the first not a
    /// digit. Throws std::invalid_argument, which names the fault, for any other.
    PelmarEndpoint(const std::string& channel, Handlers handlers, Options options);
    PelmarEndpoint(const std::string& channel, Handlers handlers);

    /// Stops. Must not run inside a handler of this endpoint: that ends the process.
    ~PelmarEndpoint();
    PelmarEndpoint(const PelmarEndpoint&) = delete;
    PelmarEndpoint& operator=(const PelmarEndpoint&) = delete;

    /// Takes the endpoint off the channel: waits until no handler runs, and from then on none will.
    /// Waiting calls of other threads return Status::stopped, as do all later ones. Notifications
    /// and answers given before are handed to the bus daemon, unless it takes none for a second.
    /// Its object and its subscriptions are gone from the process's bus connection afterwards. May
    /// be called more than once. False, and nothing happens, when called from inside a handler.
    bool Stop();

    /// Sends a notification to every ready partner, or to one. Does not wait: ok means that it is
    /// on its way to the bus daemon, in the order of the calls of one thread.
    Status Notify(const Bytes& data);
    Status Notify(const Bytes& data, const std::string& partner);

    /// The ready partners, in the byte order of their names.
    std::vector<std::string> Partners() const;

    /// Waits until a partner is ready and returns its name (the first one's); nothing when the
    /// deadline passes first or the endpoint is stopped. Inside a handler it does not wait.
    std::optional<std::string> WaitForPartner(std::chrono::steady_clock::time_point deadline) const;

    /// Sends a message and waits for the partner's reply, for `timeout` at most. Inside a handler
    /// it works too, but everything else the endpoint does waits as well.
    Response Request(const Bytes& data, const std::string& partner,
                     std::chrono::milliseconds timeout);

    /// The same without waiting: `done` is called exactly once, by the endpoint's thread, at the
    /// latest while the endpoint is being stopped. When it is stopped already, `done` is called by
    /// the caller's thread, before this returns.
    void Request(const Bytes& data, const std::string& partner, std::chrono::milliseconds timeout,
                 std::function<void(Response response)> done);

private:
    class PELMAR_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

#endif
