// What the endpoint sends and receives: every outcome of Notify and Request, from any thread and
// from inside the handlers, and the answers to messages.

#include <atomic>
#include <condition_variable>
#include <future>

#include "captured-log.h"
#include "endpoint-fixture.h"
#include "endpoint-process.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Reply = PelmarEndpoint::Reply;

constexpr std::size_t LARGEST = PelmarEndpoint::MAX_BUS_MESSAGE_BYTES;
constexpr milliseconds LONG = std::chrono::seconds(20);

// A place for what a callback of another thread brings.
template <typename Value>
class Arrival {
public:
    void Set(Value value)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_value = std::move(value);
        WakeTest();
    }
    Value Await(const std::string& what)
    {
        IterateUntil([this] { return Count() != 0; }, what);
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_value;
    }
    int Count() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

private:
    mutable std::mutex m_mutex;
    int m_count = 0;
    Value m_value{};
};

class TrafficTest : public EndpointTest {
protected:
    using EndpointTest::EndpointTest;

    void StartWithPartner()
    {
        Start(Role::service);
        MakeReady(m_partner);
    }
    Partner ThePartner() const { return PartnerOf(m_partner); }
    Status Notify(const Bytes& data) { return m_endpoint->Notify(ThePartner(), data); }

    // The partner answers in the test's main context, so the request waits in another thread.
    Response Request(const Bytes& data, milliseconds timeout = LONG)
    {
        Arrival<Response> response;
        m_endpoint->Request(ThePartner(), data, timeout,
                            [&](Response came) { response.Set(std::move(came)); });
        return response.Await("a response");
    }
    Response BlockingRequest(const Bytes& data, milliseconds timeout = LONG)
    {
        Arrival<Response> response;
        std::thread caller([&] { response.Set(m_endpoint->Request(ThePartner(), data, timeout)); });
        const Response came = response.Await("a response");
        caller.join();
        return came;
    }

    // The partner has the object but answers only when the test iterates, which it does not.
    void ServeSilently()
    {
        m_partner.Serve(CHANNEL, [](const Bytes&) { return Bytes(); });
    }

    BusActor m_partner{m_bus};
};

// ---- Notifications -------------------------------------------------------------------------

class ANotification : public TrafficTest {};

TEST_F(ANotification, ReachesThePartnerItIsMeantForAndNoOther)
{
    StartWithPartner();
    BusActor other(m_bus);
    MakeReady(other);
    m_partner.Listen(CHANNEL);
    other.Listen(CHANNEL);
    EXPECT_EQ(Status::ok, Notify(BytesOf("one")));
    const PelmarEndpoint::Broadcast broadcast = m_endpoint->NotifyAll(BytesOf("all"));
    EXPECT_EQ(2U, broadcast.sent);
    EXPECT_THAT(broadcast.missed, IsEmpty());
    IterateUntil([&] { return !m_partner.Heard().empty() && !other.Heard().empty(); },
                 "the notifications");
    IterateUntil([&] { return m_partner.Heard().size() == 2; }, "the notification to all");
    EXPECT_THAT(m_partner.Heard(), ElementsAre(BytesOf("one"), BytesOf("all")));
    EXPECT_THAT(other.Heard(), ElementsAre(BytesOf("all")));
}

TEST_F(ANotification, MayHoldAnyBytesAndNone)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    const Bytes all{'\0', '\x7f', '\x80', '\xff', '\0'};
    EXPECT_EQ(Status::ok, Notify(all));
    EXPECT_EQ(Status::ok, Notify({}));
    IterateUntil([&] { return m_partner.Heard().size() == 2; }, "two notifications");
    EXPECT_THAT(m_partner.Heard(), ElementsAre(all, Bytes()));
}

TEST_F(ANotification, ArrivesInTheOrderOfTheCalls)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    std::vector<Bytes> sent;
    for (int i = 0; i < 2000; ++i) {
        sent.push_back(BytesOf(std::to_string(i)));
        ASSERT_EQ(Status::ok, Notify(sent.back()));
    }
    IterateUntil([&] { return m_partner.Heard().size() == sent.size(); }, "all notifications");
    EXPECT_EQ(sent, m_partner.Heard());
}

TEST_F(ANotification, MayBeSentByManyThreadsAtOnce)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int j = 0; j < 250; ++j)
                EXPECT_EQ(Status::ok, Notify({static_cast<char>('a' + i), static_cast<char>(j)}));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    IterateUntil([&] { return m_partner.Heard().size() == 1000; }, "1000 notifications");
    std::map<char, char> last;
    for (const Bytes& heard : m_partner.Heard()) {
        if (last.count(heard[0]) != 0) {
            EXPECT_EQ(static_cast<char>(last[heard[0]] + 1), heard[1]) << "of thread " << heard[0];
        }
        last[heard[0]] = heard[1];
    }
}

TEST_F(ANotification, ReachesTheHandlerWithItsBytes)
{
    StartWithPartner();
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body(BytesOf("abc")));
    m_news.Await("notification abc");
}

TEST_F(ANotification, OfTheLargestSizeArrives)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    const Bytes large(LARGEST, 'x');
    EXPECT_EQ(Status::ok, Notify(large));
    IterateUntil([&] { return !m_partner.Heard().empty(); }, "a notification of the largest size");
    EXPECT_TRUE(large == m_partner.Heard().front());
}

