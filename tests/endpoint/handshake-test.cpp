// The handshake of an endpoint: in the quiet case, with pulses lost on purpose, and with both sides
// starting at the same moment.

#include <thread>

#include "bus-monitor.h"
#include "captured-log.h"
#include "channel-end.h"
#include "endpoint-fixture.h"
#include "endpoint-process.h"
#include "peer-process.h"

namespace {

using Kind = ChannelEnd::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- The quiet case ------------------------------------------------------------------------

// An endpoint or a plain channel of one role, watched from its start, and a plain partner that
// starts after it or was there before.
class AQuietBus : public testing::TestWithParam<std::tuple<Role, bool>> {
protected:
    struct Seen {
        std::vector<std::string> members;
        std::vector<std::string> pulses;
    };

    static PeerProcess::Role PlainRole(Role role)
    {
        return role == Role::service ? PeerProcess::Role::service : PeerProcess::Role::client;
    }

    // A process that has ended has sent all that it ever will.
    Seen SeenOf(const std::string& name, ChildProcess& process)
    {
        process.WriteLine("quit");
        process.WaitForEnd();
        BusActor last(m_bus);
        m_monitor.CatchUp(last.Connection());
        Seen seen{m_monitor.MembersFrom(name), m_monitor.PulsesOf(name)};
        const auto end =
            std::remove_if(seen.members.begin(), seen.members.end(), [](const std::string& member) {
                return member == "AddMatch" || member == "RemoveMatch";
            });
        seen.members.erase(end, seen.members.end());
        return seen;
    }

    // Another endpoint, which starts only now, goes through the repair that takes longest: whatever
    // the first one might repair it has repaired by then.
    void LetRepairsPass()
    {
        BusActor squatter(m_bus);
        squatter.Acquire(names::Base("other") + "_CLIENT_ACK");
        EndpointProcess service("service", "other");
        PeerProcess client(PeerProcess::Role::client, "other");
        service.WaitForLine("ready ");
    }

    Seen RunPlain()
    {
        std::unique_ptr<PeerProcess> partner;
        if (PartnerIsFirst())
            partner = std::make_unique<PeerProcess>(PlainRole(Opposite(TheRole())), CHANNEL);
        PeerProcess plain(PlainRole(TheRole()), CHANNEL);
        if (!PartnerIsFirst())
            partner = std::make_unique<PeerProcess>(PlainRole(Opposite(TheRole())), CHANNEL);
        plain.WaitForLine("ready ");
        partner->WaitForLine("ready ");
        return SeenOf(plain.Name(), plain);
    }

    Seen RunEndpoint()
    {
        std::unique_ptr<PeerProcess> partner;
        if (PartnerIsFirst())
            partner = std::make_unique<PeerProcess>(PlainRole(Opposite(TheRole())), CHANNEL);
        const auto start = std::chrono::steady_clock::now();
        EndpointProcess endpoint(NameOf(TheRole()), CHANNEL);
        if (!PartnerIsFirst())
            partner = std::make_unique<PeerProcess>(PlainRole(Opposite(TheRole())), CHANNEL);
        endpoint.WaitForLine("ready ");
        const std::string name = partner->WaitForLine("ready ");
        m_handshake = std::chrono::steady_clock::now() - start;
        LetRepairsPass();
        return SeenOf(name, endpoint);
    }

    // A partner that is slow is helped by a pulse more, and on a loaded machine each one is slow
    // now and then. That is no quiet bus.
    Seen RunEndpointQuietly()
    {
        for (int i = 0; i < 20; ++i) {
            Seen seen = RunEndpoint();
            if (m_handshake < std::chrono::milliseconds(250))
                return seen;
        }
        throw std::runtime_error("the machine was too slow for a quiet handshake 20 times");
    }

    static Role TheRole() { return std::get<Role>(GetParam()); }
    static bool PartnerIsFirst() { return std::get<bool>(GetParam()); }

