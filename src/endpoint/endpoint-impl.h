// The endpoint's inside: one connection to the bus, the partners on it, and what is on its way.
// Internal.
//
// Whatever comes from the bus is dealt with in GIO's thread, in the order of the bus, as soon as it
// is read; what the application sends leaves in the thread that sends it. Both, and the timers of
// the loop's thread, change what is guarded by m_mutex, and none of them waits for anything while
// holding it. Handlers run elsewhere (handler-queue.h). The connection itself is made and lost in
// the loop's thread.
//
// Functions that are listed under "with the mutex held" want the mutex.
#ifndef PELMAR_ENDPOINT_IMPL_H
#define PELMAR_ENDPOINT_IMPL_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "bus-messages.h"
#include "channel-names.h"
#include "deadlines.h"
#include "direct-poll.h"
#include "direct-socket.h"
#include "event-loop.h"
#include "hand-over.h"
#include "handler-queue.h"
#include "handshake.h"
#include "partner-window.h"
#include "pelmar-endpoint.h"
#include "send-rate.h"

struct OutgoingBody : Outgoing {
    OutgoingBody(Kind of_kind, Payload of_body)
        : Outgoing(of_kind, of_body->size()), body(std::move(of_body))
    {
    }
    Payload body;
};

// Where a call came from, and so where its answer goes.
struct CallOrigin {
    std::optional<bus_message::CallId> bus;  // else it came by the direct path
    std::uint32_t serial = 0;                // there
    bool ExpectsAnswer() const { return !bus || bus->expects_answer; }
};

struct OutgoingAnswer : Outgoing {
    OutgoingAnswer(CallOrigin to, Payload of_body)
        : Outgoing(Kind::answer, of_body->size()), origin(std::move(to)), body(std::move(of_body))
    {
    }
    OutgoingAnswer(CallOrigin to, const char* of_error, std::string of_text)
        : Outgoing(Kind::answer, of_text.size()),
          origin(std::move(to)),
          error(of_error),
          text(std::move(of_text))
    {
    }
    const CallOrigin origin;
    const Payload body;           // null for an error:
    const char* error = nullptr;  // its D-Bus name
    const std::string text = {};
};

struct PelmarEndpoint::Partner::State {
    State(std::string of_name, std::uint64_t of_number)
        : name(std::move(of_name)), number(of_number)
    {
    }

    const std::string name;
    const std::uint64_t number;  // in the order in which they were met
    std::atomic<bool> ready{false};
    std::atomic<bool> direct{false};

    // Written before anybody else sees the partner.
    std::optional<uid_t> uid;
    std::optional<pid_t> pid;
};

class PelmarEndpoint::Impl : public std::enable_shared_from_this<Impl> {
public:
    struct Handlers {
        std::function<Bytes(Message&)> message;
        std::function<void(Message&, Reply)> deferred_message;
        std::function<void(Message&)> notification;
        std::function<void(const Partner&)> ready;
        std::function<void(const Partner&)> lost;
        std::function<void(const Partner&)> room;
        std::function<void()> bus_lost;
        std::function<void()> bus_back;
        std::function<void(Problem, const std::string&)> problem;
    };
    struct Settings {
        std::function<void(std::function<void()>)> executor;
        std::shared_ptr<GMainContext> context;
        std::size_t window = 8UL * 1024 * 1024;
        std::size_t intake = 64UL * 1024 * 1024;
        std::string address;  // empty: the system bus
        bool direct_path = true;
        bool exit_when_bus_dies = false;
    };

    Impl(Role role, const std::string& channel);
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // Throw std::logic_error after Start.
    Handlers& SettableHandlers();
    Settings& SettableSettings();

    void Start();
    bool Stop(std::chrono::milliseconds flush);
    bool IsOnBus() const;
    std::string Name() const;
    std::vector<Partner> Partners() const;
    std::optional<Partner> WaitForPartner(std::chrono::steady_clock::time_point deadline) const;
    Status Notify(const Partner& partner, Bytes data);
    Broadcast NotifyAll(Bytes data);
    Response Request(const Partner& partner, Bytes data, std::chrono::milliseconds timeout);
    Call Request(const Partner& partner, Bytes data, std::chrono::milliseconds timeout,
                 std::function<void(Response)> done);

    // What came of a request.
    struct Outcome {
        Status status = Status::ok;
        std::string error = {};
        MessagePtr message = {};  // whose bytes are the answer, where it came by the bus
        Bytes data = {};          // else
    };

    // A message for the application.
    struct Incoming {
        Bytes TakeBytes();

