// What somebody has to mend outside the program: names and rules that the bus refuses, names that
// are held, limits; and channel names that cannot be.

#include <future>

#include "bus-monitor.h"
#include "captured-log.h"
#include "endpoint-fixture.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Problem = PelmarEndpoint::Problem;

// ---- Names that the policy refuses ---------------------------------------------------------

class AnEndpointThatMayNotOwnItsNames : public EndpointTest {
protected:
    AnEndpointThatMayNotOwnItsNames()
        : EndpointTest(
              "<policy context=\"mandatory\">"
              "<deny own=\"org.vaska.Pelmar.demo_SERVICE_SYN\"/></policy>")
    {
    }

    BusMonitor m_monitor{m_bus};
};

TEST_F(AnEndpointThatMayNotOwnItsNames, SaysSoOnceWithTheRemedyWhileItLasts)
{
    Start();
    m_news.Await("problem");
    EXPECT_THAT(m_news.Of("problem ").front(), AllOf(HasSubstr("org.vaska.Pelmar.demo_SERVICE_SYN"),
                                                     HasSubstr("policy"), HasSubstr("install")));
    // Its other names show, and it tries the refused one again.
    BusActor partner(m_bus);
    MakeReady(partner);
    IterateUntil([&] { return m_monitor.Calls("RequestName", Own(names::SYN)) >= 2; },
                 "another attempt");
    m_monitor.CatchUp(partner.Connection());
    Settle(partner);
    EXPECT_EQ(1U, m_news.Count("problem"));
    EXPECT_THAT(m_news.Problems(), ElementsAre(Problem::name_refused));
    EXPECT_EQ(1U, ErrorsWith("does not let this process own"));
}

class AnEndpointThatMayNotNotify : public EndpointTest {
protected:
    AnEndpointThatMayNotNotify()
        : EndpointTest(
              "<policy context=\"mandatory\">"
              "<deny send_interface=\"org.vaska.pelmar.DbusCommunication\" "
              "send_member=\"SendSignal\"/>"
              "</policy>")
    {
    }
};

TEST_F(AnEndpointThatMayNotNotify, SaysSoAndTakesThePartnerAsLost)
{
    Start();
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(partner), {}));
    m_news.Await("lost ");
    EXPECT_THAT(m_news.Of("problem "),
                ElementsAre(AllOf(HasSubstr("notifications"), HasSubstr("install the policy"))));
    EXPECT_THAT(m_news.Problems(), ElementsAre(Problem::name_refused));
}

// ---- A name that is held -------------------------------------------------------------------

class AnEndpointWhoseNameIsHeld : public EndpointTest {};

TEST_F(AnEndpointWhoseNameIsHeld, SaysByWhomOnceAndAgainTheNextTime)
{
    for (std::size_t times = 1; times <= 2; ++times) {
        BusActor squatter(m_bus);
        squatter.Acquire(StageName(Role::service, names::SYN));
        Start();
        m_news.Await("problem", times);
        EXPECT_THAT(m_news.Of("problem ").back(),
                    AllOf(HasSubstr(Own(names::SYN)), HasSubstr(squatter.UniqueName())));
        EXPECT_EQ(Problem::name_taken, m_news.Problems().back());
        squatter.Leave();
        BusActor partner(m_bus);
        MakeReady(partner);
        m_endpoint.reset();
    }
    EXPECT_EQ(2U, m_news.Count("problem"));
}

// ---- The limit of match rules --------------------------------------------------------------

// With these the endpoint has rules for the channel and for two partners.
class AnEndpointBeyondTheMatchRuleLimit : public EndpointTest {
protected:
    AnEndpointBeyondTheMatchRuleLimit()
        : EndpointTest("<limit name=\"max_match_rules_per_connection\">5</limit>")
    {
        Start();
        for (int i = 0; i < 8; ++i) {
            m_partners.push_back(std::make_unique<BusActor>(m_bus));
            MakeReady(*m_partners.back());
        }
    }

    std::vector<std::unique_ptr<BusActor>> m_partners;
};

TEST_F(AnEndpointBeyondTheMatchRuleLimit, FindsTheEndOfEveryPartnerWithinTenSecondsAllTheSame)
{
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i + 1 < m_partners.size(); ++i)
        m_partners[i]->Leave();
    m_news.Await("lost", m_partners.size() - 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_THAT(m_endpoint->Partners(), ElementsAre(PartnerOf(*m_partners.back())));
    EXPECT_EQ(m_partners.size() - 1, m_news.Count("lost"));
}

TEST_F(AnEndpointBeyondTheMatchRuleLimit, SaysSoOnceAndWhichLimitToRaise)
{
    m_news.Await("problem");
    EXPECT_THAT(m_news.Of("problem ").front(), HasSubstr("max_match_rules_per_connection"));
    BusActor another(m_bus);
    MakeReady(another);
    Settle(another);
    EXPECT_EQ(1U, m_news.Count("problem"));
    EXPECT_EQ(1U, ErrorsWith("refused a match rule"));
}

TEST_F(AnEndpointBeyondTheMatchRuleLimit, StillTalksWithThePartnersBeyondIt)
{
    BusActor& last = *m_partners.back();
    last.Listen(CHANNEL);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(last), BytesOf("there")));
    IterateUntil([&] { return !last.Heard().empty(); }, "the notification");
    last.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body(BytesOf("back")));
    m_news.Await("notification back");
}

