// What the endpoint sends and receives: every outcome of Notify and Request, from any thread and
// from inside the handlers, and the answers to messages.

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
using Response = PelmarEndpoint::Response;

constexpr std::size_t LARGEST = PelmarEndpoint::MAX_MESSAGE_BYTES;
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

    void StartWithPartner(PelmarEndpoint::Options options = {})
    {
        Start(Role::service, m_news.Handlers(), options);
        MakeReady(m_partner);
    }

    // The partner answers in the test's main context, so the request waits in another thread.
    Response Request(const Bytes& data, milliseconds timeout = LONG)
    {
        Arrival<Response> response;
        m_endpoint->Request(data, m_partner.UniqueName(), timeout,
                            [&](Response came) { response.Set(std::move(came)); });
        return response.Await("a response");
    }
    Response BlockingRequest(const Bytes& data, milliseconds timeout = LONG)
    {
        Arrival<Response> response;
        std::thread caller(
            [&] { response.Set(m_endpoint->Request(data, m_partner.UniqueName(), timeout)); });
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
    EXPECT_EQ(Status::ok, m_endpoint->Notify(BytesOf("one"), m_partner.UniqueName()));
    EXPECT_EQ(Status::ok, m_endpoint->Notify(BytesOf("all")));
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
    EXPECT_EQ(Status::ok, m_endpoint->Notify(all));
    EXPECT_EQ(Status::ok, m_endpoint->Notify({}));
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
        ASSERT_EQ(Status::ok, m_endpoint->Notify(sent.back()));
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
                EXPECT_EQ(Status::ok,
                          m_endpoint->Notify({static_cast<char>('a' + i), static_cast<char>(j)}));
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
    EXPECT_EQ(Status::ok, m_endpoint->Notify(large));
    IterateUntil([&] { return !m_partner.Heard().empty(); }, "a notification of the largest size");
    EXPECT_TRUE(large == m_partner.Heard().front());
}

TEST_F(ANotification, ThatIsTooLargeIsNotSentAndTheConnectionLives)
{
    StartWithPartner();
    m_partner.Listen(CHANNEL);
    EXPECT_EQ(Status::too_large, m_endpoint->Notify(Bytes(LARGEST + 1)));
    EXPECT_EQ(Status::too_large, m_endpoint->Notify(Bytes(LARGEST + 1), m_partner.UniqueName()));
    EXPECT_EQ(Status::ok, m_endpoint->Notify(BytesOf("next")));
    IterateUntil([&] { return !m_partner.Heard().empty(); }, "the next notification");
    EXPECT_THAT(m_partner.Heard(), ElementsAre(BytesOf("next")));
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName()));
}

TEST_F(ANotification, HasNoSuchPartnerWhenNobodyIsThere)
{
    Start();
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}, ":1.999"));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}, ""));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}, "no bus name"));
}

TEST_F(ANotification, HasNoSuchPartnerWhenThePartnerHasGone)
{
    StartWithPartner();
    m_partner.Leave();
    m_news.Await("lost");
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}, m_partner.UniqueName()));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({}));
}

TEST_F(ANotification, IsNotReadyWhileTheHandshakeIsUnderWay)
{
    BusActor squatter(m_bus);
    Start();
    squatter.Acquire(Own(names::SYN_ACK));
    m_partner.Pulse(Peers(names::SYN));
    Settle(m_partner);
    EXPECT_EQ(Status::not_ready, m_endpoint->Notify({}, m_partner.UniqueName()));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify({})) << "nobody is ready";
    EXPECT_EQ(Status::not_ready,
              m_endpoint->Request({}, m_partner.UniqueName(), milliseconds(100)).status);
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

class ANotificationOnASmallQueue : public TrafficTest {
protected:
    using TrafficTest::TrafficTest;

    static PelmarEndpoint::Options SmallQueue()
    {
        PelmarEndpoint::Options options;
        options.queue_bytes = 1024UL * 1024;
        return options;
    }

    // Sends until the queue is full; returns how many bytes it took.
    std::size_t FillQueue()
    {
        const Bytes data(10000, 'x');
        std::size_t bytes = 0;
        Status status = Status::ok;
        while (status == Status::ok && bytes < 64UL * 1024 * 1024) {
            status = m_endpoint->Notify(data);
            bytes += status == Status::ok ? data.size() : 0;
        }
        EXPECT_EQ(Status::queue_full, status);
        return bytes;
    }