        bool is_call = false;
        CallOrigin origin = {};  // of a call
        std::size_t cost = 0;
        MessagePtr message = {};  // where it came by the bus
        Bytes data = {};          // else
    };

    struct Peer;
    struct OpenRequest;
    class MessageTask;
    class DoneTask;

    // For replies and calls that the application holds.
    void Send(Reply::State& reply, Bytes data);
    void Fail(Reply::State& reply, const std::string& text);
    bool IsWanted(const Reply::State& reply) const;
    void Cancel(const std::shared_ptr<OpenRequest>& request);

private:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = Deadlines::Clock;
    using Connection = GObjectPtr<GDBusConnection>;
    using OnAnswer = std::function<void(GDBusMessage* answer)>;
    struct AwaitedAnswer {
        std::string from;
        OnAnswer on_answer;
    };
    using PeerPtr = std::shared_ptr<Peer>;
    using RequestPtr = std::shared_ptr<OpenRequest>;

    void AbandonReplies();

    // The life of the endpoint (endpoint-life.cpp), in the loop's thread.
    void Connect();
    void ConnectTo(const std::string& address);
    static void cb_Connected(GObject* source, GAsyncResult* result, gpointer user_data);
    void ConnectionMade(Connection connection);
    void ConnectionFailed(const std::string& reason);
    void ConnectLater();
    static void cb_Closed(GDBusConnection* connection, gboolean by_peer, GError* error,
                          gpointer user_data);
    void ConnectionClosed();
    void ReleaseConnection();
    void Shutdown();
    void RunDueDeadlines();
    void RearmTimer();
    void Flush(Lock& lock);
    std::vector<RequestPtr> AllOpenRequests() const;

    // With the mutex held.
    void LeaveBus(Status status);
    Deadlines::Id At(Clock::time_point time, Deadlines::Task task);
    Deadlines::Id After(std::chrono::milliseconds delay, Deadlines::Task task);
    // `subject` is what has the problem where several may.
    void Report(Problem problem, const std::string& text, const std::string& subject = "");
    void ReportOver(Problem problem, const std::string& subject = "");
    void Post(HandlerQueue::Task task);
    template <typename... Parameters, typename... Arguments>
    void Tell(const char* name, const std::function<void(Parameters...)>& handler,
              Arguments... arguments);

    // By what GIO's thread gets at the endpoint, for as long as there is one.
    struct Access {
        explicit Access(std::weak_ptr<Impl> to) : impl(std::move(to)) {}
        ~Access() { hand_over.Take(); }
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;
        std::shared_ptr<Impl> Lock() const
        {
            hand_over.Take();
            return impl.lock();
        }

        const std::weak_ptr<Impl> impl;
        const HandOver hand_over;
    };

    // What comes from the bus (endpoint-bus.cpp).
    static GDBusMessage* cb_Message(GDBusConnection* connection, GDBusMessage* message,
                                    gboolean incoming, gpointer user_data);
    bool TakeMessage(GDBusConnection* connection, GDBusMessage* message);
    bool TakeSignal(GDBusMessage* signal);
    bool TakeCall(GDBusMessage* call);
    bool TakeAnswer(GDBusMessage* answer);
    void TakeQuestion(GDBusMessage* question);
    void OwnerChanged(GDBusMessage* signal);

    // The handshake and its repair, with the mutex held.
    void IsThere();
    void ListenTo(Stage stage, bool is_first_try);
    void Carry(const Handshake::Actions& actions);
    void Pulse(Stage stage);
    void PulseEnded(Stage stage, bool refused, bool shown);
    void RetryPulse(Stage stage);
    void LookForHolder(Stage stage);
    void Meet(const std::string& name);
    void LearnCredentials(const PeerPtr& peer);
    void CredentialsCame(const PeerPtr& peer, GDBusMessage* answer);
    void Ask(const std::string& name);
    void SetTimer(const std::string& name, std::chrono::milliseconds delay);
    void TellReady(const std::string& name);
    void TellLost(const std::string& name);
    void EndPeer(const std::string& name);
    void Forget(Peer& peer);
    void AnswerStrangers();
    void RuleRefused(GDBusMessage* answer);
    void PollNames();
    void EndPeersNotIn(GDBusMessage* names);

    // Traffic in (endpoint-traffic.cpp), with the mutex held.
    void TrafficCame(GDBusMessage* message);
    bool TakeIn(Peer& peer, std::size_t cost);
    void CountIn(Peer& peer, std::size_t cost);
    void LetGo(Peer& peer, std::size_t cost);
    static Incoming FromBus(MessagePtr message);
    void Deliver(const PeerPtr& peer, Incoming message);
    void DeliverHeld(const PeerPtr& peer);
    void RefuseCall(const PeerPtr& peer, const CallOrigin& call, const char* error,
                    const std::string& text);
    GVariant* DirectPartners() const;
    void AnswerQuestion(const bus_message::CallId& question);
    void RefuseQuestion(const bus_message::CallId& question);
    void AnswerStranger(const bus_message::CallId& question);
    void AnswerQuestions(Peer& peer);
    void ForgetIdleStrangers();
    bool TakeReply(Reply::State& reply);