TEST_F(ANotification, ThatIsTooLargeIsNotSentAndTheConnectionLives)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    EXPECT_EQ(Status::too_large, Notify(Bytes(LARGEST + 1)));
    const PelmarEndpoint::Broadcast broadcast = m_endpoint->NotifyAll(Bytes(LARGEST + 1));
    EXPECT_EQ(0U, broadcast.sent);
    ASSERT_EQ(1U, broadcast.missed.size());
    EXPECT_EQ(Status::too_large, broadcast.missed[0].status);
    EXPECT_EQ(ThePartner(), broadcast.missed[0].partner);
    EXPECT_EQ(Status::ok, Notify(BytesOf("next")));
    IterateUntil([&] { return !m_partner.Heard().empty(); }, "the next notification");
    EXPECT_THAT(m_partner.Heard(), ElementsAre(BytesOf("next")));
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName()));
}

TEST_F(ANotification, HasNoSuchPartnerWhenNobodyIsThere)
{
    Start();
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}, {}));
    EXPECT_EQ(0U, m_endpoint->NotifyAll({}).sent);
}

TEST_F(ANotification, HasNoSuchPartnerWhenThePartnerHasGone)
{
    StartWithPartner();
    m_partner.Leave();
    m_news.Await("lost");
    EXPECT_EQ(Status::no_such_partner, Notify({}));
    EXPECT_FALSE(ThePartner().IsReady());
    const PelmarEndpoint::Broadcast broadcast = m_endpoint->NotifyAll({});
    EXPECT_EQ(0U, broadcast.sent);
    EXPECT_THAT(broadcast.missed, IsEmpty());
}

TEST_F(ANotification, IsNotReadyWhileTheHandshakeIsUnderWay)
{
    // A stranger that calls becomes a partner.
    std::vector<Partner> callers;
    Make(Role::service);
    m_endpoint->OnMessage([&](Message& message) {
        callers.push_back(message.from);
        return Bytes();
    });
    m_endpoint->Start();
    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    IterateUntil([&] { return call->Done(); }, "the answer");
    const Partner stranger = callers.at(0);
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify(stranger, {}));
    BusActor squatter(m_bus);
    squatter.Acquire(Own(names::SYN_ACK));
    ServeAnything(m_partner);
    m_partner.Pulse(Peers(names::SYN));
    Settle(m_partner);
    EXPECT_EQ(Status::not_ready, m_endpoint->Notify(stranger, {}));
    EXPECT_EQ(Status::not_ready, m_endpoint->Request(stranger, {}, milliseconds(100)).status);
    EXPECT_EQ(0U, m_endpoint->NotifyAll({}).sent) << "nobody is ready";
    EXPECT_FALSE(stranger.IsReady());
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    squatter.Leave();
    m_news.Await("ready " + m_partner.UniqueName());
    EXPECT_EQ(stranger, ThePartner());
    EXPECT_TRUE(stranger.IsReady());
    EXPECT_EQ(Status::ok, m_endpoint->Notify(stranger, {}));
}

class ANotificationInASmallWindow : public TrafficTest {
protected:
    static constexpr std::size_t WINDOW = 1024UL * 1024;

    using TrafficTest::TrafficTest;

    void StartWithSmallWindow()
    {
        Make(Role::service);
        m_endpoint->SetWindow(WINDOW);
        m_endpoint->Start();
    }
    void StartWithPartner()
    {
        StartWithSmallWindow();
        MakeReady(m_partner);
    }

    // Sends until the window is full; returns how many bytes it took.
    std::size_t FillWindowOf(const Partner& partner)
    {
        const Bytes data(10000, 'x');
        std::size_t bytes = 0;
        Status status = Status::ok;
        while (status == Status::ok && bytes < 64UL * 1024 * 1024) {
            status = m_endpoint->Notify(partner, data);
            bytes += status == Status::ok ? data.size() : 0;
        }
        EXPECT_EQ(Status::queue_full, status);
        return bytes;
    }
    std::size_t FillWindow() { return FillWindowOf(ThePartner()); }

    void ExpectRoomFor(const Bytes& data)
    {
        m_news.Await("room " + m_partner.UniqueName());
        EXPECT_EQ(Status::ok, Notify(data));
    }
};

TEST_F(ANotificationInASmallWindow, FindsItFullWhileTheDaemonIsStopped)
{
    StartWithPartner();
    m_bus.Daemon().Signal(SIGSTOP);
    const std::size_t taken = FillWindow();
    m_bus.Daemon().Signal(SIGCONT);
    EXPECT_LE(taken, WINDOW);
    EXPECT_GT(taken, WINDOW / 2);
    ExpectRoomFor(BytesOf("again"));
}

TEST_F(ANotificationInASmallWindow, FindsItFullWhileThePartnersMainLoopStands)
{
    StartWithPartner();
    const std::size_t taken = FillWindow();
    EXPECT_LE(taken, WINDOW);
    EXPECT_GT(taken, WINDOW / 2);
    m_partner.Settle();
    EXPECT_EQ(Status::queue_full, Notify(Bytes(10000)));
    ExpectRoomFor(Bytes(10000));
}

TEST_F(ANotificationInASmallWindow, IsTakenWhenItIsLargerThanTheEmptyWindowAndFollowedByNone)
{
    StartWithPartner();
    m_bus.Daemon().Signal(SIGSTOP);
    EXPECT_EQ(Status::ok, Notify(Bytes(2 * WINDOW)));
    EXPECT_EQ(Status::queue_full, Notify({}));
    m_bus.Daemon().Signal(SIGCONT);
    ExpectRoomFor({});
}

