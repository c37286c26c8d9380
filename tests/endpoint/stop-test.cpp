// The end of an endpoint: what it leaves on the connection and in the process, under traffic, from
// every thread.

#include <unistd.h>

#include <future>

#include "captured-log.h"
#include "endpoint-fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The statistics that the daemon keeps of a connection. Only dbus-daemon has them.
guint32 MatchRules(const BusActor& asker, const std::string& connection)
{
    GVariant* reply = g_dbus_connection_call_sync(
        asker.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
        g_variant_new("(s)", connection.c_str()), G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE,
        -1, nullptr, nullptr);
    if (reply == nullptr)
        throw std::runtime_error("the daemon keeps no statistics of " + connection);
    GVariant* dictionary = g_variant_get_child_value(reply, 0);
    guint32 rules = 0;
    g_variant_lookup(dictionary, "MatchRules", "u", &rules);
    g_variant_unref(dictionary);
    g_variant_unref(reply);
    return rules;
}

class StopTest : public EndpointTest {
protected:
    ~StopTest() override
    {
        if (m_connection != nullptr)
            g_object_unref(m_connection);
    }

    // As an application does that uses the same connection for its own purposes.
    GDBusConnection* HoldConnection()
    {
        m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        g_dbus_connection_set_exit_on_close(m_connection, FALSE);
        return m_connection;
    }

    guint32 MatchRulesOfThisProcess()
    {
        TestBus::Settle(m_connection);
        return MatchRules(m_partner, g_dbus_connection_get_unique_name(m_connection));
    }

    GDBusConnection* m_connection = nullptr;
    BusActor m_partner{m_bus};
};

class AStoppedEndpoint : public StopTest, public testing::WithParamInterface<Role> {};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AStoppedEndpoint, BOTH_ROLES, RoleSuffix);

TEST_P(AStoppedEndpoint, HasLeftNoMatchRuleAndNoObjectOnTheConnection)
{
    HoldConnection();
    const guint32 before = MatchRulesOfThisProcess();
    Start(GetParam());
    MakeReady(m_partner);
    EXPECT_GT(MatchRulesOfThisProcess(), before);
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(before, MatchRulesOfThisProcess());

    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    IterateUntil([&] { return call->Done(); }, "the answer of a connection without the object");
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", call->error);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + m_partner.UniqueName()))
        << "a stop is no loss";
}

TEST_P(AStoppedEndpoint, HasReleasedTheConnection)
{
    Start(GetParam());
    MakeReady(m_partner);
    const std::string name = OwnName();
    EXPECT_TRUE(m_endpoint->Stop());
    // Nobody else in the process holds it: its name leaves the bus.
    const auto has_gone = [&] {
        GVariant* reply = g_dbus_connection_call_sync(
            m_partner.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name.c_str()),
            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        gboolean has_owner = FALSE;
        g_variant_get(reply, "(b)", &has_owner);
        g_variant_unref(reply);
        WakeTest();
        return has_owner == FALSE;
    };
    IterateUntil(has_gone, "the end of the connection");
}

TEST_P(AStoppedEndpoint, MakesRoomForAnotherOnTheSameConnection)
{
    HoldConnection();
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
    HoldConnection();
    Start(GetParam());
    MakeReady(m_partner);
    const std::string name = OwnName();
    EXPECT_TRUE(m_endpoint->Stop());
    m_news.Clear();
    for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK})
        m_partner.Pulse(Peers(stage));
    m_partner.Emit(name, names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_partner.Leave();
    TestBus::Settle(m_connection);
    DispatchPending();
    EXPECT_THAT(m_news.All(), IsEmpty());
}