    // In the handlers' thread.
    void HandleMessage(const PeerPtr& peer, Incoming message);
    void HandleCall(const PeerPtr& peer, Incoming message);
    void KeepOpen(const Reply& reply);

    // Traffic out, with the mutex held.
    PeerPtr FindPeer(const Partner& partner) const;
    PeerPtr FindPeer(const std::string& name) const;
    PeerPtr PeerNamed(const std::string& name);
    Status Admit(const PeerPtr& peer, std::size_t size) const;
    Status NotifyPeer(const PeerPtr& peer, const Payload& body);
    RequestPtr OpenNewRequest(const Partner& partner, Bytes data, Status& status);
    std::size_t LargestFor(const Peer& peer) const;
    void AwaitAnswer(Lock& lock, const PeerPtr& peer, const OpenRequest& request,
                     Deadlines::TimePoint deadline);
    void Finish(const RequestPtr& request, Outcome outcome);
    void RequestAnswered(const RequestPtr& request, GDBusMessage* answer);
    void EndRequest(const RequestPtr& request, Outcome outcome, bool was_dealt_with);
    void CloseRequest(Peer& peer, const OpenRequest& request, bool was_dealt_with);
    void FinishAll(Peer& peer, Status status);
    void Pump(const PeerPtr& peer);
    void PumpBacklog();
    void Leave(const PeerPtr& peer, const PartnerWindow::Item& item);
    bool MayCall(const Peer& peer) const;
    bool MayAsk() const;
    void AskForRoom(const PeerPtr& peer);
    void AskLater(const PeerPtr& peer);
    void AskPeer(const PeerPtr& peer);
    void PeerAnswered(const PeerPtr& peer, std::uint64_t position, GDBusMessage* answer);
    void NotificationRefused(const PeerPtr& peer, GDBusMessage* error);
    void BeginAnew(const std::string& name);
    void ForgetDealtWith(Peer& peer);
    void TellOfRoom(Peer& peer);
    void AfterProgress(const PeerPtr& peer);
    void AnswerWith(const PeerPtr& peer, const std::shared_ptr<OutgoingAnswer>& answer);
    void SendAnswer(const OutgoingAnswer& answer);
    void RefuseAnswer(const PeerPtr& peer, const CallOrigin& origin);

    // The direct path (endpoint-direct.cpp), with the mutex held but for cb_Direct.
    class DirectIdle;
    void PrepareDirectPaths(EventLoop& loop);
    bool MayGoDirect(const Peer& peer) const;
    GVariant* WordOnDirectPath(const std::string& name);
    void Invite(const PeerPtr& peer);
    void InviteNext();
    void IsThrough(Peer& peer);
    void TakeInvitation(const PeerPtr& peer);
    void TryDirectPath(const PeerPtr& peer);
    bool NeedsWordOnDirectPath(const Peer& peer) const;
    void OpenDirectPath(const PeerPtr& peer);
    void DirectPathAnswered(const PeerPtr& peer, SocketEnd socket, GDBusMessage* answer);
    void TakeOpen(GDBusMessage* call);
    void AcceptDirectPath(const PeerPtr& peer);
    void AnswerOpen(const bus_message::CallId& call, guint32 version);
    void TakeSwitch(const std::string& caller);
    void StartWriting(const PeerPtr& peer, SocketEnd socket);
    void StartReading(const PeerPtr& peer);
    void WatchDirect(Peer& peer);
    static gboolean cb_Direct(gint descriptor, GIOCondition condition, gpointer user_data);
    void TakeEvents(const DirectPoll::Events& events);
    bool TakeReading(Peer& peer);
    void ReadDirect(const PeerPtr& peer);
    void ReadUntilAnswered(Lock& lock, const PeerPtr& peer, const OpenRequest& request,
                           Deadlines::TimePoint deadline);
    bool MayRead(const Peer& peer) const;
    bool TakeFrame(const PeerPtr& peer, Frame frame);
    void TakeDirectMessage(const PeerPtr& peer, Frame frame);
    bool TakeDirectAnswer(const PeerPtr& peer, Frame frame);
    RequestPtr FindRequest(Peer& peer, const FrameHead& answer);
    void PauseOrGoOn(Peer& peer);
    void GoOnReading();
    bool NotifyDirect(Peer& peer, const Payload& body);
    void WriteNotification(Peer& peer, Payload body);
    void PumpDirect(const PeerPtr& peer);
    void FillOutbox(const PeerPtr& peer);
    bool IsCollecting(Peer& peer);
    bool IsInBurst(Peer& peer);
    void WriteSoon(Peer& peer);
    void WriteBursts();
    static bool FlushDirect(Peer& peer);
    void WriteFrame(Peer& peer, const FrameHead& head, Payload payload);
    void WriteAtOnce(Peer& peer);
    void GiveUpIdleSlots(std::uint64_t number);
    void LeaveDirect(const PeerPtr& peer, const PartnerWindow::Item& item);
    void AnswerDirect(Peer& peer, const OutgoingAnswer& answer);
    bool IsWritingDirect() const;
    void SayBye();
    void DirectPathEnded(const PeerPtr& peer);
    void DirectPathFailed(const PeerPtr& peer, const std::string& fault);
    void ReportDirectPath(const Peer& peer, const std::string& fault);
    void BeginAnewWithout(const PeerPtr& peer);
    void DrainDirectPath(const PeerPtr& peer);
    void CloseDirectPath(Peer& peer);