TEST_F(ANotificationInASmallWindow, IsToldThatThereIsRoomWhenItFitsAndNotBefore)
{
    StartWithPartner();
    // Two of these fit, with what is counted beside their bytes.
    const Bytes half(WINDOW / 2 - 1000);
    EXPECT_EQ(Status::ok, Notify(half));
    EXPECT_EQ(Status::ok, Notify(half));
    EXPECT_EQ(Status::queue_full, Notify(Bytes(2 * WINDOW)));
    ExpectRoomFor(Bytes(2 * WINDOW));
    EXPECT_EQ(1U, m_news.Count("room"));
}

TEST_F(ANotificationInASmallWindow, FindsRoomAfterTheDaemonWasSilentForLong)
{
    StartWithPartner();
    m_bus.Daemon().Signal(SIGSTOP);
    FillWindow();
    EXPECT_EQ(Status::queue_full, Request(Bytes(10000), milliseconds(1500)).status);
    Arrival<bool> later;
    g_timeout_add(
        1500,
        [](gpointer arrival) -> gboolean {
            static_cast<Arrival<bool>*>(arrival)->Set(true);
            return G_SOURCE_REMOVE;
        },
        &later);
    later.Await("the end of a long silence");
    m_bus.Daemon().Signal(SIGCONT);
    ExpectRoomFor(BytesOf("again"));
}

TEST_F(ANotificationInASmallWindow, HasAWindowOfItsOwnForEveryPartner)
{
    StartWithPartner();
    BusActor other(m_bus);
    MakeReady(other);
    m_bus.Daemon().Signal(SIGSTOP);
    FillWindow();
    const PelmarEndpoint::Broadcast broadcast = m_endpoint->NotifyAll(Bytes(10000));
    EXPECT_EQ(1U, broadcast.sent);
    ASSERT_EQ(1U, broadcast.missed.size());
    EXPECT_EQ(Status::queue_full, broadcast.missed[0].status);
    EXPECT_EQ(ThePartner(), broadcast.missed[0].partner);
    EXPECT_GT(FillWindowOf(PartnerOf(other)), WINDOW / 2);
    m_bus.Daemon().Signal(SIGCONT);
    ExpectRoomFor(BytesOf("again"));
    m_news.Await("room " + other.UniqueName());
}

TEST_F(ANotificationInASmallWindow, ArrivesInItsPlaceAlsoWhenTheWindowWasFullInBetween)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    for (int i = 0; i < 500; ++i) {
        const Bytes data(10000, static_cast<char>(i));
        IterateUntil([&] { return Notify(data) == Status::ok; }, "room");
    }
    IterateUntil([&] { return m_partner.Heard().size() == 500; }, "all notifications");
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(static_cast<char>(i), m_partner.Heard()[static_cast<std::size_t>(i)].front());
}

// The daemon stops to read from a sender when too much of what it sent is unread. It may keep the
// last of it in its hands then until the sender sends more.
class ANotificationToAStoppedPartner : public ANotificationInASmallWindow {
protected:
    ANotificationToAStoppedPartner()
        : ANotificationInASmallWindow("<limit name=\"max_incoming_bytes\">1000000</limit>")
    {
        StartWithSmallWindow();
    }
};

TEST_F(ANotificationToAStoppedPartner, FindsTheWindowFullUntilThePartnerGoesOn)
{
    EndpointProcess process("client", CHANNEL);
    process.WaitForLine("ready ");
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    AwaitItsWay(partner);
    process.Signal(SIGSTOP);
    const std::size_t taken = FillWindowOf(partner);
    EXPECT_LE(taken, WINDOW + OF_THE_SOCKET);
    m_partner.Settle();
    EXPECT_EQ(Status::queue_full, m_endpoint->Notify(partner, Bytes(10000)));
    process.Signal(SIGCONT);
    for (std::size_t bytes = 0; bytes < taken; bytes += 10000)
        process.WaitForLine("notification 78");
    m_news.Await("room " + partner.Name());
    EXPECT_EQ(Status::ok, m_endpoint->Notify(partner, BytesOf("again")));
    EXPECT_EQ("", process.WaitForLine("notification 616761696e"));
}

// ---- Requests ------------------------------------------------------------------------------

class ARequest : public TrafficTest {};

TEST_F(ARequest, BringsThePartnersReply)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return Bytes(data.rbegin(), data.rend()); });
    StartWithPartner();
    for (const Response& response :
         {Request({'\0', '\xff', 'a'}), BlockingRequest({'\0', '\xff', 'a'})}) {
        EXPECT_EQ(Status::ok, response.status);
        EXPECT_EQ((Bytes{'a', '\xff', '\0'}), response.data);
        EXPECT_EQ("", response.error);
    }
    EXPECT_EQ(Bytes(), Request({}).data);
}

TEST_F(ARequest, OfTheLargestSizeIsAnsweredByOneOfTheLargestSize)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    StartWithPartner();
    const Bytes large(LARGEST, 'x');
    const Response response = Request(large);
    EXPECT_EQ(Status::ok, response.status) << response.error;
    EXPECT_TRUE(large == response.data);
}

TEST_F(ARequest, ThatIsTooLargeIsNotSent)
{
    StartWithPartner();
    EXPECT_EQ(Status::too_large, Request(Bytes(LARGEST + 1)).status);
    EXPECT_EQ(Status::too_large, BlockingRequest(Bytes(LARGEST + 1)).status);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName()));
}

