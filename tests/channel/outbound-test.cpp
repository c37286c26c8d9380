// Notifications, the readiness query and the unsupported SendMessage.

#include <malloc.h>

#include "channel-test.h"

namespace {

const std::string EMISSION =
    R"(log 3 SendNotification "Sending signal with %d bytes\n\n" $count
g_dbus_connection_emit_signal(connection=own, destination=$partner, path=/org/vaska/pelmar/CommunicationChannel/demo, interface=org.vaska.pelmar.DbusCommunication, signal=SendSignal, parameters=(ay)($bytes), error=&null) = )";

std::string Emission(const std::string& count, const std::string& bytes,
                     const std::string& partner = PARTNER)
{
    return Fill(Fill(Fill(EMISSION, "$count", count), "$bytes", bytes), "$partner", partner);
}

class AnOutboundNotification : public ChannelTest {
protected:
    std::string SendTo(const std::string& partner, Bytes data = BytesOf("x"))
    {
        m_channel.SendNotification(data, partner);
        return Take();
    }

    std::string SendToAll(Bytes data = BytesOf("x"))
    {
        m_channel.SendNotification(data);
        return Take();
    }
};

TEST_F(AnOutboundNotification, GoesToTheReadyPartnersUniqueName)
{
    MakeReady(PARTNER);
    EXPECT_EQ("\n" + Emission("3", "[00 7f ff]") + "true\n",
              SendTo(PARTNER, BytesOf(std::string("\0\x7f\xff", 3))));
}

TEST_F(AnOutboundNotification, MayBeEmpty)
{
    MakeReady(PARTNER);
    EXPECT_EQ("\n" + Emission("0", "[]") + "true\n", SendTo(PARTNER, {}));
}

TEST_F(AnOutboundNotification, LeavesTheBufferAsItWas)
{
    MakeReady(PARTNER);
    Bytes data = BytesOf("unchanged");
    m_channel.SendNotification(data, PARTNER);
    m_channel.SendNotification(data);
    EXPECT_EQ(BytesOf("unchanged"), data);
}

TEST_F(AnOutboundNotification, GoesToTheNameInTheRecord)
{
    MakeReady(PARTNER);
    Record(PARTNER).m_partner_dbus_name = ":1.43";
    EXPECT_EQ("\n" + Emission("1", "[78]", ":1.43") + "true\n", SendTo(PARTNER));
}

TEST_F(AnOutboundNotification, ToAnUnknownPartnerInsertsNothing)
{
    EXPECT_EQ(R"(
log 6 SendNotification "Communication partner %s not found in m_partner map.\n\n" :1.42
)",
              SendTo(PARTNER));
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_F(AnOutboundNotification, ToALostPartnerFindsItNoMore)
{
    MakeReady(PARTNER);
    Vanished(PARTNER);
    Take();
    EXPECT_EQ(R"(
log 6 SendNotification "Communication partner %s not found in m_partner map.\n\n" :1.42
)",
              SendTo(PARTNER));
}

const std::string NOT_SET = R"(log 6 SendNotification "Connection not set.\n\n"
)";

TEST_F(AnOutboundNotification, ToAPartnerBeforeTheLastStageIsNotSent)
{
    Released(SYN, PARTNER);
    Take();
    for (const int stage : {0, 1, 2}) {
        Record(PARTNER).m_handshake = stage;
        EXPECT_EQ("\n" + NOT_SET, SendTo(PARTNER));
    }
}

const std::string NO_SUBSCRIPTION = R"(log 6 SendNotification "SignalSubscription not ready\n\n"
)";

TEST_F(AnOutboundNotification, ToAPartnerWithoutSubscriptionIsNotSent)
{
    Record(PARTNER).m_handshake = PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK;
    EXPECT_EQ("\n" + NO_SUBSCRIPTION, SendTo(PARTNER));
}

TEST_F(AnOutboundNotification, ThatGioRefusesCostsOneErrorLine)
{
    MakeReady(PARTNER);
    Trace().Fail("g_dbus_connection_emit_signal", 18, "closed");
    EXPECT_EQ("\n" + Emission("1", "[78]") + R"(false
log 6 SendNotification "Error while sending signal [%d] %s\n\n" 18, closed
g_error_free(closed)
)",
              SendTo(PARTNER));
}

TEST_F(AnOutboundNotification, OnAClosedConnectionCostsOneErrorLine)
{
    BusActor partner(m_bus);
    MakeReady(partner);
    CloseConnection();
    Take();
    Trace().Alias(partner.UniqueName(), PARTNER);
    EXPECT_EQ("\n" + Emission("1", "[78]") + R"(false
log 6 SendNotification "Error while sending signal [%d] %s\n\n" 18, <the message>
g_error_free(<the message>)
)",
              SendTo(partner.UniqueName()));
}

TEST_F(AnOutboundNotification, ThatGioRefusesWithoutAReasonIsSilent)
{
    MakeReady(PARTNER);
    Trace().FailSilently("g_dbus_connection_emit_signal");
    EXPECT_EQ("\n" + Emission("1", "[78]") + "false\n", SendTo(PARTNER));
}