class AnEndpointWithinTheMatchRuleLimit : public EndpointTest {};

TEST_F(AnEndpointWithinTheMatchRuleLimit, NeverAsksTheDaemonWhoIsThere)
{
    BusMonitor monitor(m_bus);
    Start();
    BusActor partner(m_bus);
    MakeReady(partner);
    partner.Leave();
    m_news.Await("lost");
    BusActor last(m_bus);
    MakeReady(last);
    monitor.CatchUp(last.Connection());
    const auto asks = [](const BusMonitor::Message& message) {
        return message.member == "ListNames";
    };
    EXPECT_THAT(monitor.Messages(asks).size(), 0U);
    EXPECT_EQ(0U, m_news.Count("problem"));
}

class AnEndpointBeyondAnotherLimit : public EndpointTest {
protected:
    AnEndpointBeyondAnotherLimit()
        : EndpointTest("<limit name=\"max_replies_per_connection\">3</limit>")
    {
    }
};

TEST_F(AnEndpointBeyondAnotherLimit, IsBusyAndDoesNotTakeItForTheMatchRules)
{
    Start();
    BusActor partner(m_bus);
    partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    MakeReady(partner);
    // Without the partner's answers, which have to wait for the test, the last ones are refused.
    std::promise<void> first_refused;
    std::atomic<int> refused{0};
    std::atomic<int> ended{0};
    for (int i = 0; i < 8; ++i)
        m_endpoint->Request(PartnerOf(partner), {}, std::chrono::seconds(20),
                            [&](const Response& response) {
                                if (response.status == Status::busy && refused++ == 0)
                                    first_refused.set_value();
                                ++ended;
                                WakeTest();
                            });
    ASSERT_EQ(std::future_status::ready, first_refused.get_future().wait_for(TEST_DEADLINE));
    IterateUntil([&] { return ended == 8; }, "the end of all requests");
    Settle(partner);
    EXPECT_EQ(0U, m_news.Count("problem"));
}

// ---- Two endpoints of one channel ----------------------------------------------------------

class TwoEndpointsOfOneChannel : public EndpointTest {};

TEST_F(TwoEndpointsOfOneChannel, FindEachOtherInOneProcess)
{
    Start(Role::service);
    End second(Role::client);
    second.endpoint.Start();
    m_news.Await("ready " + second.endpoint.Name());
    second.news.Await("ready " + OwnName());
    EXPECT_EQ(0U, m_news.Count("problem"));
    EXPECT_EQ(0U, second.news.Count("problem"));
}

TEST_F(TwoEndpointsOfOneChannel, LeaveTheFirstAsItWasWhenTheSecondEnds)
{
    Start(Role::service);
    {
        PelmarEndpoint second(Role::client, CHANNEL);
        second.Start();
    }
    BusActor partner(m_bus);
    MakeReady(partner);
    const auto call = partner.Send(OwnName(), CHANNEL, BytesOf("ab"));
    IterateUntil([&] { return call->Done(); }, "the answer to a message");
    EXPECT_EQ(BytesOf("ba"), call->reply);
}

// ---- Channel names -------------------------------------------------------------------------

class AChannelName : public EndpointTest {
protected:
    static std::string FaultOf(const std::string& name)
    {
        try {
            PelmarEndpoint endpoint(Role::service, name);
        } catch (const std::invalid_argument& fault) {
            return fault.what();
        }
        return "";
    }
};

TEST_F(AChannelName, ThatCannotBePartOfABusNameIsRefusedWithTheNameAndTheRule)
{
    for (const std::string& name :
         {std::string(""), std::string("a.b"), std::string("a-b"), std::string("a b"),
          std::string("a/b"), std::string("1a"), std::string("\xc3\xa4"), std::string(223, 'a')})
        EXPECT_THAT(FaultOf(name),
                    AllOf(HasSubstr("'" + name + "'"), HasSubstr("letters, digits and underscores"),
                          HasSubstr("222")));
}

TEST_F(AChannelName, IsRefusedWithItsOwnFault)
{
    EXPECT_THAT(FaultOf(""), HasSubstr("is empty"));
    EXPECT_THAT(FaultOf("1a"), HasSubstr("begins with a digit"));
    EXPECT_THAT(FaultOf("a.b"), HasSubstr("contains '.'"));
    EXPECT_THAT(FaultOf("\xc3\xa4"), HasSubstr("contains '\\xc3'"));
    EXPECT_THAT(FaultOf("a\n"), AllOf(HasSubstr("'a\\x0a'"), HasSubstr("contains '\\x0a'")));
    EXPECT_THAT(FaultOf(std::string("a\0b", 3)),
                AllOf(HasSubstr("'a\\x00b'"), HasSubstr("contains '\\x00'")));
    EXPECT_THAT(FaultOf(std::string(300, 'a')), HasSubstr("300 characters"));
}

TEST_F(AChannelName, OfEveryAllowedKindWorks)
{
    for (const std::string& name :
         {std::string("a"), std::string("_"), std::string("Z_09"), std::string(222, 'x')}) {
        End service(Role::service, name);
        End client(Role::client, name);
        service.endpoint.Start();
        client.endpoint.Start();
        EXPECT_EQ(client.AwaitPartner().Name(), service.endpoint.Name());
        EXPECT_THAT(CapturedLog(), IsEmpty());
    }
}

}  // namespace