    TestBus m_bus;
    BusMonitor m_monitor{m_bus};
    std::chrono::steady_clock::duration m_handshake{};
};

TEST_P(AQuietBus, SeesThePulsesOfAPlainChannelAndTwoQuestionsOfAnEndpoint)
{
    const Seen plain = RunPlain();
    Seen endpoint = RunEndpointQuietly();
    EXPECT_EQ(plain.pulses, endpoint.pulses);
    EXPECT_EQ(2U, endpoint.pulses.size());
    // Who the partner is, and whether it is there.
    for (const std::string question : {"GetConnectionCredentials", "GetAll"}) {
        const auto asked = std::find(endpoint.members.begin(), endpoint.members.end(), question);
        ASSERT_NE(endpoint.members.end(), asked) << question;
        endpoint.members.erase(asked);
    }
    // A client asks whether there is a direct path; plain channels have none.
    const auto opened = std::find(endpoint.members.begin(), endpoint.members.end(), "Open");
    EXPECT_EQ(TheRole() == Role::client, opened != endpoint.members.end());
    if (opened != endpoint.members.end())
        endpoint.members.erase(opened);
    EXPECT_THAT(endpoint.members,
                ElementsAre("Hello", "RequestName", "ReleaseName", "RequestName", "ReleaseName"));
}

INSTANTIATE_TEST_SUITE_P(
    With, AQuietBus,
    testing::Combine(testing::Values(Role::service, Role::client), testing::Bool()),
    [](const auto& suite) {
        return std::string(std::get<Role>(suite.param) == Role::service ? "AService" : "AClient") +
               (std::get<bool>(suite.param) ? "AfterItsPartner" : "BeforeItsPartner");
    });

// ---- One event each ------------------------------------------------------------------------

class AnEndpoint : public EitherEndpointTest {};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AnEndpoint, BOTH_ROLES, RoleSuffix);

TEST_P(AnEndpoint, ReportsAPartnerReadyOnceAndLostOnce)
{
    Start(GetParam());
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_THAT(m_endpoint->Partners(), ElementsAre(PartnerOf(partner)));
    partner.Leave();
    m_news.Await("lost " + partner.UniqueName());
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    EXPECT_THAT(m_news.All(),
                ElementsAre("ready " + partner.UniqueName(), "lost " + partner.UniqueName()));
}

TEST_P(AnEndpoint, ReportsAPartnerOnceWhateverItPulsesAgain)
{
    Start(GetParam());
    BusActor partner(m_bus);
    MakeReady(partner);
    for (int i = 0; i < 5; ++i) {
        for (const std::string& stage : {names::ACK, names::SYN, names::SYN_ACK, names::ACK})
            partner.Pulse(Peers(stage));
    }
    Settle(partner);
    EXPECT_EQ(1U, m_news.Count("ready"));
    partner.Leave();
    m_news.Await("lost");
    BusActor next(m_bus);
    MakeReady(next);
    EXPECT_EQ(2U, m_news.Count("ready"));
    EXPECT_EQ(1U, m_news.Count("lost"));
}

TEST_P(AnEndpoint, ReportsNoLossOfAPartnerThatWasNeverReady)
{
    Start(GetParam());
    // Without its SYN_ACK the endpoint has nothing to complete a handshake with.
    BusActor squatter(m_bus);
    squatter.Acquire(Own(names::SYN_ACK));
    BusActor shy(m_bus);
    shy.Pulse(Peers(names::SYN));
    Settle(shy);
    shy.Leave();
    BusActor partner(m_bus);
    squatter.Leave();
    MakeReady(partner);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + partner.UniqueName()));
}

TEST_P(AnEndpoint, IsFoundByAPlainPartnerThatStartsBeforeItAndOneAfterIt)
{
    const auto role =
        GetParam() == Role::service ? PeerProcess::Role::client : PeerProcess::Role::service;
    PeerProcess before(role, CHANNEL);
    Start(GetParam());
    m_news.Await("ready " + before.Name());
    EXPECT_EQ(OwnName(), before.WaitForLine("ready "));
    PeerProcess after(role, CHANNEL);
    m_news.Await("ready " + after.Name());
    EXPECT_EQ(OwnName(), after.WaitForLine("ready "));
}

