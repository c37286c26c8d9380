/// @file
/// The endpoint: what an application uses when it wants threads, repair of lost pulses, bounded
/// queues and a safe end around one channel.
#ifndef PELMAR_ENDPOINT_H
#define PELMAR_ENDPOINT_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmar-export.h"

// As GLib declares it.
typedef struct _GMainContext GMainContext;  // NOLINT(bugprone-reserved-identifier)

/// One end of a channel, with a bus connection and threads of its own. Its partners may be
/// endpoints or plain channels (pelmar-dbus-local.h); on the bus it is a channel like any other,
/// and beyond that
///
/// - it sees to it that the handshake ends, and calls a partner ready only when that partner has
///   this side wired up (docs/protocol.md; with plain partners there are limits, named there);
/// - it keeps what is sent to a partner in that partner's window and gives it to the bus as the
///   partner deals with it, so that one who stops reading costs its window and nothing else (but
///   see the limits in docs/protocol.md where more than 70 do so at once);
/// - its functions may be called from any thread and say what came of them;
/// - it ends safely, and it survives the end of the bus daemon and returns to the next one.
///
///     PelmarEndpoint greeter(PelmarEndpoint::Role::service, "greeter");
///     greeter.OnMessage([](PelmarEndpoint::Message& message) { return std::move(message.data); });
///     greeter.Start();
///
/// Threads: all functions may be called from any thread and from inside the handlers; exceptions
/// are named with the function. Handlers run one at a time, in a thread of the endpoint's own that
/// does nothing else, or where RunHandlersIn says. A handler that takes long delays other handlers
/// and nothing else. What a handler throws is logged and goes no further (OnMessage: it becomes the
/// reply). The endpoint's threads take none of the process's signals.
///
/// Copies: what is sent is moved on from the argument. Messages are of any size up to what the way
/// to the partner carries: MAX_BUS_MESSAGE_BYTES on the bus, and past it the partner's intake
/// (SetIntake) where that is more.
///
/// Log: everything goes to the platform log (platform-log.h) with the tag "kestrin". An error line
/// means that somebody has to do something; what the endpoint mends by itself is a debug line.
class PELMAR_API PelmarEndpoint {
public:
    using Bytes = std::vector<char>;

    /// The largest message, either way, that the bus carries, in bytes: what fits into the 32 MiB
    /// that a bus daemon takes as one message, with room for its header.
    static constexpr std::size_t MAX_BUS_MESSAGE_BYTES = 32UL * 1024 * 1024 - 64UL * 1024;

    enum class Role {
        service,
        client,
    };

    /// What came of a call. The text for a log or a user is ToString's.
    enum class Status {
        ok,  ///< Request: answered. Notify: taken into the partner's window; it arrives
             ///< unless the partner is lost
        no_such_partner,  ///< not on the channel, or gone (also: another process has its old name)
        not_ready,        ///< its handshake is still under way
        too_large,        ///< more than the way to this partner carries
        queue_full,       ///< the partner's window is full; OnRoom tells when it is not any more
        busy,          ///< a limit of the bus or of the receiver; nothing is wrong with the message
        bus_gone,      ///< the endpoint is not on the bus; it tries to come back by itself
        stopped,       ///< Stop was called
        cancelled,     ///< Call::Cancel was called
        timeout,       ///< Request: no answer within the time given
        refused,       ///< the bus's policy does not allow the call
        partner_lost,  ///< Request: the partner went before it answered
        remote_error,  ///< Request: the partner's handler failed; Response::error has its text
    };
    static const char* ToString(Status status);

    /// One partner during one stay on one bus. A cheap value: copies are the same partner. It never
    /// equals a later holder of the same bus name, and what is sent to it never reaches one. May be
    /// kept as long as one likes, also beyond the endpoint.
    class PELMAR_API Partner {
    public:
        /// Nobody: not ready, no name; equal to any other nobody.
        Partner();
        ~Partner();
        Partner(const Partner&);
        Partner& operator=(const Partner&);
        Partner(Partner&&) noexcept;
        Partner& operator=(Partner&&) noexcept;

        /// Its unique bus name (":1.57"), for logs.
        const std::string& Name() const;

        /// From before OnReady until before OnLost.
        bool IsReady() const;

        /// Its traffic goes past the bus daemon (SetDirectPath): from a moment after OnReady.
        bool IsDirect() const;

        /// Who it is, as the bus daemon says; known before OnReady is called and before a message
        /// of it is handed to a handler. Nothing where the daemon does not say.
        std::optional<uid_t> Uid() const;
        std::optional<pid_t> Pid() const;

        bool operator==(const Partner& other) const;
        bool operator!=(const Partner& other) const { return !(*this == other); }

        /// In the order in which they were met.
        bool operator<(const Partner& other) const;

        /// For std::hash.
        std::size_t Hash() const;

    private:
        friend class PelmarEndpoint;
        struct PELMAR_HIDDEN State;
        explicit Partner(std::shared_ptr<State> state);
        std::shared_ptr<State> m_state;
    };

    /// What a partner sent. A handler may move the data out.
    struct Message {
        Partner from;
        Bytes data;
    };