// Ids of watches and of subscriptions come from two counters that both start at 1: an id released
// by the wrong call hits whoever has the same one of the other kind.
TEST_P(AStoppedEndpoint, CancelledNoWatchOfTheApplicationOrOfAnotherEndpoint)
{
    HoldConnection();
    constexpr std::size_t count = 60;
    std::vector<std::unique_ptr<BusActor>> watched;
    std::vector<guint> watches;
    std::size_t vanished = 0;
    const auto on_vanished = [](GDBusConnection*, const gchar*, gpointer counter) {
        ++*static_cast<std::size_t*>(counter);
    };
    const auto watch = [&] {
        watched.push_back(std::make_unique<BusActor>(m_bus));
        watches.push_back(g_bus_watch_name_on_connection(
            m_connection, watched.back()->UniqueName().c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
            nullptr, on_vanished, &vanished, nullptr));
    };
    while (watched.size() < count / 2)
        watch();
    News others_news;
    PelmarEndpoint::Options others_options;
    others_options.role = GetParam();
    PelmarEndpoint other("other", others_news.Handlers(), others_options);
    Start(GetParam());
    MakeReady(m_partner);
    while (watched.size() < count)
        watch();
    EXPECT_TRUE(m_endpoint->Stop());

    watched.clear();
    IterateUntil([&] { return vanished == count; }, "all watches to report");
    std::for_each(watches.begin(), watches.end(), g_bus_unwatch_name);
    // The other endpoint still sees partners come and go.
    BusActor others_partner(m_bus);
    const std::string side = GetParam() == Role::service ? "_CLIENT" : "_SERVICE";
    for (const std::string& stage : {names::SYN, names::ACK})
        others_partner.Pulse(names::Base("other") + side + stage);
    others_news.Await("ready " + others_partner.UniqueName());
    others_partner.Leave();
    others_news.Await("lost " + others_partner.UniqueName());
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
        EXPECT_EQ(Status::stopped, m_endpoint->Notify({}));
    }
}

