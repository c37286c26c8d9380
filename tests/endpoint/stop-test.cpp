// The end of an endpoint: what it leaves on the bus and in the process, under traffic, from every
// thread.

#include <unistd.h>

#include <future>

#include "captured-log.h"
#include "endpoint-fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StopTest : public EndpointTest {
protected:
    bool IsOnTheBus(const std::string& name) const
    {
        GVariant* reply = g_dbus_connection_call_sync(
            m_partner.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name.c_str()),
            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        gboolean has_owner = FALSE;
        g_variant_get(reply, "(b)", &has_owner);
        g_variant_unref(reply);
        WakeTest();
        return has_owner != FALSE;
    }

    BusActor m_partner{m_bus};
};

class AStoppedEndpoint : public StopTest, public testing::WithParamInterface<Role> {};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AStoppedEndpoint, BOTH_ROLES, RoleSuffix);

TEST_P(AStoppedEndpoint, HasLeftTheBus)
{
    Start(GetParam());
    MakeReady(m_partner);
    const std::string name = OwnName();
    EXPECT_TRUE(IsOnTheBus(name));
    EXPECT_TRUE(m_endpoint->IsOnBus());
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_FALSE(m_endpoint->IsOnBus());
    EXPECT_EQ("", m_endpoint->Name());
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    IterateUntil([&] { return !IsOnTheBus(name); }, "the end of the connection");
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName()))
        << "a stop is no loss";
}

TEST_P(AStoppedEndpoint, MakesRoomForAnotherInTheSameProcess)
{
    for (int i = 0; i < 5; ++i) {
        Start(GetParam());
        BusActor partner(m_bus);
        MakeReady(partner);
        const auto call = partner.Send(OwnName(), CHANNEL, BytesOf("ab"));
        IterateUntil([&] { return call->Done(); }, "the answer to a message");
        EXPECT_EQ(BytesOf("ba"), call->reply);
        m_endpoint.reset();
        m_news.Clear();
    }
}

TEST_P(AStoppedEndpoint, HearsNothingMore)
{
    Start(GetParam());
    MakeReady(m_partner);
    const std::string name = OwnName();
    EXPECT_TRUE(m_endpoint->Stop());
    m_news.Clear();
    for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK})
        m_partner.Pulse(Peers(stage));
    m_partner.Emit(name, names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_partner.Settle();
    m_partner.Leave();
    DispatchPending();
    EXPECT_THAT(m_news.All(), IsEmpty());
}

TEST_P(AStoppedEndpoint, CancelledNoWatchOfTheApplicationOrOfAnotherEndpoint)
{
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    BusActor watched(m_bus);
    bool vanished = false;
    const guint watch = g_bus_watch_name_on_connection(
        shared, watched.UniqueName().c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const gchar*, gpointer flag) { *static_cast<bool*>(flag) = true; },
        &vanished, nullptr);
    End other(Opposite(GetParam()), "other");
    other.endpoint.Start();
    Start(GetParam());
    MakeReady(m_partner);
    EXPECT_TRUE(m_endpoint->Stop());

    watched.Leave();
    IterateUntil([&] { return vanished; }, "the watch to report");
    g_bus_unwatch_name(watch);
    g_object_unref(shared);
    End others_partner(GetParam(), "other");
    others_partner.endpoint.Start();
    other.news.Await("ready ");
    others_partner.endpoint.Stop();
    other.news.Await("lost ");
}

TEST_P(AStoppedEndpoint, MayBeStoppedAgainAndDestroyed)
{
    Start(GetParam());
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_TRUE(m_endpoint->Stop());
    m_endpoint.reset();
}

TEST_F(StopTest, MayComeFromSeveralThreadsAtOnce)
{
    for (int round = 0; round < 20; ++round) {
        Start();
        std::vector<std::future<bool>> stops;
        for (int i = 0; i < 3; ++i)
            stops.push_back(std::async(std::launch::async, [this] { return m_endpoint->Stop(); }));
        for (auto& stop : stops)
            EXPECT_TRUE(stop.get());
        EXPECT_EQ(Status::stopped, m_endpoint->Notify({}, {}));
    }
}

TEST_F(StopTest, IsRefusedInsideEveryHandler)
{
    Make(Role::service);
    const auto stop = [this](const std::string& name) {
        m_news.Add(name + (m_endpoint->Stop() ? " stopped" : " refused"));
    };
    m_endpoint->OnReady([&](const Partner&) { stop("ready"); });
    m_endpoint->OnLost([&](const Partner&) { stop("lost"); });
    m_endpoint->OnNotification([&](Message&) { stop("notification"); });
    m_endpoint->OnMessage([&](Message&) {
        stop("message");
        return Bytes();
    });
    m_endpoint->OnBusLost([&] { stop("bus_lost"); });
    m_endpoint->OnBusBack([&] { stop("bus_back"); });
    m_endpoint->Start();
    PulseHandshake(m_partner);
    m_news.Await("ready refused");
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_news.Await("notification refused");
    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    IterateUntil([&] { return call->Done(); }, "the answer to a message");
    m_news.Await("message refused");
    m_endpoint->Request({}, {}, std::chrono::seconds(1), [&](const Response&) { stop("done"); });
    m_news.Await("done refused");
    m_partner.Leave();
    m_news.Await("lost refused");
    m_bus.Kill();
    m_news.Await("bus_lost refused");
    m_bus.Start();
    m_news.Await("bus_back refused");
    EXPECT_EQ(7U, ErrorsWith("cannot be stopped inside one of its handlers"));
    EXPECT_TRUE(m_endpoint->Stop());
}