TEST_F(ARequest, HasNoSuchPartnerWhenNobodyIsThere)
{
    Start();
    EXPECT_EQ(Status::no_such_partner, Request({}).status);
    EXPECT_EQ(Status::no_such_partner, BlockingRequest({}).status);
}

TEST_F(ARequest, TimesOutWhenThePartnerDoesNotAnswer)
{
    ServeSilently();
    StartWithPartner();
    const auto start = std::chrono::steady_clock::now();
    const Response response = m_endpoint->Request(ThePartner(), {}, milliseconds(150));
    EXPECT_EQ(Status::timeout, response.status);
    EXPECT_NE("", response.error);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));

    std::promise<Response> promise;
    m_endpoint->Request(ThePartner(), {}, milliseconds(150),
                        [&](Response came) { promise.set_value(std::move(came)); });
    EXPECT_EQ(Status::timeout, promise.get_future().get().status);
}

TEST_F(ARequest, TimesOutAtOnceWithNoTimeAtAll)
{
    ServeSilently();
    StartWithPartner();
    for (const milliseconds timeout : {milliseconds(0), milliseconds(-5), milliseconds::min()})
        EXPECT_EQ(Status::timeout, m_endpoint->Request(ThePartner(), {}, timeout).status);
}

TEST_F(ARequest, WaitsAsLongAsItMayWithTheLongestTimeout)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    StartWithPartner();
    EXPECT_EQ(Status::ok, Request(BytesOf("x"), milliseconds::max()).status);
}

TEST_F(ARequest, TimesOutWhileTheDaemonIsStopped)
{
    ServeSilently();
    StartWithPartner();
    m_bus.Daemon().Signal(SIGSTOP);
    const Response response = m_endpoint->Request(ThePartner(), {}, milliseconds(150));
    m_bus.Daemon().Signal(SIGCONT);
    EXPECT_EQ(Status::timeout, response.status);
}

// Keeps the calls of Send to itself, in GIO's thread.
GDBusMessage* SwallowSend(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                          gpointer count)
{
    if (incoming == FALSE || g_strcmp0(g_dbus_message_get_member(message), "Send") != 0)
        return message;
    ++*static_cast<std::atomic<int>*>(count);
    WakeTest();
    g_object_unref(message);
    return nullptr;
}

TEST_F(ARequest, LosesThePartnerThatGoesBeforeItAnswers)
{
    ServeSilently();
    std::atomic<int> calls{0};
    g_dbus_connection_add_filter(m_partner.Connection(), SwallowSend, &calls, nullptr);
    StartWithPartner();
    auto waiting = std::async(std::launch::async,
                              [this] { return m_endpoint->Request(ThePartner(), {}, LONG); });
    std::promise<Response> promise;
    m_endpoint->Request(ThePartner(), {}, LONG,
                        [&](Response came) { promise.set_value(std::move(came)); });
    IterateUntil([&] { return calls == 2; }, "both calls");
    m_partner.Leave();
    EXPECT_EQ(Status::partner_lost, promise.get_future().get().status);
    EXPECT_EQ(Status::partner_lost, waiting.get().status);
}

TEST_F(ARequest, LosesThePartnerWhoseProcessIsKilledWhileItAnswers)
{
    Start();
    EndpointProcess partner("client", CHANNEL);
    m_news.Await("ready");
    const Partner peer = m_endpoint->Partners().front();
    partner.Signal(SIGSTOP);
    std::promise<Response> promise;
    m_endpoint->Request(peer, {}, LONG, [&](Response came) { promise.set_value(std::move(came)); });
    partner.Kill();
    EXPECT_EQ(Status::partner_lost, promise.get_future().get().status);
    m_news.Await("lost " + peer.Name());
}

TEST_F(ARequest, TimesOutWhileThePartnerIsStoppedAndIsAnsweredWhenItGoesOn)
{
    Start();
    EndpointProcess partner("client", CHANNEL);
    m_news.Await("ready");
    const Partner peer = m_endpoint->Partners().front();
    partner.Signal(SIGSTOP);
    EXPECT_EQ(Status::timeout, m_endpoint->Request(peer, {}, milliseconds(150)).status);
    partner.Signal(SIGCONT);
    const Response response = m_endpoint->Request(peer, BytesOf("ab"), LONG);
    EXPECT_EQ(Status::ok, response.status) << response.error;
    EXPECT_EQ(BytesOf("ba"), response.data);
    EXPECT_EQ(0U, m_news.Count("lost"));
}

TEST_F(ARequest, BringsThePartnersErrorWithItsText)
{
    // It has no object: GIO answers for it, and it is ready when it has been given time.
    Start();
    PulseStages(m_partner);
    m_news.Await("ready " + m_partner.UniqueName());
    for (const Response& response : {Request({}), BlockingRequest({})}) {
        EXPECT_EQ(Status::remote_error, response.status);
        EXPECT_THAT(response.error, HasSubstr(names::Path(CHANNEL)));
        EXPECT_THAT(response.error, testing::Not(HasSubstr("GDBus.Error")));
        EXPECT_THAT(response.data, IsEmpty());
    }
}