TEST_P(AnEndpoint, FindsARestartedPartnerUnderItsNewName)
{
    const auto role =
        GetParam() == Role::service ? PeerProcess::Role::client : PeerProcess::Role::service;
    Start(GetParam());
    PeerProcess first(role, CHANNEL);
    m_news.Await("ready " + first.Name());
    first.Kill();
    m_news.Await("lost " + first.Name());
    PeerProcess second(role, CHANNEL);
    m_news.Await("ready " + second.Name());
    EXPECT_THAT(NamesOf(m_endpoint->Partners()), ElementsAre(second.Name()));
}

TEST_P(AnEndpoint, DoesNotFindPartnersOfAnotherChannel)
{
    Start(GetParam());
    BusActor stray(m_bus);
    for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK}) {
        stray.Pulse(names::Base("other") + "_CLIENT" + stage);
        stray.Pulse(names::Base("other") + "_SERVICE" + stage);
    }
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + partner.UniqueName()));
}

// 1,000 partners that leave 0 to 400 microseconds after their last pulse. The pause is the load
// itself; nothing is awaited by it.
TEST_P(AnEndpoint, ReportsAsManyLostAsReadyWhenPartnersLeaveAtOnce)
{
    Start(GetParam());
    const int count = Scale("PELMAR_CHURN", 1000);
    for (int i = 0; i < count; ++i) {
        BusActor partner(m_bus);
        for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK})
            partner.Pulse(Peers(stage));
        // The question makes it a partner at once.
        partner.Ask(OwnName(), CHANNEL);
        const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(i * 37 % 401);
        while (std::chrono::steady_clock::now() < end) {
        }
        partner.Leave();
    }
    BusActor last(m_bus);
    MakeReady(last);
    last.Leave();
    m_news.Await("lost " + last.UniqueName());
    IterateUntil([&] { return m_news.Count("ready") == m_news.Count("lost"); },
                 "as many lost as ready");
    EXPECT_GT(m_news.Count("ready"), 1U);
    const std::vector<std::string> ready = m_news.Of("ready ");
    EXPECT_EQ(ready.size(), std::set<std::string>(ready.begin(), ready.end()).size());
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    for (const std::string& partner : ready)
        ASSERT_EQ(Status::no_such_partner, m_endpoint->Notify(m_news.PartnerNamed(partner), {}));
}

// ---- Lost pulses ---------------------------------------------------------------------------

class AnEndpointWhosePulseIsLost : public EitherEndpointTest {
protected:
    // Has the endpoint try the name in vain `attempts` times.
    void AwaitAttempts(const std::string& name, std::size_t attempts)
    {
        IterateUntil([&] { return m_monitor.Calls("RequestName", name) >= attempts; },
                     "attempts to pulse " + name);
    }

    PeerProcess::Role PlainPartner() const
    {
        return m_role == Role::service ? PeerProcess::Role::client : PeerProcess::Role::service;
    }

    void ExpectBothReady(PeerProcess& partner)
    {
        // When it lets go of a name, the squatter is taken for another one of this side.
        partner.WaitForLine("ready " + OwnName());
        m_news.Await("ready " + partner.Name());
        EXPECT_EQ(1U, m_news.Count("ready"));
    }

    BusMonitor m_monitor{m_bus};
    BusActor m_squatter{m_bus};
};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AnEndpointWhosePulseIsLost, BOTH_ROLES, RoleSuffix);

TEST_P(AnEndpointWhosePulseIsLost, PulsesItsSynAgainUntilItShows)
{
    m_role = GetParam();
    PeerProcess partner(PlainPartner(), CHANNEL);
    m_squatter.Acquire(Own(names::SYN));
    Start(GetParam());
    AwaitAttempts(Own(names::SYN), 4);
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    m_squatter.Release(Own(names::SYN));
    ExpectBothReady(partner);
}

TEST_P(AnEndpointWhosePulseIsLost, PulsesItsSynAgainWhenTheHolderLeavesWithoutReleasing)
{
    m_role = GetParam();
    PeerProcess partner(PlainPartner(), CHANNEL);
    m_squatter.Acquire(Own(names::SYN));
    Start(GetParam());
    AwaitAttempts(Own(names::SYN), 2);
    m_squatter.Leave();
    ExpectBothReady(partner);
}