std::size_t AllocatedBytes()
{
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST_F(AnOutboundNotification, ThatGioRefusesIsNotLeaked)
{
    constexpr std::size_t size = 16 * 1024;
    constexpr std::size_t count = 100;
    MakeReady(PARTNER);
    const auto refuse = [&] {
        Trace().FailSilently("g_dbus_connection_emit_signal");
        SendTo(PARTNER, Bytes(size));
    };
    refuse();
    const std::size_t before = AllocatedBytes();
    for (std::size_t i = 0; i < count; ++i)
        refuse();
    EXPECT_LT(AllocatedBytes(), before + count * size / 2);
}

TEST_F(AnOutboundNotification, TakesNoLock)
{
    MakeReady(PARTNER);
    bool was_locked = false;
    Trace().At("", [&] { was_locked = was_locked || IsLocked(); });
    SendToAll();
    EXPECT_FALSE(was_locked);
}

TEST_F(AnOutboundNotification, ReachesThePartnerAndNobodyElse)
{
    BusActor partner(m_bus);
    BusActor stranger(m_bus);
    partner.Listen("demo");
    stranger.Listen("demo");
    MakeReady(partner);
    const Bytes data = BytesOf(std::string("\0\xff", 2));
    SendTo(partner.UniqueName(), data);
    IterateUntil([&] { return !partner.Heard().empty(); }, "the notification");
    EXPECT_EQ(data, partner.Heard().front());
    stranger.Settle();
    DispatchPending();
    EXPECT_TRUE(stranger.Heard().empty());
}

// ---- To all --------------------------------------------------------------------------------

std::string CountOf(int count)
{
    return "\nlog 3 SendNotification \"Number of partners to iterate is: %d\\n\\n\" " +
           std::to_string(count) + "\n";
}

std::string For(const std::string& partner)
{
    return "log 3 SendNotification \"Sending notification for partner: %s\\n\\n\" " + partner +
           "\n";
}

TEST_F(AnOutboundNotification, ToAllOfNobodyLogsTheCountOnly)
{
    EXPECT_EQ(CountOf(0), SendToAll());
}

TEST_F(AnOutboundNotification, ToAllGoesToTheReadyOnesInTheByteOrderOfTheirNames)
{
    MakeReady(":1.9");
    MakeReady(":1.10");
    Released(SYN, ":1.2");
    Record(":1.3").m_handshake = PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK;
    Take();
    EXPECT_EQ(CountOf(4) + For(":1.10") + Emission("1", "[78]", ":1.10") + "true\n" + For(":1.2") +
                  NOT_SET + For(":1.3") + NO_SUBSCRIPTION + For(":1.9") +
                  Emission("1", "[78]", ":1.9") + "true\n",
              SendToAll());
}

TEST_F(AnOutboundNotification, ToAllGoesOnAfterAFailure)
{
    MakeReady(":1.1");
    MakeReady(":1.2");
    Trace().Fail("g_dbus_connection_emit_signal", 0, "once");
    EXPECT_EQ(CountOf(2) + For(":1.1") + Emission("1", "[78]", ":1.1") + R"(false
log 6 SendNotification "Error while sending signal [%d] %s\n\n" 0, once
g_error_free(once)
)" + For(":1.2") + Emission("1", "[78]", ":1.2") +
                  "true\n",
              SendToAll());
}

// ---- The query -----------------------------------------------------------------------------

class TheReadinessQuery : public AnOutboundNotification {};

TEST_F(TheReadinessQuery, OfAnUnknownNameLeavesARecordThatABroadcastVisits)
{
    EXPECT_FALSE(m_channel.IsConnectionReady(PARTNER));
    EXPECT_EQ("\n", Take());
    ASSERT_TRUE(Knows(PARTNER));
    EXPECT_EQ("", Record(PARTNER).m_partner_dbus_name);
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, Record(PARTNER).m_handshake);
    EXPECT_EQ(CountOf(1) + For(PARTNER) + NOT_SET, SendToAll());
}

TEST_F(TheReadinessQuery, IsTrueAtTheLastStageOnly)
{
    for (const int stage : {0, 1, 2, 3, 4}) {
        Record(PARTNER).m_handshake = stage;
        EXPECT_EQ(stage == 3, m_channel.IsConnectionReady(PARTNER)) << stage;
    }
}

TEST_F(TheReadinessQuery, IsFalseAfterTheSynStageAndTrueAfterTheAckStage)
{
    Released(SYN, PARTNER);
    EXPECT_FALSE(m_channel.IsConnectionReady(PARTNER));
    Released(ACK, PARTNER);
    EXPECT_TRUE(m_channel.IsConnectionReady(PARTNER));
}

TEST_F(TheReadinessQuery, TakesNoLock)
{
    pthread_mutex_lock(&m_channel.m_mutex.m_mutex);
    EXPECT_FALSE(m_channel.IsConnectionReady(PARTNER));
    pthread_mutex_unlock(&m_channel.m_mutex.m_mutex);
}

// ---- SendMessage ---------------------------------------------------------------------------

TEST_F(AnOutboundNotification, IsTheOnlyWayOutAsMessagesAreNotSupported)
{
    MakeReady(PARTNER);
    for (Bytes data : {Bytes(), BytesOf("x")}) {
        EXPECT_TRUE(m_channel.SendMessage(data).empty());
        EXPECT_EQ("\nlog 3 SendMessage \"Message sending is no supported!\\n\"\n", Take());
    }
}

}  // namespace