TEST_F(ARequest, FromManyThreadsAtOnceBringsEachItsOwnReply)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    StartWithPartner();
    std::atomic<int> right{0};
    std::atomic<int> ended{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int j = 0; j < 50; ++j) {
                const Bytes data = BytesOf(std::to_string(i * 1000 + j));
                right += m_endpoint->Request(ThePartner(), data, LONG).data == data;
            }
            ++ended;
            WakeTest();
        });
    }
    IterateUntil([&] { return ended == 4; }, "the threads");
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(200, right);
}

TEST_F(ARequest, MayBeMadeInsideAHandler)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    Make(Role::service);
    m_endpoint->OnNotification([this](Message& message) {
        const Bytes data = message.data;
        const Response response = m_endpoint->Request(message.from, data, LONG);
        m_news.Add("response " + std::string(response.data.begin(), response.data.end()));
        m_endpoint->Request(message.from, data, LONG, [this](const Response& later) {
            m_news.Add("later " + std::string(later.data.begin(), later.data.end()));
        });
        m_news.Add("handler over");
    });
    m_endpoint->Start();
    MakeReady(m_partner);
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body(BytesOf("abc")));
    m_news.Await("later abc");
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName(), "response abc",
                                          "handler over", "later abc"));
}

class ARequestThatThePolicyForbids : public TrafficTest {
protected:
    ARequestThatThePolicyForbids()
        : TrafficTest(
              "<policy context=\"mandatory\"><deny send_type=\"method_call\" "
              "send_interface=\"org.vaska.pelmar.DbusCommunication\"/></policy>")
    {
    }
};

TEST_F(ARequestThatThePolicyForbids, IsRefused)
{
    ServeSilently();
    StartWithPartner();
    for (const Response& response : {Request({}), BlockingRequest({})}) {
        EXPECT_EQ(Status::refused, response.status);
        EXPECT_NE("", response.error);
    }
}

