// What is delivered, and what is not: duplicates, messages out of order, too old or too large, and
// bridges that stand in each other's way.

#include <gtest/gtest.h>

#include "across-machines.h"

namespace {

class AnAttachedBridge : public AcrossMachines {
protected:
    static constexpr const char* FAR_DEADLINE = "user-property deadline 9000000000000000";

    AnAttachedBridge()
    {
        m_attached.WaitFor("the service is carried");
        m_session = m_states->WaitForLine("pelmar/demo/service/").substr(0, 16);
        PublishUp("greeting", 1, "");
        m_replies->WaitForLine("pelmar/demo/reply/" + m_session + "/tester");
    }

    void PublishUp(const std::string& kind, int number, const std::string& payload,
                   std::vector<std::string> properties = {})
    {
        properties.push_back("user-property kind " + kind);
        properties.push_back("user-property number " + std::to_string(number));
        m_broker.Publish("pelmar/demo/up/" + m_session + "/tester", payload, properties);
    }
    void PublishRequest(int number, const std::string& payload,
                        const std::string& deadline = FAR_DEADLINE)
    {
        PublishUp("request", number, payload,
                  {"correlation-data " + std::to_string(number), deadline});
    }

    Peer m_service{m_bus_a, "service"};
    std::unique_ptr<ChildProcess> m_states = m_broker.Listen("pelmar/demo/service/+");
    std::unique_ptr<ChildProcess> m_replies = m_broker.Listen("pelmar/demo/reply/+/tester");
    Bridge m_attached = Attach(m_bus_a);
    std::string m_session;
};

TEST_F(AnAttachedBridge, HasACallExecutedOnceHoweverOftenItComes)
{
    PublishRequest(2, "a");
    PublishRequest(2, "a");
    PublishRequest(3, "b");
    PublishRequest(2, "a");
    PublishRequest(4, "c");
    EXPECT_EQ("61", m_service.WaitForLine("message "));
    EXPECT_EQ("62", m_service.WaitForLine("message "));
    EXPECT_EQ("63", m_service.WaitForLine("message "));
    m_attached.WaitForCounters(
        "3 requests, 3 answers, 0 notifications; refused 0, expired 0, duplicates 2, lost 0");
}

TEST_F(AnAttachedBridge, LeavesOutWhatComesAfterSomethingThatWasSentLater)
{
    PublishUp("notification", 2, "a");
    PublishUp("notification", 4, "c");
    PublishUp("notification", 3, "b");
    PublishUp("notification", 5, "d");
    EXPECT_EQ("61", m_service.WaitForLine("notification "));
    EXPECT_EQ("63", m_service.WaitForLine("notification "));
    EXPECT_EQ("64", m_service.WaitForLine("notification "));
    m_attached.WaitForCounters(
        "0 requests, 0 answers, 3 notifications; refused 0, expired 0, duplicates 1, lost 1");
}

TEST_F(AnAttachedBridge, DoesNotExecuteACallWhoseTimeIsOver)
{
    PublishRequest(2, "a", "user-property deadline 1");
    PublishRequest(3, "b");
    EXPECT_EQ("62", m_service.WaitForLine("message "));
    m_attached.WaitForCounters(
        "1 requests, 1 answers, 0 notifications; refused 0, expired 1, duplicates 0, lost 0");
}

TEST_F(AnAttachedBridge, TakesNothingFromABridgeThatHasNotGreetedIt)
{
    m_broker.Publish("pelmar/demo/up/" + m_session + "/stranger", "x",
                     {"user-property kind notification", "user-property number 1"});
    m_attached.WaitFor("a message came from a bridge that had not greeted this one");
}

TEST_F(AnAttachedBridge, ExecutesNothingAgainAfterARestart)
{
    PublishRequest(2, "a");
    EXPECT_EQ("61", m_service.WaitForLine("message "));
    m_attached.Kill();
    Bridge restarted = Attach(m_bus_a);
    restarted.WaitFor("the service is carried");
    PublishRequest(2, "a");
    PublishRequest(3, "b");
    restarted.WaitForCounters(
        "0 requests, 0 answers, 0 notifications; refused 0, expired 0, duplicates 0, lost 0");
}

TEST_F(AnAttachedBridge, WaitsWhileAnotherOneCarriesAServiceAndThenTakesOver)
{
    const TestBus bus_c;
    Peer other_service(bus_c, "service");
    Bridge waiting = Attach(bus_c);
    waiting.WaitFor("another bridge carries a service of this channel already");
    const Bridge offering = Offer(m_bus_b);
    Peer client(m_bus_b, "client");
    client.WriteLine("send " + client.WaitUntilReady() + " 01");
    EXPECT_EQ("01", m_service.WaitForLine("message "));

    m_attached.Kill();
    client.WaitUntilLost();
    client.WriteLine("send " + client.WaitUntilReady() + " 02");
    EXPECT_EQ("02", other_service.WaitForLine("message "));
}

TEST_F(AnAttachedBridge, IsNotOfferedOnItsOwnBus)
{
    Bridge offering = Offer(m_bus_a);
    offering.WaitFor("refused: the service of the channel is on this very bus");
}

TEST_F(AnAttachedBridge, IsRefusedWhereABridgeOffersTheChannel)
{
    Bridge offering = Offer(m_bus_b);
    offering.WaitFor("the service is offered");
    Bridge second = Attach(m_bus_b);
    second.WaitFor("refused: a bridge of this broker offers the channel on this very bus");
}

class AStateThatNobodyRepeats : public AcrossMachines {
protected:
    // As a broker has it that was killed, and kept what was retained by a bridge that is gone.
    AStateThatNobodyRepeats()
    {
        m_broker.Publish("pelmar/demo/service/0000000000000000", "another-bus",
                         {"message-expiry-interval 2"}, {"-r"});
    }