    // Until there is room for `data`.
    void ExpectQueueToDrain(const Bytes& data = BytesOf("again"))
    {
        const auto drained = [&] {
            // The queue drains by itself; a round trip to the daemon paces the question.
            m_partner.Settle();
            WakeTest();
            return m_endpoint->Notify(data) == Status::ok;
        };
        IterateUntil(drained, "room in the queue");
    }

    // Only an empty queue takes what is larger than itself.
    void ExpectQueueToBecomeEmpty() { ExpectQueueToDrain(Bytes(SmallQueue().queue_bytes * 2)); }

    // Two of these fit into the queue, with what is counted beside their bytes.
    static Bytes HalfTheQueue() { return Bytes(SmallQueue().queue_bytes / 2 - 1000); }

    // The endpoint asks a stopped daemon whether it has taken what was sent.
    void SendHalfTheQueueAndAwaitTheQuestion()
    {
        EXPECT_EQ(Status::ok, m_endpoint->Notify(HalfTheQueue()));
        // Requests go out in their turn, so the question is out when this has timed out.
        EXPECT_EQ(Status::timeout, Request({}, milliseconds(1)).status);
    }
};

TEST_F(ANotificationOnASmallQueue, FindsItFullWhileTheDaemonIsStopped)
{
    StartWithPartner(SmallQueue());
    m_bus.Daemon().Signal(SIGSTOP);
    const std::size_t taken = FillQueue();
    m_bus.Daemon().Signal(SIGCONT);
    EXPECT_LE(taken, SmallQueue().queue_bytes);
    EXPECT_GT(taken, SmallQueue().queue_bytes / 2);
    ExpectQueueToDrain();
}

TEST_F(ANotificationOnASmallQueue, IsTakenWhenItIsLargerThanTheEmptyQueueAndFollowedByNone)
{
    StartWithPartner(SmallQueue());
    m_bus.Daemon().Signal(SIGSTOP);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(Bytes(2 * SmallQueue().queue_bytes)));
    EXPECT_EQ(Status::queue_full, m_endpoint->Notify({}));
    m_bus.Daemon().Signal(SIGCONT);
    ExpectQueueToDrain();
}

TEST_F(ANotificationOnASmallQueue, IsCountedUntilTheDaemonHasTakenItAndNotOnlyWhatWasSentBefore)
{
    StartWithPartner(SmallQueue());
    m_bus.Daemon().Signal(SIGSTOP);
    SendHalfTheQueueAndAwaitTheQuestion();
    EXPECT_EQ(Status::ok, m_endpoint->Notify(HalfTheQueue()));
    EXPECT_EQ(Status::queue_full, m_endpoint->Notify(HalfTheQueue()));
    m_bus.Daemon().Signal(SIGCONT);
    ExpectQueueToBecomeEmpty();
}

TEST_F(ANotificationOnASmallQueue, IsAskedForALittleLaterWhenItIsShortAndWasSentAfterTheQuestion)
{
    StartWithPartner(SmallQueue());
    m_bus.Daemon().Signal(SIGSTOP);
    SendHalfTheQueueAndAwaitTheQuestion();
    EXPECT_EQ(Status::ok, m_endpoint->Notify({}));
    m_bus.Daemon().Signal(SIGCONT);
    ExpectQueueToBecomeEmpty();
}

TEST_F(ANotificationOnASmallQueue, FindsRoomAfterTheDaemonWasSilentForLongerThanTheEndpointWaits)
{
    StartWithPartner(SmallQueue());
    m_bus.Daemon().Signal(SIGSTOP);
    FillQueue();
    EXPECT_EQ(Status::timeout, Request({}, milliseconds(1500)).status);
    m_bus.Daemon().Signal(SIGCONT);
    ExpectQueueToDrain();
}