TEST_F(ARequest, FindsTheBusGone)
{
    StartWithPartner();
    m_bus.Kill();
    m_news.Await("bus_lost");
    EXPECT_EQ(Status::bus_gone, Request({}).status);
    EXPECT_EQ(Status::bus_gone, BlockingRequest({}).status);
    EXPECT_EQ(Status::bus_gone, Notify({}));
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

TEST_F(ARequest, EndsWhenTheBusDiesUnderIt)
{
    ServeSilently();
    std::atomic<int> calls{0};
    g_dbus_connection_add_filter(m_partner.Connection(), SwallowSend, &calls, nullptr);
    StartWithPartner();
    auto blocking = std::async(std::launch::async,
                               [this] { return m_endpoint->Request(ThePartner(), {}, LONG); });
    std::promise<Response> promise;
    m_endpoint->Request(ThePartner(), {}, LONG,
                        [&](Response came) { promise.set_value(std::move(came)); });
    IterateUntil([&] { return calls == 2; }, "both calls");
    m_bus.Kill();
    EXPECT_EQ(Status::bus_gone, blocking.get().status);
    EXPECT_EQ(Status::bus_gone, promise.get_future().get().status);
}

class ABusThatLetsAnybodyAnswer : public EndpointTest {
protected:
    ABusThatLetsAnybodyAnswer()
        : EndpointTest(
              "<policy context=\"mandatory\"><allow send_requested_reply=\"false\"/>"
              "<allow receive_requested_reply=\"false\"/></policy>")
    {
    }
};

TEST_F(ABusThatLetsAnybodyAnswer, DoesNotBringAnAnswerOfAnotherThanThePartner)
{
    BusActor partner(m_bus);
    BusActor forger(m_bus);
    Start();
    partner.Serve(CHANNEL, [this, &forger](const Bytes&) {
        for (guint32 serial = 1; serial < 200; ++serial) {
            GDBusMessage* answer = g_dbus_message_new();
            g_dbus_message_set_message_type(answer, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
            g_dbus_message_set_destination(answer, OwnName().c_str());
            g_dbus_message_set_reply_serial(answer, serial);
            g_dbus_message_set_body(answer, BusActor::Body(BytesOf("forged")));
            g_dbus_connection_send_message(forger.Connection(), answer,
                                           G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
            g_object_unref(answer);
        }
        forger.Settle();
        return BytesOf("true");
    });
    MakeReady(partner);
    std::atomic<bool> is_told{false};
    Response response;
    m_endpoint->Request(PartnerOf(partner), {}, TEST_DEADLINE, [&](Response came) {
        response = std::move(came);
        is_told = true;
        WakeTest();
    });
    IterateUntil([&] { return is_told.load(); }, "the answer");
    EXPECT_EQ("true", TextOf(response.data)) << response.error;
}

TEST_F(ARequest, FindsTheEndpointStopped)
{
    StartWithPartner();
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(Status::stopped, m_endpoint->Request(ThePartner(), {}, LONG).status);
    std::thread::id caller;
    Status status = Status::ok;
    m_endpoint->Request(ThePartner(), {}, LONG, [&](const Response& response) {
        status = response.status;
        caller = std::this_thread::get_id();
    });
    EXPECT_EQ(Status::stopped, status) << "before the call returned";
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(Status::stopped, Notify({}));
    EXPECT_EQ(0U, m_endpoint->NotifyAll({}).sent);
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

TEST_F(ARequest, ThatWaitsReturnsWhenTheEndpointIsStopped)
{
    ServeSilently();
    StartWithPartner();
    auto blocking = std::async(std::launch::async,
                               [this] { return m_endpoint->Request(ThePartner(), {}, LONG); });
    std::atomic<int> calls{0};
    Status status = Status::ok;
    m_endpoint->Request(ThePartner(), {}, LONG, [&](const Response& response) {
        status = response.status;
        ++calls;
    });
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(1, calls);
    EXPECT_EQ(Status::stopped, status);
    EXPECT_EQ(Status::stopped, blocking.get().status);
}

TEST_F(ARequest, WhoseCallbackThrowsDoesNoHarm)
{
    m_partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    StartWithPartner();
    m_endpoint->Request(ThePartner(), {}, LONG,
                        [](const Response&) { throw std::runtime_error("thrown by done"); });
    EXPECT_EQ(Status::ok, Request(BytesOf("next")).status);
    EXPECT_EQ(1U, ErrorsWith("thrown by done"));
}

// ---- Waiting for a partner -----------------------------------------------------------------

class AWaitForAPartner : public TrafficTest {};

TEST_F(AWaitForAPartner, ReturnsTheOneThatIsReadyAtOnce)
{
    StartWithPartner();
    EXPECT_EQ(ThePartner(), m_endpoint->WaitForPartner(In(LONG)));
    EXPECT_EQ(ThePartner(), m_endpoint->WaitForPartner(In(milliseconds(-1))));
}

TEST_F(AWaitForAPartner, EndsInEveryThreadThatWaits)
{
    Start();
    std::vector<std::future<std::optional<Partner>>> waits;
    for (int i = 0; i < 4; ++i)
        waits.push_back(
            std::async(std::launch::async, [&] { return m_endpoint->WaitForPartner(In(LONG)); }));
    MakeReady(m_partner);
    for (auto& wait : waits)
        EXPECT_EQ(ThePartner(), wait.get());
}

TEST_F(AWaitForAPartner, ReturnsNothingWhenTheDeadlinePasses)
{
    Start();
    EXPECT_EQ(std::nullopt, m_endpoint->WaitForPartner(In(milliseconds(30))));
    EXPECT_EQ(std::nullopt, m_endpoint->WaitForPartner({}));
}

TEST_F(AWaitForAPartner, ReturnsNothingWhenTheEndpointIsStopped)
{
    Start();
    auto wait =
        std::async(std::launch::async, [&] { return m_endpoint->WaitForPartner(In(LONG)); });
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(std::nullopt, wait.get());
    EXPECT_EQ(std::nullopt, m_endpoint->WaitForPartner(In(LONG)));
}

TEST_F(AWaitForAPartner, MayBeMadeInsideAHandler)
{
    Make(Role::service);
    m_endpoint->OnReady([&](const Partner& partner) {
        EXPECT_EQ(partner, m_endpoint->WaitForPartner(In(LONG)));
        m_news.AddReady(partner);
    });
    m_endpoint->Start();
    MakeReady(m_partner);
}

TEST_F(AWaitForAPartner, IsForTheOneThatBecameReadyFirst)
{
    Start();
    std::vector<std::unique_ptr<BusActor>> partners;
    std::vector<std::string> names;
    for (int i = 0; i < 12; ++i) {
        partners.push_back(std::make_unique<BusActor>(m_bus));
        MakeReady(*partners.back());
        names.push_back(partners.back()->UniqueName());
    }
    EXPECT_EQ(names, NamesOf(m_endpoint->Partners()));
    EXPECT_EQ(PartnerOf(*partners.front()), m_endpoint->WaitForPartner(In(LONG)));
    partners.front()->Leave();
    m_news.Await("lost");
    EXPECT_EQ(PartnerOf(*partners[1]), m_endpoint->WaitForPartner(In(LONG)));
}

// ---- Answers -------------------------------------------------------------------------------

class AMessage : public TrafficTest {
protected:
    // The partner sends; what it gets is its reply, or "error".
    std::shared_ptr<BusActor::Call> Send(const std::string& text)
    {
        return m_partner.Send(OwnName(), CHANNEL, BytesOf(text));
    }
    static void Await(const std::shared_ptr<BusActor::Call>& call)
    {
        IterateUntil([&] { return call->Done(); }, "the answer to a message");
    }
    std::shared_ptr<BusActor::Call> SendAndAwait(const std::string& text)
    {
        auto call = Send(text);
        Await(call);
        return call;
    }
};

TEST_F(AMessage, IsAnsweredWithWhatTheHandlerReturns)
{
    StartWithPartner();
    EXPECT_EQ(BytesOf("cba"), SendAndAwait("abc")->reply);
    EXPECT_EQ(Bytes(), SendAndAwait("")->reply);
    EXPECT_EQ(1U, m_news.Count("message abc"));
}

TEST_F(AMessage, FailsWhenThereIsNoHandler)
{
    Make(Role::service);
    m_endpoint->OnMessage(nullptr);
    m_endpoint->Start();
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("abc")->error);
}

TEST_F(AMessage, ComesAfterThePartnerWasReportedReady)
{
    Start();
    for (int i = 0; i < 20; ++i) {
        BusActor partner(m_bus);
        PulseHandshake(partner);
        const auto call = partner.Send(OwnName(), CHANNEL, BytesOf(std::to_string(i)));
        Await(call);
        const std::vector<std::string> news = m_news.All();
        const auto ready = std::find(news.begin(), news.end(), "ready " + partner.UniqueName());
        const auto message = std::find(news.begin(), news.end(), "message " + std::to_string(i));
        EXPECT_LT(ready - news.begin(), message - news.begin());
    }
}

TEST_F(AMessage, ToAHandlerThatThrowsFailsWithItsText)
{
    Make(Role::client);
    m_endpoint->OnMessage([](Message& message) -> Bytes {
        if (message.data.empty())
            throw 5;
        throw std::runtime_error("the answer is 42");
    });
    m_endpoint->Start();
    // The text reaches another endpoint's Request.
    EndpointProcess service("service", CHANNEL);
    const std::string name = service.WaitForLine("ready ");
    service.WriteLine("send " + name + " 00");
    EXPECT_EQ("the partner answered with an error: the answer is 42",
              service.WaitForLine("error "));
    service.WriteLine("send " + name);
    EXPECT_THAT(service.WaitForLine("error "), HasSubstr("the partner answered with an error"));
}

TEST_F(AMessage, ToAHandlerThatThrowsNoUtf8FailsAllTheSame)
{
    Make(Role::service);
    m_endpoint->OnMessage([](Message&) -> Bytes { throw std::runtime_error("\xff\xfe text"); });
    m_endpoint->Start();
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("abc")->error);
}

TEST_F(AMessage, WhoseReplyIsTooLargeFailsAndTheConnectionLives)
{
    Make(Role::service);
    m_endpoint->OnMessage(
        [](Message& message) { return Bytes(message.data.empty() ? LARGEST + 1 : LARGEST, 'x'); });
    m_endpoint->Start();
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("")->error);
    const auto call = SendAndAwait("fits");
    ASSERT_TRUE(call->reply.has_value()) << call->error;
    EXPECT_EQ(LARGEST, call->reply->size());
    EXPECT_THAT(m_news.All(), IsEmpty());
}

TEST_F(AMessage, OfAnotherMethodIsRefusedByTheObject)
{
    StartWithPartner();
    const auto call = m_partner.CallMethod(OwnName(), names::Path(CHANNEL), "Other", nullptr);
    Await(call);
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", call->error);
}

class ADeferredMessage : public AMessage {
protected:
    ADeferredMessage()
    {
        Make(Role::service);
        m_endpoint->OnMessage([this](Message&) {
            m_news.Add("the wrong handler");
            return Bytes();
        });
        m_endpoint->OnDeferredMessage([this](Message& message, Reply reply) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_replies.push_back(std::move(reply));
            m_news.Add("deferred " + TextOf(message.data));
        });
        m_endpoint->Start();
    }

    Reply TakeReply()
    {
        m_news.Await("deferred");
        const std::lock_guard<std::mutex> lock(m_mutex);
        Reply reply = m_replies.front();
        m_replies.erase(m_replies.begin());
        return reply;
    }

    std::mutex m_mutex;
    std::vector<Reply> m_replies;
};

