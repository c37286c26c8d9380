// The bus goes and comes back: a daemon that is killed, stopped, or not there yet.

#include <dlfcn.h>

#include "captured-log.h"
#include "endpoint-fixture.h"
#include "endpoint-process.h"
#include "hanging-up-daemon.h"
#include "peer-process.h"

namespace {

std::atomic<bool> slow_to_look{false};
std::atomic<int> failed_attempts{0};

}  // namespace

// Called by the endpoint instead of GIO's. A thread may be kept from running after it got the
// connection, until that is closed.
GDBusConnection* g_dbus_connection_new_for_address_finish(GAsyncResult* result, GError** error)
{
    static const auto real = reinterpret_cast<decltype(&g_dbus_connection_new_for_address_finish)>(
        dlsym(RTLD_NEXT, "g_dbus_connection_new_for_address_finish"));
    GDBusConnection* connection = real(result, error);
    if (connection == nullptr) {
        ++failed_attempts;
        WakeTest();
    }
    while (slow_to_look && connection != nullptr &&
           g_dbus_connection_is_closed(connection) == FALSE)
        std::this_thread::yield();
    return connection;
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class AnEndpointThatLosesTheBus : public EitherEndpointTest {
protected:
    void RestartBus()
    {
        m_bus.Kill();
        m_bus.Start();
    }
};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AnEndpointThatLosesTheBus, BOTH_ROLES, RoleSuffix);

TEST_P(AnEndpointThatLosesTheBus, ReportsTheBusAndThenEachPartnerLost)
{
    Start(GetParam());
    BusActor first(m_bus);
    BusActor second(m_bus);
    MakeReady(first);
    MakeReady(second);
    m_news.Clear();
    m_bus.Kill();
    m_news.Await("lost", 2);
    const std::vector<std::string> news = m_news.All();
    ASSERT_GE(news.size(), 3U);
    EXPECT_EQ("bus_lost", news[0]);
    EXPECT_THAT((std::vector<std::string>{news[1], news[2]}),
                UnorderedElementsAre("lost " + first.UniqueName(), "lost " + second.UniqueName()));
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
}

TEST_P(AnEndpointThatLosesTheBus, ReportsNoLossOfAPartnerThatWasNotReady)
{
    Start(GetParam());
    BusActor squatter(m_bus);
    squatter.Acquire(Own(names::SYN_ACK));
    BusActor shy(m_bus);
    shy.Pulse(Peers(names::SYN));
    Settle(shy);
    RestartBus();
    m_news.Await("bus_back");
    EXPECT_EQ(0U, m_news.Count("lost"));
}

TEST_P(AnEndpointThatLosesTheBus, IsReadyWithItsPartnersAgainEveryTimeItComesBack)
{
    Start(GetParam());
    for (int round = 0; round < 20; ++round) {
        BusActor partner(m_bus);
        MakeReady(partner);
        m_news.Clear();
        RestartBus();
        m_news.Await("bus_back");
        // It may have been told meanwhile that nothing was there.
        std::vector<std::string> events;
        for (const std::string& line : m_news.All()) {
            if (line.compare(0, 7, "problem") != 0)
                events.push_back(line);
        }
        ASSERT_THAT(events, ElementsAre("bus_lost", "lost " + partner.UniqueName(), "bus_back"))
            << "in round " << round;
        EXPECT_LE(m_news.Count("problem"), 1U);
        m_news.Clear();
    }
    BusActor partner(m_bus);
    MakeReady(partner);
    const auto call = partner.Send(OwnName(), CHANNEL, BytesOf("ab"));
    IterateUntil([&] { return call->Done(); }, "the answer to a message");
    EXPECT_EQ(BytesOf("ba"), call->reply);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(partner), {}));
}

TEST_P(AnEndpointThatLosesTheBus, FindsAnEndpointThatLostItTooInItsNewLife)
{
    EndpointProcess partner(NameOf(Opposite(GetParam())), CHANNEL);
    Start(GetParam());
    m_news.Await("ready");
    partner.WaitForLine("ready ");
    for (std::size_t round = 2; round < 6; ++round) {
        RestartBus();
        partner.WaitForLine("bus_lost");
        partner.WaitForLine("lost ");
        partner.WaitForLine("bus_back");
        partner.WaitForLine("ready ");
        m_news.Await("ready", round);
        m_news.Await("lost", round - 1);
    }
    EXPECT_EQ(5U, m_news.Count("ready"));
    EXPECT_EQ(4U, m_news.Count("lost"));
}

