// The bridge as its users see it: programs on two buses that know nothing of it, and a broker.

#include <gtest/gtest.h>

#include <chrono>

#include "across-machines.h"
#include "bus-actor.h"
#include "main-loop.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

std::string DigestOf(const Bytes& data)
{
    gchar* sum = g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(data.data()), data.size());
    const std::string digest = std::to_string(data.size()) + " " + sum;
    g_free(sum);
    return digest;
}

using AChannelAcrossMachines = AcrossMachines;

TEST_F(AChannelAcrossMachines, CarriesAFileOfTenMebibytesToTheDigestServiceAndItsAnswersBack)
{
    const TemporaryFolder folder;
    constexpr std::size_t size = 10UL * 1024 * 1024;
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>((i * i) >> 7U);
    const std::string file = folder.Write("file", text);

    Program service(m_bus_a, {PELMAR_DIGEST_SERVICE, "--channel", "demo"});
    service.WaitForLine("listening on");
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering = Offer(m_bus_b);
    Program client(m_bus_b, {PELMAR_DIGEST_CLIENT, "--channel", "demo", file});
    EXPECT_EQ("10485760 bytes in 160 messages, every answer agrees",
              client.WaitForLine(file + ": "));
    EXPECT_EQ(0, client.WaitForEnd());
}

TEST_F(AChannelAcrossMachines, CarriesOneMessageOfTenMebibytes)
{
    Program service(m_bus_a, {PELMAR_DIGEST_SERVICE, "--channel", "demo"});
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering = Offer(m_bus_b);
    Peer client(m_bus_b, "client");
    const std::string bridge = client.WaitUntilReady();

    Bytes data(10UL * 1024 * 1024);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>((i * i) >> 7U);
    BusActor caller(m_bus_b);
    const auto call = caller.Send(bridge, "demo", data);
    IterateUntil([&] { return call->Done(); }, "the answer");
    ASSERT_TRUE(call->reply) << call->error;
    EXPECT_EQ(DigestOf(data), std::string(call->reply->begin(), call->reply->end()));
}

TEST_F(AChannelAcrossMachines, CarriesEveryByteOfCallsAndNotifications)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering = Offer(m_bus_b);
    Peer client(m_bus_b, "client");
    const std::string bridge = client.WaitUntilReady();

    client.WriteLine("send " + bridge + " 00017f80ff00");
    EXPECT_EQ("00017f80ff00", service.WaitForLine("message "));
    EXPECT_EQ("00ff807f0100", client.WaitForLine("reply "));
    client.WriteLine("send " + bridge);
    EXPECT_EQ("", client.WaitForLine("reply "));
    service.WriteLine("notify 00017f80ff00");
    EXPECT_EQ("00017f80ff00", client.WaitForLine("notification "));
    client.WriteLine("notify ff00");
    EXPECT_EQ("ff00", service.WaitForLine("notification "));
}

TEST_F(AChannelAcrossMachines, KeepsTheOrderOfEachSender)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering = Offer(m_bus_b);
    Peer client(m_bus_b, "client");
    WaitUntilWhole(client);
    for (int i = 0x1000; i < 0x1200; ++i) {
        char line[32];
        std::snprintf(line, sizeof(line), "notify %04x", static_cast<unsigned>(i));
        service.WriteLine(line);
        client.WriteLine(line);
    }
    for (int i = 0x1000; i < 0x1200; ++i) {
        char payload[8];
        std::snprintf(payload, sizeof(payload), "%04x", static_cast<unsigned>(i));
        ASSERT_EQ(payload, client.WaitForLine("notification "));
        ASSERT_EQ(payload, service.WaitForLine("notification "));
    }
}

TEST_F(AChannelAcrossMachines, ReachesTheClientsOfSeveralMachines)
{
    const TestBus bus_c;
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a);
    const Bridge offering_b = Offer(m_bus_b);
    const Bridge offering_c = Offer(bus_c);
    Peer client_b(m_bus_b, "client");
    Peer client_c(bus_c, "client");
    const std::string bridge_b = WaitUntilWhole(client_b);
    const std::string bridge_c = WaitUntilWhole(client_c);
    service.WriteLine("notify 01");
    EXPECT_EQ("01", client_b.WaitForLine("notification "));
    EXPECT_EQ("01", client_c.WaitForLine("notification "));
    client_b.WriteLine("send " + bridge_b + " 0b0000");
    client_c.WriteLine("send " + bridge_c + " 0c0000");
    EXPECT_EQ("00000b", client_b.WaitForLine("reply "));
    EXPECT_EQ("00000c", client_c.WaitForLine("reply "));
}

// One bridge is one partner of the service; a machine that is to be addressed alone has its own.
TEST_F(AChannelAcrossMachines, LetsTheServiceNotifyOneMachineThatHasABridgeOfItsOwn)
{
    const TestBus bus_c;
    Peer service(m_bus_a, "service");
    const Bridge attached_b = Attach(m_bus_a, {"--topic-prefix", "pelmar/b"});
    const std::string partner_b = service.WaitUntilReady();
    const Bridge attached_c = Attach(m_bus_a, {"--topic-prefix", "pelmar/c"});
    const std::string partner_c = service.WaitUntilReady();
    const Bridge offering_b = Offer(m_bus_b, {"--topic-prefix", "pelmar/b"});
    const Bridge offering_c = Offer(bus_c, {"--topic-prefix", "pelmar/c"});
    Peer client_b(m_bus_b, "client");
    Peer client_c(bus_c, "client");
    WaitUntilWhole(client_b);
    WaitUntilWhole(client_c);
    service.WriteLine("notify-to " + partner_c + " 0c");
    service.WriteLine("notify 0a");
    EXPECT_EQ("0a", client_b.WaitForLine("notification "));
    EXPECT_EQ("0c", client_c.WaitForLine("notification "));
    EXPECT_EQ("0a", client_c.WaitForLine("notification "));
}