TEST_P(AnEndpointWhosePulseIsLost, PulsesItsSynAckAgainUntilItShows)
{
    Start(GetParam());
    m_squatter.Acquire(Own(names::SYN_ACK));
    PeerProcess partner(PlainPartner(), CHANNEL);
    AwaitAttempts(Own(names::SYN_ACK), 4);
    m_squatter.Release(Own(names::SYN_ACK));
    ExpectBothReady(partner);
}

TEST_P(AnEndpointWhosePulseIsLost, PulsesItsAckAgainUntilItShows)
{
    m_role = GetParam();
    PeerProcess partner(PlainPartner(), CHANNEL);
    m_squatter.Acquire(Own(names::ACK));
    Start(GetParam());
    AwaitAttempts(Own(names::ACK), 4);
    m_squatter.Release(Own(names::ACK));
    ExpectBothReady(partner);
}

// The partner wires the endpoint up at the repaired SYN and pulses SYN_ACK, which the channel does
// not answer again.
TEST_P(AnEndpointWhosePulseIsLost, PulsesItsAckAfterARepairedSynOfAPartnerThatIsWired)
{
    m_role = GetParam();
    m_squatter.Acquire(Own(names::SYN));
    m_squatter.Acquire(Own(names::SYN_ACK));
    Start(GetParam());
    PeerProcess partner(PlainPartner(), CHANNEL);
    AwaitAttempts(Own(names::SYN_ACK), 2);
    // A client's SYN is needless once its service has pulsed: what is missing is SYN_ACK alone.
    m_squatter.Release(GetParam() == Role::service ? Own(names::SYN) : Own(names::SYN_ACK));
    ExpectBothReady(partner);
}

TEST_P(AnEndpointWhosePulseIsLost, PulsesAgainUntilItShowsAmongPulsesOfTheSameName)
{
    m_role = GetParam();
    PeerProcess partner(PlainPartner(), CHANNEL);
    // Whoever else is on this side of the channel pulses and pulses, as fast as the partner keeps
    // up: what piles up before a plain channel nobody bounds.
    std::atomic<bool> over{false};
    std::thread pulses([&, name = Own(names::SYN)] {
        BusActor rival(m_bus);
        while (!over) {
            rival.Acquire(name);
            AskForProperties(rival, partner.Name());
            rival.Release(name);
            AskForProperties(rival, partner.Name());
        }
    });
    Start(GetParam());
    m_news.Await("ready " + partner.Name());
    over = true;
    pulses.join();
    EXPECT_EQ(1U, m_news.Count("ready"));
}

TEST_P(AnEndpointWhosePulseIsLost, ReleasesTheNameAfterEveryAttempt)
{
    m_role = GetParam();
    m_squatter.Acquire(Own(names::SYN));
    Start(GetParam());
    AwaitAttempts(Own(names::SYN), 5);
    m_monitor.CatchUp(m_squatter.Connection());
    // The squatter's own request is among them, and the last attempt may be under way.
    const std::size_t requests = m_monitor.Calls("RequestName", Own(names::SYN)) - 1;
    EXPECT_LE(requests - m_monitor.Calls("ReleaseName", Own(names::SYN)), 1U);
}