TEST_F(ANotificationOnASmallQueue, FindsTheBusGoneAlsoBeforeTheEndpointHasNoticedIt)
{
    std::promise<void> release;
    PelmarEndpoint::Handlers handlers = m_news.Handlers();
    handlers.notification = [&](Bytes&) {
        m_news.Add("held");
        release.get_future().wait();
    };
    Start(Role::service, handlers, SmallQueue());
    MakeReady(m_partner);
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_news.Await("held");
    EXPECT_EQ(Status::ok, m_endpoint->Notify(Bytes(SmallQueue().queue_bytes / 2)));
    m_bus.Kill();
    const auto is_closed = [] {
        WakeTest();
        GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        const bool closed = g_dbus_connection_is_closed(connection) != FALSE;
        g_object_unref(connection);
        return closed;
    };
    IterateUntil(is_closed, "the connection to close");
    EXPECT_EQ(Status::bus_gone, m_endpoint->Notify({}));
    EXPECT_EQ(0U, m_news.Count("bus_lost"));
    release.set_value();
    m_news.Await("bus_lost");
    m_bus.Start();
    m_news.Await("bus_back");
}

TEST_F(ANotificationOnASmallQueue, CountsOnceForEveryPartner)
{
    StartWithPartner(SmallQueue());
    BusActor other(m_bus);
    MakeReady(other);
    m_bus.Daemon().Signal(SIGSTOP);
    const std::size_t taken = FillQueue();
    m_bus.Daemon().Signal(SIGCONT);
    EXPECT_LE(2 * taken, SmallQueue().queue_bytes);
    ExpectQueueToDrain();
}

TEST_F(ANotificationOnASmallQueue, NeverFillsItWhileThePartnerReads)
{
    StartWithPartner(SmallQueue());
    m_partner.Listen(CHANNEL);
    const Bytes data(10000, 'x');
    for (int i = 0; i < 500; ++i) {
        while (m_endpoint->Notify(data) == Status::queue_full)
            m_partner.Settle();
    }
    IterateUntil([&] { return m_partner.Heard().size() == 500; }, "all notifications");
}

// The daemon stops to read from a sender when too much of what it sent is unread. It may keep the
// last of it in its hands then until the sender sends more.
class ANotificationToAStoppedPartner : public ANotificationOnASmallQueue {
protected:
    ANotificationToAStoppedPartner()
        : ANotificationOnASmallQueue("<limit name=\"max_incoming_bytes\">1000000</limit>")
    {
        Start(Role::service, m_news.Handlers(), SmallQueue());
    }
};

TEST_F(ANotificationToAStoppedPartner, FindsTheQueueFullUntilThePartnerGoesOn)
{
    EndpointProcess partner("client", CHANNEL);
    partner.WaitForLine("ready ");
    m_news.Await("ready");
    partner.Signal(SIGSTOP);
    // What the daemon has room for it takes, so the queue has to be filled again and again.
    const Bytes data(10000, 'x');
    std::size_t bytes = 0;
    for (int refused_in_a_row = 0; refused_in_a_row < 50; ++refused_in_a_row) {
        while (m_endpoint->Notify(data) == Status::ok) {
            bytes += data.size();
            refused_in_a_row = 0;
            ASSERT_LT(bytes, 16UL * 1024 * 1024);
        }
        m_partner.Settle();
    }
    partner.Signal(SIGCONT);
    ExpectQueueToDrain();
    partner.WaitForLine("notification 616761696e");
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
    const Response response = m_endpoint->Request({}, m_partner.UniqueName(), milliseconds(150));
    EXPECT_EQ(Status::timeout, response.status);
    EXPECT_NE("", response.error);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));

    std::promise<Response> promise;
    m_endpoint->Request({}, m_partner.UniqueName(), milliseconds(150),
                        [&](Response came) { promise.set_value(std::move(came)); });
    EXPECT_EQ(Status::timeout, promise.get_future().get().status);
}

TEST_F(ARequest, TimesOutAtOnceWithNoTimeAtAll)
{
    ServeSilently();
    StartWithPartner();
    for (const milliseconds timeout : {milliseconds(0), milliseconds(-5), milliseconds::min()})
        EXPECT_EQ(Status::timeout, m_endpoint->Request({}, m_partner.UniqueName(), timeout).status);
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
    const Response response = m_endpoint->Request({}, m_partner.UniqueName(), milliseconds(150));
    m_bus.Daemon().Signal(SIGCONT);
    EXPECT_EQ(Status::timeout, response.status);
}