TEST_F(StopTest, IsRefusedInsideWhatItTellsItself)
{
    Start();
    m_partner.Serve(CHANNEL, [](const Bytes&) { return Bytes(); });
    MakeReady(m_partner);
    std::vector<std::string> told;
    m_endpoint->Request(PartnerOf(m_partner), {}, TEST_DEADLINE, [&](const Response& response) {
        told.push_back(PelmarEndpoint::ToString(response.status));
        told.push_back(m_endpoint->Stop() ? "stopped" : "refused");
    });
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ((std::vector<std::string>{PelmarEndpoint::ToString(Status::stopped), "refused"}),
              told);
    EXPECT_EQ(1U, ErrorsWith("cannot be stopped inside one of its handlers"));
}

TEST_F(StopTest, IsRefusedInsideTheExecutor)
{
    Make(Role::service);
    m_endpoint->RunHandlersIn([this](const std::function<void()>& task) {
        m_news.Add(m_endpoint->Stop() ? "stopped" : "refused");
        task();
    });
    m_endpoint->Start();
    PulseHandshake(m_partner);
    m_news.Await("refused");
    m_news.Await("ready ");
    EXPECT_TRUE(m_endpoint->Stop());
}

TEST_F(StopTest, OfOneEndpointInsideAHandlerOfAnotherIsAllowed)
{
    PelmarEndpoint other(Role::service, "other");
    other.Start();
    Make(Role::service);
    m_endpoint->OnReady([&](const Partner&) { m_news.Add(other.Stop() ? "stopped" : "refused"); });
    m_endpoint->Start();
    PulseHandshake(m_partner);
    m_news.Await("stopped");
}

TEST_F(StopTest, WaitsForTheHandlerThatRunsAndLetsNoneFollow)
{
    std::atomic<bool> entered{false};
    std::atomic<bool> may_end{false};
    std::atomic<bool> stopped{false};
    std::atomic<int> running{0};
    Make(Role::service);
    m_endpoint->OnNotification([&](Message&) {
        ++running;
        EXPECT_FALSE(stopped) << "a handler after Stop";
        entered = true;
        WakeTest();
        while (!may_end)
            std::this_thread::yield();
        --running;
    });
    m_endpoint->Start();
    MakeReady(m_partner);
    const auto notify = [&, name = OwnName()] {
        for (int i = 0; i < 10; ++i)
            m_partner.Emit(name, names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
        m_partner.Settle();
    };
    notify();
    IterateUntil([&] { return entered.load(); }, "a handler to run");
    auto stop = std::async(std::launch::async, [&] {
        EXPECT_TRUE(m_endpoint->Stop());
        EXPECT_EQ(0, running);
        stopped = true;
    });
    // It has begun when calls are refused; it cannot have ended.
    while (m_endpoint->Notify({}, {}) != Status::stopped)
        std::this_thread::yield();
    EXPECT_EQ(std::future_status::timeout, stop.wait_for(std::chrono::seconds(0)));
    notify();
    may_end = true;
    stop.get();
    notify();
    DispatchPending();
}

// Partners come and go, call and notify all the while, and the application calls too.
TEST_F(StopTest, UnderTrafficEndsEveryTime)
{
    const int rounds = Scale("PELMAR_STOPS", 50);
    std::atomic<bool> over{false};
    std::atomic<int> messages{0};
    std::mutex mutex;
    std::string name;
    std::vector<std::shared_ptr<BusActor::Call>> calls;
    const auto partner_traffic = [&] {
        for (int i = 1; !over; ++i) {
            BusActor partner(m_bus);
            for (const std::string& stage : {names::SYN, names::ACK}) {
                partner.Acquire(StageName(Role::client, stage));
                partner.Release(StageName(Role::client, stage));
            }
            std::string here;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                here = name;
            }
            for (int j = 0; j < 20; ++j) {
                const auto call = partner.Send(here, CHANNEL, BytesOf("message"));
                const std::lock_guard<std::mutex> lock(mutex);
                calls.push_back(call);
                partner.Emit(here, names::Path(CHANNEL), "SendSignal",
                             BusActor::Body(BytesOf("notification")));
            }
            // Two of three leave when all of that has been dealt with, by whoever was there; so
            // there is never more on its way than an endpoint can take.
            if (i % 3 != 0)
                AskForProperties(partner, here);
        }
    };

    std::atomic<int> ready{0};
    std::vector<std::thread> partners;
    for (int round = 0; round < rounds; ++round) {
        const int before = messages;
        Make(Role::service);
        m_endpoint->OnMessage([&](Message& message) {
            ++messages;
            WakeTest();
            return std::move(message.data);
        });
        m_endpoint->OnReady([&](const Partner& partner) {
            ++ready;
            m_endpoint->Request(partner, {}, std::chrono::seconds(10), [](const Response&) {});
            m_endpoint->Notify(partner, BytesOf("hello"));
        });
        m_endpoint->Start();
        {
            const std::lock_guard<std::mutex> lock(mutex);
            name = OwnName();
        }
        while (partners.size() < 2)
            partners.emplace_back(partner_traffic);
        std::thread caller([&] {
            while (m_endpoint->Notify({}, {}) != Status::stopped) {
                m_endpoint->NotifyAll(BytesOf("all"));
                m_partner.Settle();
            }
        });
        IterateUntil([&] { return messages > before; }, "traffic");
        if (round % 2 == 0) {
            ASSERT_TRUE(m_endpoint->Stop());
        } else {
            ASSERT_TRUE(std::async(std::launch::async, [&] { return m_endpoint->Stop(); }).get());
        }
        caller.join();
        m_endpoint.reset();
    }
    over = true;
    for (std::thread& thread : partners)
        thread.join();
    // Also the one that came just as the object went.
    const auto is_done = [](const auto& call) { return call->Done(); };
    IterateUntil([&] { return std::all_of(calls.begin(), calls.end(), is_done); },
                 "an answer to every call");
    EXPECT_EQ(0U, ErrorsWith("threw"));
    EXPECT_GT(ready, 0);
}