    /// What a Request came to.
    struct Response {
        Status status = Status::ok;
        Bytes data;         ///< the partner's reply when status is ok, else empty
        std::string error;  ///< what went wrong, in words; empty when status is ok
    };

    /// A partner that a NotifyAll did not take in, and why.
    struct Missed {
        Partner partner;
        Status status;
    };
    struct Broadcast {
        std::size_t sent = 0;        ///< partners into whose window it was taken
        std::vector<Missed> missed;  ///< the ready partners into whose window it was not
    };

    /// The means to answer one message later, from any thread. Copies answer the same message, and
    /// the first answer counts. When the last copy goes without one, the caller gets an error. It
    /// may outlive the endpoint; an answer then goes nowhere.
    class PELMAR_API Reply {
    public:
        ~Reply();
        Reply(const Reply&);
        Reply& operator=(const Reply&);
        Reply(Reply&&) noexcept;
        Reply& operator=(Reply&&) noexcept;

        /// Answers with `data`. One that is larger than the way back carries, or that finds too
        /// much waiting for the caller already, becomes an error.
        void Send(Bytes data) const;

        /// Answers with an error; the caller's Request gets Status::remote_error and the text, cut
        /// to 4 KiB of valid UTF-8.
        void Fail(const std::string& text) const;

        /// Whether an answer still gets anywhere: false when it was answered, when the caller is
        /// gone and when the endpoint is stopped or off the bus.
        bool IsWanted() const;

    private:
        friend class PelmarEndpoint;
        struct PELMAR_HIDDEN State;
        explicit Reply(std::shared_ptr<State> state);
        std::shared_ptr<State> m_state;
    };

    /// An asynchronous request. To drop it does not cancel it.
    class PELMAR_API Call {
    public:
        /// A call that is over.
        Call();
        ~Call();
        Call(const Call&);
        Call& operator=(const Call&);
        Call(Call&&) noexcept;
        Call& operator=(Call&&) noexcept;

        /// The request's `done` is told Status::cancelled, once, unless it was told before. One
        /// that has not left yet is not sent any more; one that has left is not taken back.
        void Cancel();

    private:
        friend class PelmarEndpoint;
        struct PELMAR_HIDDEN State;
        explicit Call(std::shared_ptr<State> state);
        std::shared_ptr<State> m_state;
    };

    /// Something that somebody has to mend outside this program. Each comes with a text that names
    /// the remedy, is logged as an error as well, and is reported once for as long as it lasts.
    enum class Problem {
        bus_unreachable,  ///< no bus daemon at the address, or it does not let the process in
        name_refused,     ///< the bus's policy forbids a name of the channel, or to send on it
        rule_limit,       ///< the bus daemon takes no more match rules
        intake_full,      ///< messages come in faster than the handlers deal with them
        name_taken,   ///< somebody holds one of the channel's names, which are to be pulsed only
        direct_path,  ///< a direct path broke: its partner was lost and comes back on the bus
    };

    /// Nothing is on the bus yet. `channel` is the channel's name: 1 to 222 letters, digits and
    /// underscores, the first not a digit. Throws std::invalid_argument, which names the fault, for
    /// any other.
    PelmarEndpoint(Role role, const std::string& channel);

    /// Stops. Must not run inside a handler of this endpoint: that ends the process.
    ~PelmarEndpoint();
    PelmarEndpoint(const PelmarEndpoint&) = delete;
    PelmarEndpoint& operator=(const PelmarEndpoint&) = delete;

    /// What the application wants to be told; all of them may be left out. To be set before Start,
    /// std::logic_error after it. No handler runs before Start was called, so a handler may use the
    /// endpoint. For one partner: OnReady, then its traffic in the order in which it was sent, then
    /// OnLost; never other than that. (A program that calls Send and is no partner, because it
    /// takes no part in the handshake, is answered as well: its Message::from is not ready.)
    ///
    /// Answers a partner's message: the result is the reply. To throw a std::exception fails the
    /// caller's Request with its text. Without this and OnDeferredMessage requests fail.
    void OnMessage(std::function<Bytes(Message& message)> handler);

    /// The same for an answer that takes its time; used instead of OnMessage's when set.
    void OnDeferredMessage(std::function<void(Message& message, Reply reply)> handler);

    void OnNotification(std::function<void(Message& message)> handler);

    /// Once each for a partner; never lost without ready before. Of a partner that is ready nothing
    /// that was sent with Status::ok is lost, unless it is lost itself.
    void OnReady(std::function<void(const Partner& partner)> handler);
    void OnLost(std::function<void(const Partner& partner)> handler);

    /// A partner for which a Notify or Request came to queue_full has room again for what was
    /// refused.
    void OnRoom(std::function<void(const Partner& partner)> handler);

    /// The bus daemon is gone, told before the OnLost of those who were ready; and the endpoint is
    /// on the bus after it was not: the handshakes begin anew.
    void OnBusLost(std::function<void()> handler);
    void OnBusBack(std::function<void()> handler);

    void OnProblem(std::function<void(Problem problem, const std::string& text)> handler);