TEST_F(ARequest, LosesThePartnerThatGoesBeforeItAnswers)
{
    ServeSilently();
    StartWithPartner();
    auto waiting = std::async(std::launch::async, [this] {
        return m_endpoint->Request({}, m_partner.UniqueName(), LONG);
    });
    // The call has reached the partner's process when its answer is what is missing.
    std::promise<Response> promise;
    m_endpoint->Request({}, m_partner.UniqueName(), LONG,
                        [&](Response came) { promise.set_value(std::move(came)); });
    Settle(m_partner);
    m_partner.Leave();
    EXPECT_EQ(Status::partner_lost, promise.get_future().get().status);
    const Status status = waiting.get().status;
    EXPECT_TRUE(status == Status::partner_lost || status == Status::no_such_partner);
}

TEST_F(ARequest, LosesThePartnerWhoseProcessIsKilledWhileItAnswers)
{
    Start();
    EndpointProcess partner("client", CHANNEL);
    m_news.Await("ready");
    const std::string name = m_endpoint->Partners().front();
    partner.Signal(SIGSTOP);
    auto waiting =
        std::async(std::launch::async, [&] { return m_endpoint->Request({}, name, LONG); });
    Settle(m_partner);
    partner.Kill();
    const Status status = waiting.get().status;
    EXPECT_TRUE(status == Status::partner_lost || status == Status::no_such_partner)
        << PelmarEndpoint::ToString(status);
    m_news.Await("lost " + name);
}

TEST_F(ARequest, TimesOutWhileThePartnerIsStoppedAndIsAnsweredWhenItGoesOn)
{
    Start();
    EndpointProcess partner("client", CHANNEL);
    m_news.Await("ready");
    const std::string name = m_endpoint->Partners().front();
    partner.Signal(SIGSTOP);
    EXPECT_EQ(Status::timeout, m_endpoint->Request({}, name, milliseconds(150)).status);
    partner.Signal(SIGCONT);
    const Response response = m_endpoint->Request(BytesOf("ab"), name, LONG);
    EXPECT_EQ(Status::ok, response.status) << response.error;
    EXPECT_EQ(BytesOf("ba"), response.data);
    EXPECT_EQ(0U, m_news.Count("lost"));
}