TEST_F(StopTest, WithoutTrafficEndsEveryTimeWhateverTheHandshakeHasComeTo)
{
    for (int round = 0; round < 30; ++round) {
        BusActor partner(m_bus);
        Start(round % 2 == 0 ? Role::service : Role::client);
        partner.Pulse(Peers(names::SYN));
        if (round % 3 == 0)
            partner.Pulse(Peers(names::SYN_ACK));
        m_endpoint.reset();
    }
}

TEST_F(StopTest, LetsWhatWasSentBeforeArrive)
{
    constexpr std::size_t count = 8;
    const Bytes large(1000000, 'x');
    std::promise<PelmarEndpoint::Reply> asked;
    Make(Role::service);
    m_endpoint->OnDeferredMessage([&](Message&, PelmarEndpoint::Reply reply) {
        asked.set_value(std::move(reply));
        WakeTest();
    });
    m_endpoint->Start();
    MakeReady(m_partner);
    m_partner.Listen(CHANNEL);
    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    auto reply = asked.get_future();
    IterateUntil(
        [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        "the message");
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(m_partner), large));
    reply.get().Send(large);
    // The partner deals with what comes in this thread.
    auto stop = std::async(std::launch::async, [&] { return m_endpoint->Stop(TEST_DEADLINE); });
    IterateUntil([&] { return call->Done(); }, "the answer");
    EXPECT_TRUE(stop.get());
    IterateUntil([&] { return m_partner.Heard().size() == count; }, "all notifications");
    EXPECT_EQ(large, call->reply) << call->error;
}

TEST_F(StopTest, EndsAnEndpointThatIsNotOnTheBus)
{
    m_bus.Kill();
    Start();
    EXPECT_TRUE(m_endpoint->Stop());
    Start();
    m_endpoint.reset();
}

TEST_F(StopTest, EndsWhileTheDaemonIsStopped)
{
    Start();
    MakeReady(m_partner);
    m_bus.Daemon().Signal(SIGSTOP);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(m_partner), Bytes(1000000)));
    int told = 0;
    m_endpoint->Request(PartnerOf(m_partner), {}, std::chrono::seconds(10),
                        [&](const Response& response) {
                            EXPECT_EQ(Status::stopped, response.status);
                            ++told;
                        });
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(1, told);
    m_bus.Daemon().Signal(SIGCONT);
}

TEST(ADestructorInsideAHandler, EndsTheProcessAndSaysWhy)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto destroy_inside = [] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        static std::unique_ptr<PelmarEndpoint> endpoint;
        endpoint = std::make_unique<PelmarEndpoint>(Role::service, CHANNEL);
        endpoint->OnProblem([&](PelmarEndpoint::Problem, const std::string&) { endpoint.reset(); });
        endpoint->Start();
        pause();
    };
    EXPECT_EXIT(destroy_inside(), testing::KilledBySignal(SIGABRT),
                "must not be destroyed inside one of its handlers");
}

}  // namespace