TEST_F(AChannelAcrossMachines, WorksWithoutAcknowledgementsToo)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a, {"--qos", "0"});
    const Bridge offering = Offer(m_bus_b, {"--qos", "0"});
    Peer client(m_bus_b, "client");
    WaitUntilWhole(client);
}

TEST_F(AChannelAcrossMachines, RefusesACallFromTheServiceWithTheReason)
{
    Peer service(m_bus_a, "service");
    const Bridge attached = Attach(m_bus_a);
    service.WriteLine("send " + service.WaitUntilReady() + " 01");
    EXPECT_EQ(
        "the partner answered with an error: a bridge carries calls from clients to the service "
        "only",
        service.WaitForLine("error "));
}

// ---- Killing each part ---------------------------------------------------------------------

class AKilledPart : public AChannelAcrossMachines {
protected:
    AKilledPart() { EXPECT_EQ(":", m_client->WaitUntilReady().substr(0, 1)); }

    void ExpectLostWithin(seconds time)
    {
        const auto start = steady_clock::now();
        m_client->WaitUntilLost();
        EXPECT_LT(steady_clock::now() - start, time);
    }

    // Both directions work, and nothing of before comes now.
    void ExpectBackWithin(seconds time)
    {
        const auto start = steady_clock::now();
        WaitUntilWhole(*m_client);
        EXPECT_LT(steady_clock::now() - start, time);
        m_service->WriteLine("notify 03");
        EXPECT_EQ("03", m_client->WaitForLine("notification "));
    }

    template <typename Program, typename... Arguments>
    void Restart(std::unique_ptr<Program>& program, const Arguments&... arguments)
    {
        program = std::make_unique<Program>(arguments...);
    }

    const std::vector<std::string> m_attach{"--attach", "demo"};
    const std::vector<std::string> m_offer{"--offer", "demo"};
    std::unique_ptr<Peer> m_service = std::make_unique<Peer>(m_bus_a, "service");
    std::unique_ptr<Bridge> m_attached = std::make_unique<Bridge>(m_bus_a, m_broker, m_attach);
    std::unique_ptr<Bridge> m_offering = std::make_unique<Bridge>(m_bus_b, m_broker, m_offer);
    std::unique_ptr<Peer> m_client = std::make_unique<Peer>(m_bus_b, "client");
};

TEST_F(AKilledPart, IsReportedAndReplacedWhenItIsTheService)
{
    m_service->Kill();
    ExpectLostWithin(seconds(2));
    Restart(m_service, m_bus_a, "service");
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, IsReportedAndReplacedWhenItIsTheAttachedBridge)
{
    m_attached->Kill();
    ExpectLostWithin(seconds(2));
    Restart(m_attached, m_bus_a, m_broker, m_attach);
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, IsReportedAndReplacedWhenItIsTheOfferingBridge)
{
    m_offering->Kill();
    ExpectLostWithin(seconds(2));
    Restart(m_offering, m_bus_b, m_broker, m_offer);
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, IsReportedAndReplacedWhenItIsTheBroker)
{
    m_broker.Kill();
    ExpectLostWithin(seconds(2));
    m_broker.Start();
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, IsReplacedWhenItIsTheClient)
{
    m_client->Kill();
    Restart(m_client, m_bus_b, "client");
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, IsReplacedWhenItIsTheBusOfTheClient)
{
    m_bus_b.Kill();
    m_client->WaitForLine("bus_lost");
    m_bus_b.Start();
    m_client->WaitForLine("bus_back");
    ExpectBackWithin(seconds(10));
}

TEST_F(AKilledPart, IsReportedAndReplacedWhenItIsTheBusOfTheService)
{
    m_bus_a.Kill();
    ExpectLostWithin(seconds(2));
    m_bus_a.Start();
    ExpectBackWithin(seconds(10));
}

TEST_F(AKilledPart, IsNoDifferentWhenTheAttachedBridgeIsStopped)
{
    const auto states = m_broker.Listen("pelmar/demo/service/+");
    const std::string state = states->WaitForLine("pelmar/demo/service/");
    m_attached->Signal(SIGTERM);
    EXPECT_EQ(0, m_attached->WaitForEnd());
    EXPECT_EQ("(null)", states->WaitForLine("pelmar/demo/service/" + state.substr(0, 16) + " "));
    m_client->WaitUntilLost();
    Restart(m_attached, m_bus_a, m_broker, m_attach);
    ExpectBackWithin(seconds(2));
}

TEST_F(AKilledPart, FailsTheCallThatItWasToAnswer)
{
    m_service->Signal(SIGSTOP);
    m_client->WriteLine("partners");
    m_client->WriteLine("send " + m_client->WaitForLine("partners ") + "01");
    m_attached->WaitForCounters("1 requests");
    m_service->Kill();
    const auto start = steady_clock::now();
    m_client->WaitForLine("error ");
    EXPECT_LT(steady_clock::now() - start, seconds(2));
}

}  // namespace