TEST_P(AnEndpointWhosePulseIsLost, NeverQueuesForAStageName)
{
    m_role = GetParam();
    m_squatter.Acquire(Own(names::SYN));
    Start(GetParam());
    AwaitAttempts(Own(names::SYN), 4);
    GVariant* reply = g_dbus_connection_call_sync(
        m_squatter.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "ListQueuedOwners", g_variant_new("(s)", Own(names::SYN).c_str()),
        G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(nullptr, reply);
    const std::unique_ptr<char, decltype(&g_free)> owners(g_variant_print(reply, FALSE), g_free);
    g_variant_unref(reply);
    EXPECT_EQ("(['" + m_squatter.UniqueName() + "'],)", owners.get());
}

// ---- Both at the same moment, and lost pulses of the other side ------------------------------

using ACrossingParam = std::tuple<Kind, Kind>;
class ACrossing : public testing::TestWithParam<ACrossingParam> {
protected:
    TestBus m_bus;
};
INSTANTIATE_TEST_SUITE_P(Of, ACrossing,
                         testing::Values(ACrossingParam{Kind::endpoint, Kind::endpoint},
                                         ACrossingParam{Kind::endpoint, Kind::plain},
                                         ACrossingParam{Kind::plain, Kind::endpoint}),
                         [](const auto& suite) {
                             const auto word = [](Kind kind) {
                                 return kind == Kind::plain ? "Plain" : "Endpoint";
                             };
                             return std::string(word(std::get<0>(suite.param))) + "ServiceAnd" +
                                    word(std::get<1>(suite.param)) + "Client";
                         });

TEST_P(ACrossing, EndsWithBothReady)
{
    const auto [service, client] = GetParam();
    const int rounds = Scale("PELMAR_CROSSINGS", 40);
    for (int round = 0; round < rounds; ++round) {
        Storm pair(service, {client});
        const Storm::Result result = pair.Start();
        ASSERT_EQ(1U, result.at_service) << "in round " << round;
        ASSERT_EQ(1U, result.at_clients) << "in round " << round;
    }
}

class AServiceEndpoint : public EndpointTest {
protected:
    AServiceEndpoint() { Start(Role::service); }
};

TEST_F(AServiceEndpoint, CompletesWithAClientOfWhichOnlyTheAckShowed)
{
    BusActor squatter(m_bus);
    squatter.Acquire(Peers(names::SYN));
    PeerProcess client(PeerProcess::Role::client, CHANNEL);
    // What the squatter lets go of is a pulse; the client takes the answer to it for its own.
    squatter.Leave();
    EXPECT_EQ(OwnName(), client.WaitForLine("ready "));
    m_news.Await("ready " + client.Name());
    client.WriteLine("notify 6162");
    m_news.Await("notification ab");
}

TEST_F(AServiceEndpoint, CompletesWithAClientWhoseAckIsLost)
{
    BusActor squatter(m_bus);
    squatter.Acquire(Peers(names::ACK));
    PeerProcess client(PeerProcess::Role::client, CHANNEL);
    EXPECT_EQ(OwnName(), client.WaitForLine("ready "));
    m_news.Await("ready " + client.Name());
    EXPECT_EQ(1U, m_news.Count("ready"));
}

TEST_F(AServiceEndpoint, KeepsNoRecordOfAClientThatPulsedNothingButAnAckAndLeft)
{
    const guint32 rules = MatchRulesOf(OwnName());
    BusActor hasty(m_bus);
    hasty.Pulse(Peers(names::ACK));
    hasty.Leave();
    IterateUntil([&] { return MatchRulesOf(OwnName()) == rules; }, "the record to go");
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_THAT(m_news.All(), ElementsAre("ready " + partner.UniqueName()));
}

class AClientEndpoint : public EndpointTest {
protected:
    AClientEndpoint() { Start(Role::client); }
};

class TwoServiceEndpoints : public EndpointTest {
protected:
    TwoServiceEndpoints() { Start(Role::service); }
};

TEST_F(AClientEndpoint, CompletesWithAServiceWhoseAckIsLost)
{
    BusActor squatter(m_bus);
    squatter.Acquire(Peers(names::ACK));
    PeerProcess service(PeerProcess::Role::service, CHANNEL);
    EXPECT_EQ(OwnName(), service.WaitForLine("ready "));
    m_news.Await("ready " + service.Name());
    EXPECT_EQ(1U, m_news.Count("ready"));
}

// The one whose SYN_ACK comes second is not seen by a client that has a service.
TEST_F(TwoServiceEndpoints, AreBothFoundByAClientThatComesLater)
{
    for (int round = 0; round < 10; ++round) {
        News other_news;
        PelmarEndpoint other(Role::service, CHANNEL);
        other_news.Follow(other);
        other.Start();
        News client_news;
        PelmarEndpoint client(Role::client, CHANNEL);
        client_news.Follow(client);
        client.Start();
        client_news.Await("ready " + m_endpoint->Name());
        client_news.Await("ready " + other.Name());
        m_news.Await("ready " + client.Name());
        other_news.Await("ready " + client.Name());
        for (PelmarEndpoint* service : {m_endpoint.get(), &other})
            EXPECT_EQ(1U, service->NotifyAll(BytesOf("of " + service->Name())).sent);
        client_news.Await("notification of " + m_endpoint->Name());
        client_news.Await("notification of " + other.Name());
    }
}

}  // namespace