    // What is sent, with the mutex held.
    guint32 SendNow(GDBusMessage* message, OnAnswer on_answer = {});
    void CallDaemon(const char* method, GVariant* parameters, OnAnswer on_answer);
    void TellDaemon(const char* method, GVariant* parameters);
    bool DaemonHasRoom() const;
    void ConfirmDaemon();
    void DaemonHasTaken(std::uint64_t given);

    // Constant after Start.
    const Role m_role;
    const std::string m_channel;
    const ChannelStageNames m_own_names;
    const ChannelStageNames m_peer_names;
    const std::string m_object_path;
    Handlers m_handlers;
    Settings m_settings;
    const std::shared_ptr<HandlerQueue> m_queue = std::make_shared<HandlerQueue>();

    // Owned by the loop's thread.
    GObjectPtr<GCancellable> m_connecting;
    std::unique_ptr<LoopTimer> m_connect_timer;
    Clock::time_point m_off_bus_since;
    guint m_filter = 0;
    guint m_object = 0;
    gulong m_closed_handler = 0;
    std::unique_ptr<LoopTimer> m_timer;

    // Guarded by m_mutex.
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_started = false;
    bool m_first_try_over = false;
    bool m_was_off_bus = false;
    bool m_stopped = false;
    bool m_stop_ended = false;
    std::chrono::milliseconds m_flush_patience = std::chrono::hours(24);  // the shortest of all
    std::unique_ptr<EventLoop> m_loop;
    Deadlines m_deadlines;
    std::optional<Clock::time_point> m_armed_for;
    std::deque<HandlerQueue::Task> m_owed;  // what is told when the endpoint has stopped
    std::set<std::pair<Problem, std::string>> m_reported;

    // The stay on one bus; null, and empty, while there is none.
    Connection m_connection;
    Connection m_left;  // the one that is to be released
    bool m_is_closed = false;
    std::uint64_t m_session = 0;
    std::string m_name;
    std::optional<Handshake> m_handshake;
    std::unordered_map<std::string, PeerPtr> m_peers;
    std::vector<PeerPtr> m_ready;                        // in that order
    std::unordered_map<guint32, AwaitedAnswer> m_calls;  // by serial
    std::vector<bus_message::CallId> m_strangers_questions;
    bool m_rules_are_short = false;
    int m_first_rules = 0;    // those of the names that are not in force yet
    bool m_is_there = false;  // all are, or were refused

    struct OwnPulse {
        int attempts = 0;
        std::optional<Clock::time_point> missing_since;
        std::string holder;
        int holder_seen = 0;
    };
    std::array<OwnPulse, ALL_STAGES.size()> m_pulses;
    std::minstd_rand m_random;

    std::vector<std::weak_ptr<Reply::State>> m_open_replies;
    std::size_t m_open_replies_limit = 16;
    std::size_t m_intake = 0;
    std::size_t m_open_requests = 0;
    std::size_t m_open_questions = 0;
    const std::shared_ptr<Transit> m_transit = std::make_shared<Transit>();
    std::deque<std::weak_ptr<Peer>> m_backlog;