TEST_F(ADeferredMessage, IsAnsweredFromAnotherThread)
{
    const auto call = Send("abc");
    std::thread([reply = TakeReply()] { reply.Send(BytesOf("later")); }).join();
    Await(call);
    EXPECT_EQ(BytesOf("later"), call->reply);
    EXPECT_EQ(0U, m_news.Count("the wrong handler"));
}

TEST_F(ADeferredMessage, MayBeAnsweredAfterALaterOne)
{
    const auto first = Send("1");
    const auto second = Send("2");
    m_news.Await("deferred", 2);
    const Reply reply_to_first = TakeReply();
    TakeReply().Send(BytesOf("to 2"));
    Await(second);
    EXPECT_FALSE(first->Done());
    reply_to_first.Send(BytesOf("to 1"));
    Await(first);
    EXPECT_EQ(BytesOf("to 1"), first->reply);
    EXPECT_EQ(BytesOf("to 2"), second->reply);
}

TEST_F(ADeferredMessage, IsAnsweredByTheFirstAnswerOfAnyCopy)
{
    const auto call = Send("abc");
    const Reply reply = TakeReply();
    const Reply copy = reply;
    copy.Send(BytesOf("first"));
    reply.Send(BytesOf("second"));
    reply.Fail("third");
    Await(call);
    EXPECT_EQ(BytesOf("first"), call->reply);
}

TEST_F(ADeferredMessage, IsAnsweredOnceWhenManyThreadsAnswer)
{
    for (int round = 0; round < 50; ++round) {
        const auto call = Send("abc");
        const Reply reply = TakeReply();
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([reply] { reply.Send(BytesOf("answer")); });
        for (std::thread& thread : threads)
            thread.join();
        Await(call);
        ASSERT_EQ(BytesOf("answer"), call->reply);
        m_news.Clear();
    }
}

TEST_F(ADeferredMessage, FailsWithTheTextGiven)
{
    const auto call = Send("abc");
    TakeReply().Fail("no luck");
    Await(call);
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", call->error);
}

TEST_F(ADeferredMessage, FailsWhenTheLastCopyGoesUnanswered)
{
    const auto call = Send("abc");
    auto reply = std::make_unique<Reply>(TakeReply());
    auto copy = std::make_unique<Reply>(*reply);
    reply.reset();
    m_partner.Settle();
    DispatchPending();
    EXPECT_FALSE(call->Done());
    copy.reset();
    Await(call);
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", call->error);
}

TEST_F(ADeferredMessage, WhoseAnswerIsTooLargeFails)
{
    const auto call = Send("abc");
    TakeReply().Send(Bytes(LARGEST + 1));
    Await(call);
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", call->error);
}