    Peer m_service{m_bus_a, "service"};
};

TEST_F(AStateThatNobodyRepeats, HoldsUpAnAttachedBridgeOnlyUntilItExpires)
{
    Bridge attached = Attach(m_bus_a);
    attached.WaitFor("another bridge carries a service of this channel already");
    attached.WaitFor("the service is carried");
}

TEST_F(AStateThatNobodyRepeats, IsNotTakenForTheService)
{
    const Bridge offering = Offer(m_bus_b);
    const Bridge attached = Attach(m_bus_a);
    Peer client(m_bus_b, "client");
    WaitUntilWhole(client);
}

class AnOfferingBridge : public AcrossMachines {
protected:
    explicit AnOfferingBridge(const std::string& request_timeout = "20")
        : m_attached(Attach(m_bus_a, {"--request-timeout", request_timeout})),
          m_offering(Offer(m_bus_b, {"--request-timeout", request_timeout, "--max-message", "1000",
                                     "--queue", "4000"}))
    {
        WaitUntilWhole(m_client);
    }

    Peer m_service{m_bus_a, "service"};
    std::unique_ptr<ChildProcess> m_states = m_broker.Listen("pelmar/demo/service/+");
    Bridge m_attached;
    Bridge m_offering;
    Peer m_client{m_bus_b, "client"};
};

class AnImpatientBridge : public AnOfferingBridge {
protected:
    AnImpatientBridge() : AnOfferingBridge("2") {}
};

TEST_F(AnOfferingBridge, LeavesOutANotificationThatComesTwiceOrTooLate)
{
    const std::string session = m_states->WaitForLine("pelmar/demo/service/").substr(0, 16);
    for (const int number : {5, 5, 4, 6}) {
        m_broker.Publish(
            "pelmar/demo/down/" + session, std::to_string(number),
            {"user-property kind notification", "user-property number " + std::to_string(number)});
    }
    EXPECT_EQ("35", m_client.WaitForLine("notification "));
    EXPECT_EQ("36", m_client.WaitForLine("notification "));
    m_offering.WaitForCounters("2 notifications; refused 0, expired 0, duplicates 2, lost 4");
}

TEST_F(AnImpatientBridge, FailsACallThatIsNotAnsweredInTime)
{
    m_service.Signal(SIGSTOP);
    m_client.WriteLine("partners");
    m_client.WriteLine("send " + m_client.WaitForLine("partners ") + "01");
    const std::string error = m_client.WaitForLine("error ");
    EXPECT_EQ(0U, error.find("the partner answered with an error")) << error;
}

// The bridge that was to execute it is stopped meanwhile, so that it finds the call only later.
TEST_F(AnImpatientBridge, HasNoCallExecutedThatItsCallerHasGivenUp)
{
    m_client.WriteLine("partners");
    const std::string partner = m_client.WaitForLine("partners ");
    m_attached.Signal(SIGSTOP);
    m_client.WriteLine("send " + partner + "01");
    EXPECT_EQ(
        "the partner answered with an error: no answer from the remote service within 2 seconds",
        m_client.WaitForLine("error "));
    m_attached.Signal(SIGCONT);
    m_client.WriteLine("send " + partner + "0203");
    m_client.WaitForLine("reply ");
    EXPECT_EQ("0102", m_service.WaitForLine("message "));
    EXPECT_EQ("0203", m_service.WaitForLine("message "));
    m_attached.WaitForCounters("expired 1");
}

TEST_F(AnOfferingBridge, RefusesWhatIsTooLargeAndSaysHowLargeItMayBe)
{
    m_client.WriteLine("partners");
    const std::string partner = m_client.WaitForLine("partners ");
    m_client.WriteLine("send " + partner + std::string(2002, '0'));
    EXPECT_EQ(
        "the partner answered with an error: the message is too large for the bridge: 1001 bytes, "
        "it carries up to 1000",
        m_client.WaitForLine("error "));
    m_client.WriteLine("notify " + std::string(2004, '0'));
    m_offering.WaitFor(
        "the message is too large for the bridge: 1002 bytes, it carries up to 1000");
    m_client.WriteLine("send " + partner + std::string(2000, '0'));
    EXPECT_EQ(std::string(2000, '0'), m_client.WaitForLine("reply "));
}

// What the stopped broker does not take fills the queue.
TEST_F(AnOfferingBridge, RefusesWhatItsQueueHasNoRoomFor)
{
    m_client.WriteLine("partners");
    const std::string partner = m_client.WaitForLine("partners ");
    m_broker.Process().Signal(SIGSTOP);
    for (int i = 0; i < 5; ++i)
        m_client.WriteLine("notify " + std::string(1000, '0'));
    m_offering.WaitFor("a notification found the bridge's queue full");
    m_client.WriteLine("send " + partner + std::string(1000, '0'));
    EXPECT_EQ("the partner answered with an error: the bridge's queue is full",
              m_client.WaitForLine("error "));
}

TEST_F(AnOfferingBridge, ShowsItsCountersWhenItEnds)
{
    m_offering.Signal(SIGTERM);
    m_offering.WaitFor("forwarded 1 requests, 1 answers, 0 notifications");
    EXPECT_EQ(0, m_offering.WaitForEnd());
}

class TwoChannels : public AcrossMachines {};

TEST_F(TwoChannels, ComeAndGoSideBySide)
{
    auto first = std::make_unique<Peer>(m_bus_a, "service", "first");
    Peer second(m_bus_a, "service", "second");
    const Bridge attached(m_bus_a, m_broker, {"--attach", "first", "--attach", "second"});
    Bridge offering(m_bus_b, m_broker, {"--offer", "first", "second"});
    Peer client_of_first(m_bus_b, "client", "first");
    Peer client_of_second(m_bus_b, "client", "second");
    WaitUntilWhole(client_of_first);
    const std::string partner = WaitUntilWhole(client_of_second);
    first->Kill();
    client_of_first.WaitUntilLost();
    client_of_second.WriteLine("send " + partner + " 0a0b");
    EXPECT_EQ("0b0a", client_of_second.WaitForLine("reply "));
    first = std::make_unique<Peer>(m_bus_a, "service", "first");
    WaitUntilWhole(client_of_first);
    offering.Signal(SIGTERM);
    client_of_first.WaitUntilLost();
    client_of_second.WaitUntilLost();
    EXPECT_EQ(0, offering.WaitForEnd());
}

class ASmallBroker : public AcrossMachines {
protected:
    ASmallBroker() : AcrossMachines("allow_anonymous true\nmax_packet_size 20000\n") {}
};

TEST_F(ASmallBroker, SetsTheLargestMessage)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering = Offer(m_bus_b);
    Peer client(m_bus_b, "client");
    const std::string partner = client.WaitUntilReady();
    client.WriteLine("send " + partner + " " + std::string(40000, '0'));
    const std::string error = client.WaitForLine("error ");
    EXPECT_NE(std::string::npos,
              error.find("the message is too large for the bridge: 20000 bytes, it carries up to"))
        << error;
    client.WriteLine("send " + partner + " " + std::string(36000, '0'));
    EXPECT_EQ(std::string(36000, '0'), client.WaitForLine("reply "));
}

}  // namespace