TEST_P(AnEndpointThatLosesTheBus, SaysOnceThatTheBusCannotBeReachedWhileThatLasts)
{
    Start(GetParam());
    m_bus.Kill();
    m_news.Await("problem");
    EXPECT_THAT(m_news.Of("problem ").front(),
                testing::AllOf(HasSubstr("cannot be reached"), HasSubstr("daemon")));
    // Its next attempts fail too. Another endpoint, which begins now, has failed and tried again
    // when it is on the bus.
    End other(Role::service, "other");
    other.endpoint.Start();
    other.news.Await("problem");
    m_bus.Start();
    other.news.Await("bus_back");
    m_news.Await("bus_back");
    EXPECT_EQ(1U, m_news.Count("problem"));
    EXPECT_GE(ErrorsWith("cannot be reached"), 2U) << "logged as errors too, by both";

    m_bus.Kill();
    m_news.Await("problem", 2);
    m_bus.Start();
    m_news.Await("bus_back", 2);
    EXPECT_EQ(2U, m_news.Count("problem")) << "once for each time";
}

TEST_P(AnEndpointThatLosesTheBus, SaysNothingOfADaemonThatIsRestarted)
{
    Start(GetParam());
    RestartBus();
    m_news.Await("bus_back");
    EXPECT_EQ(0U, m_news.Count("problem"));
    EXPECT_THAT(CapturedLog(), IsEmpty());
}

TEST_P(AnEndpointThatLosesTheBus, SaysNothingWhileThatHasNotLastedForLong)
{
    Start(GetParam());
    const auto start = std::chrono::steady_clock::now();
    const int before = failed_attempts;
    m_bus.Kill();
    // When the second fails the first has been dealt with.
    IterateUntil([&] { return failed_attempts >= before + 2; }, "two attempts");
    const std::size_t errors = ErrorsWith("cannot be reached");
    if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(900))
        GTEST_SKIP() << "it took so long that it may say so";
    EXPECT_EQ(0U, errors);
    m_bus.Start();
    m_news.Await("bus_back");
}

TEST_P(AnEndpointThatLosesTheBus, ReturnsAsTheOtherEndpointsOfTheProcessDo)
{
    End other(Opposite(GetParam()), "other");
    other.endpoint.Start();
    Start(GetParam());
    for (std::size_t round = 1; round < 6; ++round) {
        RestartBus();
        m_news.Await("bus_back", round);
        other.news.Await("bus_back", round);
        BusActor partner(m_bus);
        MakeReady(partner);
    }
}

TEST_P(AnEndpointThatLosesTheBus, ReturnsThoughTheApplicationHoldsAClosedConnection)
{
    GDBusConnection* held = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(held, FALSE);
    Start(GetParam());
    RestartBus();
    m_news.Await("bus_back");
    BusActor partner(m_bus);
    MakeReady(partner);
    IterateUntil([&] { return g_dbus_connection_is_closed(held) != FALSE; },
                 "the application's connection to be closed");
    g_object_unref(held);
}

TEST_P(AnEndpointThatLosesTheBus, LeavesToTheApplicationWhatBecomesOfTheSharedConnection)
{
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    for (const bool exits : {true, false}) {
        g_dbus_connection_set_exit_on_close(shared, exits ? TRUE : FALSE);
        Start(GetParam());
        EXPECT_EQ(exits, g_dbus_connection_get_exit_on_close(shared) != FALSE);
        m_endpoint.reset();
        EXPECT_EQ(exits, g_dbus_connection_get_exit_on_close(shared) != FALSE);
    }
    g_object_unref(shared);
}

TEST_P(AnEndpointThatLosesTheBus, IsNotHeldUpByReplyThatIsStillOpen)
{
    std::vector<PelmarEndpoint::Reply> replies;
    Make(GetParam());
    m_endpoint->OnDeferredMessage([&](Message&, PelmarEndpoint::Reply reply) {
        replies.push_back(std::move(reply));
        m_news.Add("deferred");
    });
    m_endpoint->Start();
    BusActor partner(m_bus);
    partner.Send(OwnName(), CHANNEL, {});
    m_news.Await("deferred");
    EXPECT_TRUE(replies.front().IsWanted());
    RestartBus();
    m_news.Await("bus_back");
    EXPECT_FALSE(replies.front().IsWanted());
    replies.front().Send({});
}