TEST_F(ADeferredMessage, FailsWhenTheEndpointStopsBeforeItIsAnswered)
{
    const auto call = Send("abc");
    const Reply reply = TakeReply();
    m_endpoint.reset();
    reply.Send(BytesOf("into the void"));
    Await(call);
    EXPECT_NE("", call->error);
}

TEST_F(ADeferredMessage, MayBeAnsweredWhenTheBusIsGone)
{
    const auto call = Send("abc");
    const Reply reply = TakeReply();
    m_bus.Kill();
    m_news.Await("bus_lost");
    reply.Send(BytesOf("into the void"));
    m_bus.Start();
    m_news.Await("bus_back");
}

TEST_F(AMessage, WhoseDeferringHandlerThrowsFails)
{
    Make(Role::service);
    m_endpoint->OnDeferredMessage(
        [](Message&, const Reply&) { throw std::runtime_error("thrown by OnDeferredMessage"); });
    m_endpoint->Start();
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("abc")->error);
    EXPECT_EQ(1U, ErrorsWith("thrown by OnDeferredMessage"));
}

// ---- Handlers ------------------------------------------------------------------------------

class AHandler : public TrafficTest {};

TEST_F(AHandler, MayThrowAndTheEndpointGoesOn)
{
    Make(Role::service);
    const auto fail = [this](const std::string& name) {
        m_news.Add(name);
        throw std::runtime_error("thrown by " + name);
    };
    m_endpoint->OnReady([&](const Partner&) { fail("OnReady"); });
    m_endpoint->OnLost([&](const Partner&) { fail("OnLost"); });
    m_endpoint->OnNotification([&](Message&) { fail("OnNotification"); });
    m_endpoint->OnBusLost([&] { fail("OnBusLost"); });
    m_endpoint->OnBusBack([&] { fail("OnBusBack"); });
    m_endpoint->OnProblem([&](PelmarEndpoint::Problem, const std::string&) {
        m_news.Add("OnProblem");
        throw 5;
    });
    m_endpoint->Start();
    PulseHandshake(m_partner);
    m_news.Await("OnReady");
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_news.Await("OnNotification");
    m_partner.Leave();
    m_news.Await("OnLost");
    m_bus.Kill();
    m_news.Await("OnBusLost");
    m_news.Await("OnProblem");
    m_bus.Start();
    m_news.Await("OnBusBack");
    m_endpoint.reset();
    for (const std::string name : {"OnReady", "OnLost", "OnNotification", "OnBusLost", "OnBusBack"})
        EXPECT_EQ(1U, ErrorsWith("The handler " + name + " threw: thrown by " + name)) << name;
    EXPECT_EQ(1U, ErrorsWith("The handler OnProblem threw"));
}

TEST_F(AHandler, RunsInTheEndpointsThreadOneAtATime)
{
    Make(Role::service);
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::mutex mutex;
    std::set<std::thread::id> threads;
    const auto handle = [&] {
        if (++running != 1)
            overlapped = true;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            threads.insert(std::this_thread::get_id());
        }
        std::this_thread::yield();
        --running;
    };
    m_endpoint->OnMessage([&](Message&) {
        handle();
        return Bytes();
    });
    m_endpoint->OnNotification([&](Message&) {
        handle();
        m_news.Add("notification");
    });
    m_endpoint->OnReady([&](const Partner& partner) {
        handle();
        m_news.AddReady(partner);
    });
    m_endpoint->Start();
    MakeReady(m_partner);
    std::vector<std::shared_ptr<BusActor::Call>> calls;
    for (int i = 0; i < 100; ++i) {
        calls.push_back(m_partner.Send(OwnName(), CHANNEL, {}));
        m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    }
    m_news.Await("notification", 100);
    IterateUntil([&] { return calls.back()->Done(); }, "the last answer");
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(1U, threads.size());
    EXPECT_EQ(0U, threads.count(std::this_thread::get_id()));
}

TEST_F(AHandler, MayCallEveryFunctionOfTheEndpoint)
{
    Make(Role::service);
    m_endpoint->OnReady([this](const Partner& partner) {
        m_news.Add(PelmarEndpoint::ToString(m_endpoint->Notify(partner, BytesOf("hello"))));
        m_news.Add(std::to_string(m_endpoint->NotifyAll(BytesOf("all")).sent));
        m_news.Add(m_endpoint->Partners().front().Name());
        m_news.Add(m_endpoint->IsOnBus() ? "on the bus" : "not on the bus");
        m_news.Add(m_endpoint->Stop() ? "stopped" : "not stopped");
        m_news.Add("over");
    });
    m_endpoint->Start();
    m_partner.Listen(CHANNEL);
    PulseHandshake(m_partner);
    m_news.Await("over");
    EXPECT_THAT(m_news.All(), ElementsAre("ok", "1", m_partner.UniqueName(), "on the bus",
                                          "not stopped", "over"));
    IterateUntil([&] { return m_partner.Heard().size() == 2; }, "both notifications");
}

TEST(AStatus, HasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const Status status :
         {Status::ok, Status::no_such_partner, Status::not_ready, Status::too_large,
          Status::queue_full, Status::busy, Status::bus_gone, Status::stopped, Status::cancelled,
          Status::timeout, Status::refused, Status::partner_lost, Status::remote_error})
        texts.insert(PelmarEndpoint::ToString(status));
    EXPECT_EQ(13U, texts.size());
    EXPECT_EQ(0U, texts.count(PelmarEndpoint::ToString(static_cast<Status>(99))));
}

}  // namespace