    // Direct paths.
    std::unique_ptr<DirectPoll> m_direct_poll;  // null: there are none
    std::unique_ptr<HandlerIdle> m_direct_idle;
    SourcePtr m_direct_source;
    std::unordered_map<std::uint64_t, PeerPtr> m_direct_peers;  // by the partner's number
    std::atomic<bool> m_has_direct_peers{false};
    std::vector<std::uint64_t> m_bursts;   // those of them that are written to soon
    std::vector<std::uint64_t> m_paused;   // those of them that the handlers do not keep up with
    std::set<std::string> m_never_direct;  // whose direct path has failed
    std::vector<char> m_read_buffer;
    SendRate m_send_rate;
    int m_notified = 0;                   // less those that came, and not counted there
    std::deque<std::string> m_uninvited;  // clients that wait for their turn to open a path
    std::size_t m_invited = 0;

    // Bytes given to GIO, those that the daemon has taken for sure, and up to where it is asked.
    std::uint64_t m_given = 0;
    std::uint64_t m_taken = 0;
    bool m_confirming = false;
};

// What an endpoint keeps of one name on the bus: a partner, or a stranger that calls.
struct PelmarEndpoint::Impl::Peer {
    Peer(std::shared_ptr<Partner::State> state, const Settings& settings,
         const std::shared_ptr<Transit>& transit)
        : partner(std::move(state)), window(settings.window, settings.intake, transit)
    {
    }
    const std::string& Name() const { return partner->name; }

    const std::shared_ptr<Partner::State> partner;
    PartnerWindow window;
    bool gone = false;
    bool has_credentials = false;
    bool is_asked_who = false;
    bool is_watched = false;  // its end is reported by the bus
    Deadlines::Id timer = 0;

    // The question: one at a time.
    bool asking = false;
    bool ask_again = false;
    bool is_unaskable = false;
    bool asks_later = false;

    // In: messages that may not be told yet; and how far the handlers have come.
    std::deque<MessagePtr> held;
    std::size_t waiting = 0;
    std::uint64_t accepted = 0;
    std::uint64_t handled = 0;
    std::size_t unanswered = 0;
    std::deque<std::pair<std::uint64_t, bus_message::CallId>> questions;

    // Out.
    std::uint64_t given = 0;  // up to where in what was given to the daemon
    std::size_t open_requests = 0;
    std::set<std::shared_ptr<OpenRequest>> requests;
    std::deque<std::pair<std::uint64_t, guint32>>
        notified;  // position and serial, until dealt with
    bool in_backlog = false;

    // The direct path. What is sent takes it as soon as there is a socket.
    bool has_word = false;  // it has answered whether a path may be opened
    bool may_open = false;
    bool waits_for_turn = false;
    bool is_invited = false;  // and has not opened its path yet
    bool was_opened = false;
    std::optional<std::pair<bus_message::CallId, SocketEnd>> opening;  // until it is ready
    std::shared_ptr<DirectSocket> socket;
    Deadlines::TimePoint last_sent;
    bool writes_soon = false;
    bool gives_up_slots = false;
    bool reads_direct = false;  // it sends nothing by the bus any more
    bool has_reader = false;    // a thread that waits for an answer
    bool is_paused = false;
    bool said_bye = false;
    bool has_ended = false;
    bool is_drained = false;        // nothing is read any more
    std::pair<bool, bool> watched;  // for reading and for writing
    std::size_t largest = 0;        // message that it takes, once it has said so
    std::uint32_t last_serial = 0;
    std::unordered_map<std::uint32_t, std::shared_ptr<OpenRequest>> direct_requests;
};

// One request, from the call until nothing more can come of it. Guarded by the endpoint's mutex.
struct PelmarEndpoint::Impl::OpenRequest : OutgoingBody {
    using OutgoingBody::OutgoingBody;

    Response TakeResponse();

    std::weak_ptr<Peer> peer;
    std::function<void(Response)> done;  // in the handlers' thread once it is over
    bool is_waited_for = false;          // by a thread
    mutable std::condition_variable told;
    Deadlines::Id deadline = 0;
    bool sent = false;
    guint32 bus_serial = 0;  // when it was sent there

    // What came of it; constant once `over` is true.
    bool over = false;
    Outcome outcome;
};

struct PelmarEndpoint::Reply::State {
    State(std::weak_ptr<Impl> of_impl, std::shared_ptr<Impl::Peer> of_peer, CallOrigin from)
        : impl(std::move(of_impl)), peer(std::move(of_peer)), origin(std::move(from))
    {
    }
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    const std::weak_ptr<Impl> impl;
    const std::shared_ptr<Impl::Peer> peer;
    const CallOrigin origin;
    bool answered = false;  // guarded by the endpoint's mutex
};

struct PelmarEndpoint::Call::State {
    std::weak_ptr<Impl> impl;
    std::shared_ptr<Impl::OpenRequest> request;
};

#endif