    /// Settings; before Start too, std::logic_error after it.
    ///
    /// Where handlers run, instead of in a thread of the endpoint's own: in `context`, by the
    /// thread that iterates it (null is GLib's default context), or by handing each to `executor`,
    /// which is to see to it that it is called soon, once, in any thread. The executor itself is
    /// called by a thread of the endpoint's and is to return at once: timers, and Stop, wait for
    /// it. What it throws is logged. It may drop the function; the handlers that follow stay undone
    /// then. An empty one is the endpoint's own thread.
    void RunHandlersIn(GMainContext* context);
    void RunHandlersIn(std::function<void(std::function<void()>)> executor);

    /// How many bytes may wait for one partner: notifications until it has dealt with them, or,
    /// past the bus, until its socket has taken them (what its handlers have not come to waits in
    /// its intake then), requests until it has answered them. A message costs its size and 512
    /// bytes; one that finds no more than a sixteenth of the window in use always fits, whatever
    /// its size. Default 8 MiB.
    void SetWindow(std::size_t bytes);

    /// How many bytes of messages may wait for the handlers, from all partners together. Over it a
    /// request is refused (Status::busy to the one who sent it); a notification is dropped, which
    /// happens only to partners that are no endpoints, as an endpoint sends what it knows to find
    /// room: each partner has room for 512 KiB, or for one message, whatever the others do. What
    /// comes past the bus is never refused: nothing more is read of a partner meanwhile. Default
    /// 64 MiB.
    void SetIntake(std::size_t bytes);

    /// Whether traffic may go past the bus daemon, through a socket that two endpoints agree on
    /// over the bus once they are ready. Default true; PELMAR_DIRECT=0 in the environment forbids
    /// it. Nothing else changes: what is promised holds on either way and while it changes. Traffic
    /// stays on the bus where one side does not want it otherwise, is no endpoint of this version,
    /// has too few descriptors, or is not let by the bus's policy.
    void SetDirectPath(bool allowed);

    /// The bus, as a D-Bus address ("unix:path=/run/my-bus"). Default: the system bus.
    void SetBusAddress(const std::string& address);

    /// Whether the process gets SIGTERM when the bus daemon dies. Default false.
    void ExitWhenBusDies(bool exit);

    /// Comes onto the bus; returns when it is there or when the bus turned out to be out of reach:
    /// the endpoint goes on trying, and calls OnBusBack when it succeeds. Once: std::logic_error
    /// the second time, and after Stop. std::system_error when the process can have no more threads
    /// or descriptors; then it may be called again. Not in a child of fork() before exec, where the
    /// parent has used GIO: GLib's thread is not there, and it would wait for it for ever.
    void Start();

    /// Off the channel: no handler runs when it returns, and queued messages are not handed to
    /// handlers any more (their senders are told). Waiting calls of other threads return
    /// Status::stopped, as do all later ones; `done` of requests that are open is told the same,
    /// by the thread that calls Stop. What was sent before gets `flush` to leave: past the bus
    /// until the partners' sockets have taken it, on the bus until the partners have dealt with so
    /// much that the rest is under way. Whether all of it left is not told; who has to know sends a
    /// Request. Bounded by `flush` and the handler that runs, whatever bus, daemon and partners do.
    /// The partners are told lost, also when this process lives on. False inside a handler, a
    /// `done` or the executor of this endpoint, and nothing happens. May be called more than once;
    /// of calls at the same time the shortest `flush` counts, and each returns at the end.
    bool Stop(std::chrono::milliseconds flush = std::chrono::seconds(1));

    bool IsOnBus() const;

    /// The endpoint's own unique bus name; empty while it is not on the bus.
    std::string Name() const;

    /// The ready partners, in the order in which they became ready.
    std::vector<Partner> Partners() const;

    /// Waits until a partner is ready and returns it (the first one); nothing when the deadline
    /// passes first or the endpoint is stopped.
    std::optional<Partner> WaitForPartner(std::chrono::steady_clock::time_point deadline) const;

    /// Sends a notification to one partner, or to all that are ready. Never waits. The messages of
    /// one thread to one partner arrive in the order of its calls, requests included.
    Status Notify(const Partner& partner, Bytes data);
    Broadcast NotifyAll(Bytes data);

    /// Sends a message and waits for the partner's reply, for `timeout` at most. Inside a handler
    /// it works too, but other handlers wait as well.
    Response Request(const Partner& partner, Bytes data, std::chrono::milliseconds timeout);

    /// The same without waiting: `done` is called exactly once, as a handler, at the latest while
    /// the endpoint is being stopped; before Start it waits for that. When it is stopped already,
    /// `done` is called by the caller's thread, before this returns. The time begins with the call.
    /// `done` may be empty.
    Call Request(const Partner& partner, Bytes data, std::chrono::milliseconds timeout,
                 std::function<void(Response response)> done);

private:
    class PELMAR_HIDDEN Impl;
    std::shared_ptr<Impl> m_impl;
};

template <>
struct std::hash<PelmarEndpoint::Partner> {
    std::size_t operator()(const PelmarEndpoint::Partner& partner) const noexcept
    {
        return partner.Hash();
    }
};

#endif