TEST_F(StopTest, IsRefusedInsideEveryHandler)
{
    PelmarEndpoint::Handlers handlers;
    const auto stop = [this](const std::string& name) {
        m_news.Add(name + (m_endpoint->Stop() ? " stopped" : " refused"));
    };
    handlers.ready = [&](const std::string&) { stop("ready"); };
    handlers.lost = [&](const std::string&) { stop("lost"); };
    handlers.notification = [&](Bytes&) { stop("notification"); };
    handlers.message = [&](Bytes&) {
        stop("message");
        return Bytes();
    };
    handlers.bus_lost = [&] { stop("bus_lost"); };
    handlers.bus_back = [&] { stop("bus_back"); };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await("ready refused");
    m_partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    m_news.Await("notification refused");
    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    IterateUntil([&] { return call->Done(); }, "the answer to a message");
    m_news.Await("message refused");
    m_endpoint->Request({}, ":1.999", std::chrono::seconds(1),
                        [&](const PelmarEndpoint::Response&) { stop("done"); });
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

TEST_F(StopTest, OfOneEndpointInsideAHandlerOfAnotherIsAllowed)
{
    PelmarEndpoint other("other", {});
    PelmarEndpoint::Handlers handlers;
    handlers.ready = [&](const std::string&) { m_news.Add(other.Stop() ? "stopped" : "refused"); };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await("stopped");
}

TEST_F(StopTest, WaitsForTheHandlerThatRunsAndLetsNoneFollow)
{
    std::atomic<bool> entered{false};
    std::atomic<bool> may_end{false};
    std::atomic<bool> stopped{false};
    std::atomic<int> running{0};
    PelmarEndpoint::Handlers handlers;
    handlers.notification = [&](Bytes&) {
        ++running;
        EXPECT_FALSE(stopped) << "a handler after Stop";
        entered = true;
        WakeTest();
        while (!may_end)
            std::this_thread::yield();
        --running;
    };
    handlers.ready = [this](const std::string&) { m_news.Add("ready"); };
    Start(Role::service, handlers);
    PulseHandshake(m_partner);
    m_news.Await("ready");
    HoldConnection();
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
    while (m_endpoint->Notify({}) != Status::stopped)
        std::this_thread::yield();
    EXPECT_EQ(std::future_status::timeout, stop.wait_for(std::chrono::seconds(0)));
    notify();
    may_end = true;
    stop.get();
    notify();
    TestBus::Settle(m_connection);
    DispatchPending();
}

// Partners come and go, call and notify all the while, and the application calls too.
TEST_F(StopTest, UnderTrafficEndsEveryTime)
{
    const int rounds = Scale("PELMAR_STOPS", 50);
    std::atomic<bool> over{false};
    std::atomic<int> messages{0};
    std::mutex mutex;
    std::vector<std::shared_ptr<BusActor::Call>> calls;
    const auto partner_traffic = [&] {
        int i = 0;
        while (!over) {
            BusActor partner(m_bus);
            for (const std::string& stage : {names::SYN, names::ACK}) {
                partner.Acquire(StageName(Role::client, stage));
                partner.Release(StageName(Role::client, stage));
            }
            const std::string name = OwnName();
            for (int j = 0; j < 20; ++j) {
                const auto call = partner.Send(name, CHANNEL, BytesOf("message"));
                const std::lock_guard<std::mutex> lock(mutex);
                calls.push_back(call);
                partner.Emit(name, names::Path(CHANNEL), "SendSignal",
                             BusActor::Body(BytesOf("notification")));
            }
            // Two of three leave when all of that has been dealt with, by whoever was there; so
            // there is never more on its way than an endpoint can take.
            if (++i % 3 != 0)
                AskForProperties(partner, name);
        }
    };
    HoldConnection();
    std::vector<std::thread> partners;
    for (int i = 0; i < 2; ++i)
        partners.emplace_back(partner_traffic);

    PelmarEndpoint::Handlers handlers;
    handlers.message = [&](Bytes& data) {
        ++messages;
        WakeTest();
        return data;
    };
    handlers.notification = [&](Bytes&) {};
    // Handlers may run before the constructor has returned.
    std::atomic<PelmarEndpoint*> constructed{nullptr};
    std::atomic<int> ready{0};
    handlers.ready = [&](const std::string& partner) {
        ++ready;
        PelmarEndpoint* endpoint = constructed;
        if (endpoint == nullptr)
            return;
        endpoint->Request({}, partner, std::chrono::seconds(10),
                          [](const PelmarEndpoint::Response&) {});
        endpoint->Notify(BytesOf("hello"), partner);
    };
    handlers.lost = [&](const std::string&) {};
    for (int round = 0; round < rounds; ++round) {
        const int before = messages;
        m_endpoint = std::make_unique<PelmarEndpoint>(CHANNEL, handlers);
        constructed = m_endpoint.get();
        std::thread caller([&] {
            while (m_endpoint->Notify(BytesOf("all")) != Status::stopped)
                m_partner.Settle();
        });
        IterateUntil([&] { return messages > before; }, "traffic");
        if (round % 2 == 0) {
            ASSERT_TRUE(m_endpoint->Stop());
        } else {
            ASSERT_TRUE(std::async(std::launch::async, [&] { return m_endpoint->Stop(); }).get());
        }
        caller.join();
        constructed = nullptr;
        m_endpoint.reset();
    }
    over = true;
    for (std::thread& thread : partners)
        thread.join();
    // The connection lives on, so every call has to be answered, also the one that came just as the
    // object went.
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
    PelmarEndpoint::Handlers handlers = m_news.Handlers();
    handlers.deferred_message = [&](Bytes&, PelmarEndpoint::Reply reply) {
        asked.set_value(std::move(reply));
        WakeTest();
    };
    Start(Role::service, handlers);
    MakeReady(m_partner);
    m_partner.Listen(CHANNEL);
    const auto call = m_partner.Send(OwnName(), CHANNEL, {});
    auto reply = asked.get_future();
    IterateUntil(
        [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        "the message");
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(Status::ok, m_endpoint->Notify(large));
    reply.get().Send(large);
    EXPECT_TRUE(m_endpoint->Stop());
    IterateUntil([&] { return call->Done(); }, "the answer");
    EXPECT_EQ(large, call->reply) << call->error;
    EXPECT_EQ(count, m_partner.Heard().size());
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
    m_endpoint->Notify(Bytes(1000000));
    m_endpoint->Request({}, m_partner.UniqueName(), std::chrono::seconds(10),
                        [](const PelmarEndpoint::Response&) {});
    EXPECT_TRUE(m_endpoint->Stop());
    m_bus.Daemon().Signal(SIGCONT);
}

TEST(ADestructorInsideAHandler, EndsTheProcessAndSaysWhy)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto destroy_inside = [] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        static std::unique_ptr<PelmarEndpoint> endpoint;
        std::promise<void> constructed;
        PelmarEndpoint::Handlers handlers;
        handlers.problem = [&](const std::string&) {
            constructed.get_future().wait();
            endpoint.reset();
        };
        endpoint = std::make_unique<PelmarEndpoint>(CHANNEL, handlers);
        constructed.set_value();
        pause();
    };
    EXPECT_EXIT(destroy_inside(), testing::KilledBySignal(SIGABRT),
                "must not be destroyed inside one of its handlers");
}

}  // namespace