TEST_P(AnEndpointThatLosesTheBus, SurvivesADaemonThatIsStoppedForAWhile)
{
    Start(GetParam());
    BusActor partner(m_bus);
    MakeReady(partner);
    m_bus.Daemon().Signal(SIGSTOP);
    EXPECT_EQ(1U, m_endpoint->NotifyAll(BytesOf("hello")).sent);
    EXPECT_EQ(Status::timeout,
              m_endpoint->Request(PartnerOf(partner), {}, std::chrono::milliseconds(100)).status);
    m_bus.Daemon().Signal(SIGCONT);
    BusActor next(m_bus);
    MakeReady(next);
    EXPECT_THAT(m_news.All(),
                ElementsAre("ready " + partner.UniqueName(), "ready " + next.UniqueName()));
}

TEST_P(AnEndpointThatLosesTheBus, KeepsAPartnerThatIsStoppedForAWhile)
{
    Start(GetParam());
    PeerProcess partner(
        GetParam() == Role::service ? PeerProcess::Role::client : PeerProcess::Role::service,
        CHANNEL);
    m_news.Await("ready " + partner.Name());
    partner.Signal(SIGSTOP);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(1U, m_endpoint->NotifyAll(BytesOf(std::to_string(i % 10))).sent);
    BusActor other(m_bus);
    MakeReady(other);
    partner.Signal(SIGCONT);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ("3" + std::to_string(i % 10), partner.WaitForLine("notification "));
    EXPECT_EQ(0U, m_news.Count("lost"));
}

// ---- Not there yet -------------------------------------------------------------------------

// GLib ends a process whose connection goes, unless it was told before; and it tells the loop of
// the one that made the connection later, whenever it went.
TEST(AnEndpointWhoseConnectionIsClosedBeforeItLooks, DoesNotEndItsProcess)
{
    const HangingUpDaemon daemon;
    slow_to_look = true;
    PelmarEndpoint endpoint(Role::service, CHANNEL);
    endpoint.Start();
    const auto has_tried_again = [&daemon] {
        WakeTest();
        return daemon.Calls() >= 3;
    };
    IterateUntil(has_tried_again, "the endpoint to try again");
}

class AnEndpointWithoutABus : public EitherEndpointTest {
protected:
    AnEndpointWithoutABus() { m_bus.Kill(); }
};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AnEndpointWithoutABus, BOTH_ROLES, RoleSuffix);

TEST_P(AnEndpointWithoutABus, IsStartedAllTheSameAndComesOntoTheBusLater)
{
    Start(GetParam());
    EXPECT_EQ(1U, ErrorsWith("cannot be reached")) << "before Start returns";
    m_news.Await("problem");
    EXPECT_FALSE(m_endpoint->IsOnBus());
    EXPECT_EQ("", m_endpoint->Name());
    EXPECT_EQ(Status::bus_gone, m_endpoint->Notify({}, {}));
    EXPECT_EQ(0U, m_endpoint->NotifyAll({}).sent);
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    EXPECT_EQ(std::nullopt, m_endpoint->WaitForPartner({}));
    m_bus.Start();
    m_news.Await("bus_back");
    EXPECT_EQ(0U, m_news.Count("bus_lost"));
    BusActor partner(m_bus);
    MakeReady(partner);
}

class AnEndpointOnTheBus : public EitherEndpointTest {};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AnEndpointOnTheBus, BOTH_ROLES, RoleSuffix);

TEST_P(AnEndpointOnTheBus, ReportsNothingWhenItComesOntoItAtOnce)
{
    Start(GetParam());
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + partner.UniqueName()));
    EXPECT_THAT(CapturedLog(), IsEmpty());
    for (const LogLine& line : CapturedLog(true))
        EXPECT_EQ("kestrin", line.tag);
    EXPECT_FALSE(CapturedLog(true).empty());
}

// ---- The end of the process ----------------------------------------------------------------

TEST_P(AnEndpointOnTheBus, EndsItsProcessWithTheBusOnlyWhenThatWasAskedFor)
{
    EndpointProcess mortal(NameOf(GetParam()), "mortal", {"--exit-when-bus-dies"});
    EndpointProcess tough(NameOf(GetParam()), "tough");
    m_bus.Kill();
    EXPECT_EQ(-SIGTERM, mortal.WaitForEnd());
    tough.WaitForLine("bus_lost");
    m_bus.Start();
    tough.WaitForLine("bus_back");
    tough.WriteLine("quit");
    EXPECT_EQ(0, tough.WaitForEnd());
}

}  // namespace