TEST_F(ARequest, BringsThePartnersErrorWithItsText)
{
    // It has no object: GIO answers for it.
    StartWithPartner();
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
                right += m_endpoint->Request(data, m_partner.UniqueName(), LONG).data == data;
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
    PelmarEndpoint::Handlers handlers = m_news.Handlers();
    handlers.notification = [this](Bytes& data) {
        const Response response = m_endpoint->Request(data, m_partner.UniqueName(), LONG);
        m_news.Add("response " + std::string(response.data.begin(), response.data.end()));
        m_endpoint->Request(data, m_partner.UniqueName(), LONG, [this](const Response& later) {
            m_news.Add("later " + std::string(later.data.begin(), later.data.end()));
        });
        m_news.Add("handler over");
    };
    Start(Role::service, handlers);
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
    EXPECT_EQ(Status::bus_gone, m_endpoint->Notify({}));
    EXPECT_EQ(Status::bus_gone, m_endpoint->Notify({}, m_partner.UniqueName()));
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

TEST_F(ARequest, EndsWhenTheBusDiesUnderIt)
{
    ServeSilently();
    StartWithPartner();
    auto blocking = std::async(std::launch::async, [this] {
        return m_endpoint->Request({}, m_partner.UniqueName(), LONG);
    });
    std::promise<Response> promise;
    m_endpoint->Request({}, m_partner.UniqueName(), LONG,
                        [&](Response came) { promise.set_value(std::move(came)); });
    Settle(m_partner);
    m_bus.Kill();
    EXPECT_EQ(Status::bus_gone, blocking.get().status);
    EXPECT_EQ(Status::bus_gone, promise.get_future().get().status);
}

TEST_F(ARequest, FindsTheEndpointStopped)
{
    StartWithPartner();
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(Status::stopped, m_endpoint->Request({}, m_partner.UniqueName(), LONG).status);
    std::thread::id caller;
    Status status = Status::ok;
    m_endpoint->Request({}, m_partner.UniqueName(), LONG, [&](const Response& response) {
        status = response.status;
        caller = std::this_thread::get_id();
    });
    EXPECT_EQ(Status::stopped, status) << "before the call returned";
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(Status::stopped, m_endpoint->Notify({}));
    EXPECT_EQ(Status::stopped, m_endpoint->Notify({}, m_partner.UniqueName()));
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

TEST_F(ARequest, ThatWaitsReturnsWhenTheEndpointIsStopped)
{
    ServeSilently();
    StartWithPartner();
    auto blocking = std::async(std::launch::async, [this] {
        return m_endpoint->Request({}, m_partner.UniqueName(), LONG);
    });
    std::atomic<int> calls{0};
    Status status = Status::ok;
    m_endpoint->Request({}, m_partner.UniqueName(), LONG, [&](const Response& response) {
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
    m_endpoint->Request({}, m_partner.UniqueName(), LONG,
                        [](const Response&) { throw std::runtime_error("thrown by done"); });
    EXPECT_EQ(Status::ok, Request(BytesOf("next")).status);
    EXPECT_EQ(1U, ErrorsWith("thrown by done"));
}

// ---- Waiting for a partner -----------------------------------------------------------------

class AWaitForAPartner : public TrafficTest {
protected:
    static std::chrono::steady_clock::time_point In(milliseconds time)
    {
        return std::chrono::steady_clock::now() + time;
    }
};

TEST_F(AWaitForAPartner, ReturnsTheOneThatIsReadyAtOnce)
{
    StartWithPartner();
    EXPECT_EQ(m_partner.UniqueName(), m_endpoint->WaitForPartner(In(LONG)));
    EXPECT_EQ(m_partner.UniqueName(), m_endpoint->WaitForPartner(In(milliseconds(-1))));
}

TEST_F(AWaitForAPartner, EndsInEveryThreadThatWaits)
{
    Start();
    std::vector<std::future<std::optional<std::string>>> waits;
    for (int i = 0; i < 4; ++i)
        waits.push_back(
            std::async(std::launch::async, [&] { return m_endpoint->WaitForPartner(In(LONG)); }));
    PulseHandshake(m_partner);
    for (auto& wait : waits)
        EXPECT_EQ(m_partner.UniqueName(), wait.get());
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

TEST_F(AWaitForAPartner, DoesNotWaitInsideAHandler)
{
    PelmarEndpoint::Handlers handlers = m_news.Handlers();
    const auto note = [this] { m_news.Add(m_endpoint->WaitForPartner(In(LONG)).value_or("none")); };
    handlers.ready = [&](const std::string&) { note(); };
    handlers.lost = [&](const std::string&) { note(); };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await(m_partner.UniqueName());
    m_partner.Leave();
    m_news.Await("none");
}

TEST_F(AWaitForAPartner, IsForTheFirstOfThePartnersInTheByteOrderOfTheirNames)
{
    Start();
    std::vector<std::unique_ptr<BusActor>> partners;
    std::set<std::string> sorted;
    for (int i = 0; i < 12; ++i) {
        partners.push_back(std::make_unique<BusActor>(m_bus));
        MakeReady(*partners.back());
        sorted.insert(partners.back()->UniqueName());
    }
    EXPECT_EQ(std::vector<std::string>(sorted.begin(), sorted.end()), m_endpoint->Partners());
    EXPECT_EQ(*sorted.begin(), m_endpoint->WaitForPartner(In(LONG)));
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
    Start(Role::service, {});
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
    PelmarEndpoint::Handlers handlers;
    handlers.message = [](Bytes& data) -> Bytes {
        if (data.empty())
            throw 5;
        throw std::runtime_error("the answer is 42");
    };
    Start(Role::client, handlers);
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
    PelmarEndpoint::Handlers handlers;
    handlers.message = [](Bytes&) -> Bytes { throw std::runtime_error("\xff\xfe text"); };
    Start(Role::service, handlers);
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("abc")->error);
}

TEST_F(AMessage, WhoseReplyIsTooLargeFailsAndTheConnectionLives)
{
    PelmarEndpoint::Handlers handlers = m_news.Handlers();
    handlers.message = [](Bytes& data) { return Bytes(data.empty() ? LARGEST + 1 : LARGEST, 'x'); };
    Start(Role::service, handlers);
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
        PelmarEndpoint::Handlers handlers = m_news.Handlers();
        handlers.message = [this](Bytes&) {
            m_news.Add("the wrong handler");
            return Bytes();
        };
        handlers.deferred_message = [this](Bytes& data, Reply reply) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_replies.push_back(std::move(reply));
            m_news.Add("deferred " + std::string(data.begin(), data.end()));
        };
        Start(Role::service, handlers);
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
    PelmarEndpoint::Handlers handlers;
    handlers.deferred_message = [](Bytes&, const Reply&) {
        throw std::runtime_error("thrown by deferred_message");
    };
    Start(Role::service, handlers);
    EXPECT_EQ("org.vaska.pelmar.Error.Failed", SendAndAwait("abc")->error);
    EXPECT_EQ(1U, ErrorsWith("thrown by deferred_message"));
}

// ---- Handlers ------------------------------------------------------------------------------

class AHandler : public TrafficTest {};

TEST_F(AHandler, MayThrowAndTheEndpointGoesOn)
{
    PelmarEndpoint::Handlers handlers;
    const auto fail = [this](const std::string& name) {
        m_news.Add(name);
        throw std::runtime_error("thrown by " + name);
    };
    handlers.ready = [&](const std::string&) { fail("ready"); };
    handlers.lost = [&](const std::string&) { fail("lost"); };
    handlers.notification = [&](Bytes&) { fail("notification"); };
    handlers.bus_lost = [&] { fail("bus_lost"); };
    handlers.bus_back = [&] { fail("bus_back"); };
    handlers.problem = [&](const std::string&) {
        m_news.Add("problem");
        throw 5;
    };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await("ready");
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_news.Await("notification");
    m_partner.Leave();
    m_news.Await("lost");
    m_bus.Kill();
    m_news.Await("bus_lost");
    m_news.Await("problem");
    m_bus.Start();
    m_news.Await("bus_back");
    m_endpoint.reset();
    for (const char* name : {"ready", "lost", "notification", "bus_lost", "bus_back"})
        EXPECT_EQ(1U, ErrorsWith(std::string("The handler ") + name + " threw: thrown by")) << name;
    EXPECT_EQ(1U, ErrorsWith("The handler problem threw"));
}

TEST_F(AHandler, RunsInTheEndpointsThreadOneAtATime)
{
    PelmarEndpoint::Handlers handlers;
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
    handlers.message = [&](Bytes&) {
        handle();
        return Bytes();
    };
    handlers.notification = [&](Bytes&) {
        handle();
        m_news.Add("notification");
    };
    handlers.ready = [&](const std::string&) {
        handle();
        m_news.Add("ready");
    };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await("ready");
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
    PelmarEndpoint::Handlers handlers;
    handlers.ready = [this](const std::string& partner) {
        m_news.Add(PelmarEndpoint::ToString(m_endpoint->Notify(BytesOf("hello"), partner)));
        m_news.Add(PelmarEndpoint::ToString(m_endpoint->Notify(BytesOf("all"))));
        m_news.Add(m_endpoint->Partners().front());
        m_news.Add(m_endpoint->Stop() ? "stopped" : "not stopped");
        m_news.Add("over");
    };
    Start(Role::service, handlers);
    m_partner.Listen(CHANNEL);
    PulseHandshake(m_partner);
    m_news.Await("over");
    EXPECT_THAT(m_news.All(),
                ElementsAre("ok", "ok", m_partner.UniqueName(), "not stopped", "over"));
    IterateUntil([&] { return m_partner.Heard().size() == 2; }, "both notifications");
}

TEST(AStatus, HasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const Status status :
         {Status::ok, Status::no_such_partner, Status::not_ready, Status::too_large,
          Status::queue_full, Status::bus_gone, Status::stopped, Status::timeout, Status::refused,
          Status::partner_lost, Status::remote_error})
        texts.insert(PelmarEndpoint::ToString(status));
    EXPECT_EQ(11U, texts.size());
    EXPECT_EQ(0U, texts.count(PelmarEndpoint::ToString(static_cast<Status>(99))));
}

}  // namespace
