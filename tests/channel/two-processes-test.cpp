// Two real processes, one of each role, on a real daemon.

#include <gtest/gtest.h>

#include "peer-process.h"
#include "test-bus.h"

namespace {

using Role = PeerProcess::Role;

class TwoProcesses : public testing::Test {
protected:
    static void ExpectReady(PeerProcess& service, PeerProcess& client)
    {
        EXPECT_EQ(client.Name(), service.WaitForLine("ready "));
        EXPECT_EQ(service.Name(), client.WaitForLine("ready "));
    }

    TestBus m_bus;
};

TEST_F(TwoProcesses, FindEachOtherWhenTheServiceIsFirst)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);
}

TEST_F(TwoProcesses, FindEachOtherWhenTheClientIsFirst)
{
    PeerProcess client(Role::client, "demo");
    PeerProcess service(Role::service, "demo");
    ExpectReady(service, client);
}

TEST_F(TwoProcesses, DoNotFindEachOtherUnderDifferentChannelNames)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess stray(Role::client, "other");
    PeerProcess client(Role::client, "demo");
    // The stray was there first, so it would have been reported first.
    ExpectReady(service, client);
}

TEST_F(TwoProcesses, LoseAPartnerThatIsKilled)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);
    client.Kill();
    EXPECT_EQ(client.Name(), service.WaitForLine("lost "));
}

TEST_F(TwoProcesses, FindARestartedPartnerUnderItsNewName)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);
    service.Kill();
    EXPECT_EQ(service.Name(), client.WaitForLine("lost "));

    PeerProcess restarted(Role::service, "demo");
    EXPECT_NE(service.Name(), restarted.Name());
    ExpectReady(restarted, client);
}

TEST_F(TwoProcesses, ServeASecondPartnerBesideTheFirst)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess first(Role::client, "demo");
    ExpectReady(service, first);
    PeerProcess second(Role::client, "demo");
    ExpectReady(service, second);

    service.WriteLine("notify 0102");
    EXPECT_EQ("0102", first.WaitForLine("notification "));
    EXPECT_EQ("0102", second.WaitForLine("notification "));

    service.WriteLine("notify-to " + second.Name() + " 03");
    service.WriteLine("notify 04");
    EXPECT_EQ("04", first.WaitForLine("notification "));
    EXPECT_EQ("03", second.WaitForLine("notification "));
    EXPECT_EQ("04", second.WaitForLine("notification "));
}

TEST_F(TwoProcesses, CarryEveryByteOfAMessageBothWays)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);

    client.WriteLine("send " + service.Name() + " 00017f80ff00");
    EXPECT_EQ("00017f80ff00", service.WaitForLine("message "));
    EXPECT_EQ("00ff807f0100", client.WaitForLine("reply "));

    service.WriteLine("send " + client.Name() + " ff00");
    EXPECT_EQ("ff00", client.WaitForLine("message "));
    EXPECT_EQ("00ff", service.WaitForLine("reply "));
}

TEST_F(TwoProcesses, CarryEveryByteOfANotificationBothWays)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);

    service.WriteLine("notify 00017f80ff00");
    EXPECT_EQ("00017f80ff00", client.WaitForLine("notification "));
    client.WriteLine("notify ff00");
    EXPECT_EQ("ff00", service.WaitForLine("notification "));
    client.WriteLine("notify");
    EXPECT_EQ("", service.WaitForLine("notification "));
}

TEST_F(TwoProcesses, AnswerByTheDefaultHandlersWithTextAndName)
{
    PeerProcess service(Role::service, "demo", {"--default-handlers"});
    PeerProcess client(Role::client, "demo");
    EXPECT_EQ(service.Name(), client.WaitForLine("ready "));

    client.WriteLine("send " + service.Name() + " 68656c6c6f");
    EXPECT_EQ("", service.WaitForLine("hello"));
    std::string expected;
    for (const char character : "Default handler from : " + service.Name()) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(character));
        expected += digits;
    }
    EXPECT_EQ(expected, client.WaitForLine("reply "));

    client.WriteLine("notify 776f726c64");
    EXPECT_EQ("", service.WaitForLine("world"));
}

TEST_F(TwoProcesses, GoOnAfterAPartnersCallToAnotherPath)
{
    PeerProcess service(Role::service, "demo");
    PeerProcess client(Role::client, "demo");
    ExpectReady(service, client);
    client.WriteLine("send :1.99999 00");
    EXPECT_NE("", client.WaitForLine("error "));
    client.WriteLine("send " + service.Name() + " 2a");
    EXPECT_EQ("2a", client.WaitForLine("reply "));
}

}  // namespace
