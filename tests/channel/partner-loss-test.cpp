// The loss of a partner.

#include <stdexcept>

#include "channel-test.h"

namespace {

const std::string VANISHED = R"(
log 3 cb_PartnerNameVanished "cb_PartnerNameVanished name=%s\n\n" :1.42
)";

const std::string LOST = R"(lock
log 3 cb_PartnerNameVanished "Connection lost with partner id=%s\n\n" :1.42
HandleConnectionReady(false, :1.42)
)";

const std::string UNWATCHED =
    R"(log 3 cb_PartnerNameVanished "Stop watching old partner messages.\n\n"
g_bus_unwatch_name(id=watch#1)
)";

const std::string UNREFERENCED = "g_object_unref(proxy#1)\n";

const std::string UNSUBSCRIBED =
    "g_dbus_connection_signal_unsubscribe(connection=own, id=subscription#4)\n";

const std::string REMOVED =
    R"(log 3 cb_PartnerNameVanished "Removed %s connection owner from m_partner\n" :1.42
unlock
)";

class APartnersLoss : public ChannelTest {};

TEST_F(APartnersLoss, IsReportedAndItsResourcesAreReleasedInOrder)
{
    MakeReady(PARTNER);
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + UNWATCHED + UNREFERENCED + UNSUBSCRIBED + REMOVED, Take());
    EXPECT_FALSE(Knows(PARTNER));
}

TEST_F(APartnersLoss, IsReportedOfAPartnerThatWasNeverReady)
{
    Released(SYN, PARTNER);
    Take();
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + UNWATCHED + UNREFERENCED + UNSUBSCRIBED + REMOVED, Take());
    EXPECT_FALSE(Knows(PARTNER));
}

TEST_F(APartnersLoss, WithoutAProxyReleasesTheRest)
{
    Trace().Fail("g_dbus_proxy_new_sync", 0, "no proxy");
    MakeReady(PARTNER);
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + UNWATCHED + UNSUBSCRIBED + REMOVED, Take());
}

TEST_F(APartnersLoss, WithoutAWatchSaysNothingOfWatching)
{
    MakeReady(PARTNER);
    Record(PARTNER).m_proxy_watch = 0;
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + UNREFERENCED + UNSUBSCRIBED + REMOVED, Take());
}

TEST_F(APartnersLoss, WithoutASubscriptionReleasesTheRest)
{
    MakeReady(PARTNER);
    Record(PARTNER).m_signal_id = 0;
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + UNWATCHED + UNREFERENCED + REMOVED, Take());
}

TEST_F(APartnersLoss, OfAnUnknownNameOnlyLogs)
{
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + "lock\n" + REMOVED, Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_F(APartnersLoss, OfARecordWithAnotherNameRemovesItUnreleased)
{
    for (const char* name : {"", ":1.43"}) {
        Record(PARTNER).m_partner_dbus_name = name;
        Record(PARTNER).m_proxy_watch = 7;
        Record(PARTNER).m_signal_id = 8;
        Vanished(PARTNER);
        EXPECT_EQ(VANISHED + "lock\n" + REMOVED, Take());
        EXPECT_FALSE(Knows(PARTNER));
    }
}

TEST_F(APartnersLoss, IsRefusedWithoutConnectionOrChannelAndTheRecordStays)
{
    MakeReady(PARTNER);
    const std::string refused =
        VANISHED + R"(log 6 cb_PartnerNameVanished "Empty user_data or connection not valid.\n\n"
)";
    PelmarDbusLocal::cb_PartnerNameVanished(nullptr, PARTNER.c_str(), m_user_data);
    EXPECT_EQ(refused, Take());
    PelmarDbusLocal::cb_PartnerNameVanished(m_channel.m_connection, PARTNER.c_str(), nullptr);
    EXPECT_EQ(refused, Take());
    EXPECT_EQ(PARTNER, Record(PARTNER).m_partner_dbus_name);
    EXPECT_EQ("watch#1", Trace().ShowId(Record(PARTNER).m_proxy_watch));
    EXPECT_EQ("proxy#1", Trace().ShowObject(Record(PARTNER).m_proxy));
    EXPECT_EQ("subscription#4", Trace().ShowId(Record(PARTNER).m_signal_id));
}

TEST_F(APartnersLoss, UnsubscribesOnTheConnectionThatItWasCalledWith)
{
    MakeReady(PARTNER);
    BusActor stranger(m_bus);
    Trace().Alias(stranger.Connection(), "another");
    PelmarDbusLocal::cb_PartnerNameVanished(stranger.Connection(), PARTNER.c_str(), m_user_data);
    EXPECT_EQ(
        VANISHED + LOST + UNWATCHED + UNREFERENCED + Fill(UNSUBSCRIBED, "own", "another") + REMOVED,
        Take());
}

TEST_F(APartnersLoss, LeavesTheOthersAndTheChannelAsTheyWere)
{
    MakeReady(PARTNER);
    MakeReady(":1.43");
    Vanished(PARTNER);
    Take();
    EXPECT_EQ(1U, m_channel.m_partner.size());
    EXPECT_EQ(":1.43", Record(":1.43").m_partner_dbus_name);
    EXPECT_EQ("watch#2", Trace().ShowId(Record(":1.43").m_proxy_watch));
    EXPECT_EQ("proxy#2", Trace().ShowObject(Record(":1.43").m_proxy));
    EXPECT_EQ("subscription#5", Trace().ShowId(Record(":1.43").m_signal_id));
    EXPECT_TRUE(m_channel.IsConnectionReady(":1.43"));
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel.m_handshake);
    EXPECT_EQ("subscription#1", Trace().ShowId(m_channel.m_notification_watch_syn));
    EXPECT_EQ("subscription#2", Trace().ShowId(m_channel.m_notification_watch_syn_ack));
    EXPECT_EQ("subscription#3", Trace().ShowId(m_channel.m_notification_watch_ack));
}

TEST_F(APartnersLoss, ForgetsEachHandleAsItReleasesIt)
{
    MakeReady(PARTNER);
    std::vector<bool> seen;
    const auto look = [&](const std::string& line, const std::function<bool()>& holds) {
        Trace().At(line, [&seen, holds] { seen.push_back(holds()); });
    };
    look("g_bus_unwatch_name",
         [&] { return Record(PARTNER).m_proxy_watch != 0 && Record(PARTNER).m_proxy != nullptr; });
    look("g_object_unref",
         [&] { return Record(PARTNER).m_proxy_watch == 0 && Record(PARTNER).m_signal_id != 0; });
    look("g_dbus_connection_signal_unsubscribe",
         [&] { return Record(PARTNER).m_proxy == nullptr && Record(PARTNER).m_handshake == 3; });
    look("log 3 cb_PartnerNameVanished \"Removed", [&] {
        return Knows(PARTNER) && Record(PARTNER).m_signal_id == 0 &&
               Record(PARTNER).m_handshake == PelmarDbusLocal::CONNECTION_NOT_STARTED;
    });
    Vanished(PARTNER);
    EXPECT_EQ(std::vector<bool>(4, true), seen);
}

TEST_F(APartnersLoss, IsHandledWithTheLockHeld)
{
    MakeReady(PARTNER);
    std::vector<bool> locked;
    for (const char* line : {"log", "g_", "Handle"})
        Trace().At(line, [&] { locked.push_back(IsLocked()); });
    Vanished(PARTNER);
    EXPECT_EQ((std::vector<bool>{false, true, true, true, true, true, true, true}), locked);
    EXPECT_FALSE(IsLocked());
}

TEST_F(APartnersLoss, KeepsTheRecordUsableWhileTheHandlerRuns)
{
    MakeReady(PARTNER);
    m_channel.m_on_ready = [&] {
        EXPECT_TRUE(IsLocked());
        EXPECT_EQ("", Record(PARTNER).m_partner_dbus_name);
        EXPECT_EQ("watch#1", Trace().ShowId(Record(PARTNER).m_proxy_watch));
        EXPECT_EQ("proxy#1", Trace().ShowObject(Record(PARTNER).m_proxy));
        EXPECT_EQ("subscription#4", Trace().ShowId(Record(PARTNER).m_signal_id));
        EXPECT_TRUE(m_channel.IsConnectionReady(PARTNER));
        Take();
        Bytes farewell = BytesOf("bye");
        m_channel.SendNotification(farewell, PARTNER);
        // GIO refuses an empty destination, without an error.
        EXPECT_EQ(R"(
log 3 SendNotification "Sending signal with %d bytes\n\n" 3
g_dbus_connection_emit_signal(connection=own, destination="", path=/org/vaska/pelmar/CommunicationChannel/demo, interface=org.vaska.pelmar.DbusCommunication, signal=SendSignal, parameters=(ay)([62 79 65]), error=&null) = false
)",
                  Take());
    };
    Vanished(PARTNER);
    EXPECT_EQ("\n" + UNWATCHED + UNREFERENCED + UNSUBSCRIBED + REMOVED, Take());
}

TEST_F(APartnersLoss, LooksTheRecordUpAgainAfterTheHandler)
{
    MakeReady(PARTNER);
    m_channel.m_on_ready = [&] { m_channel.m_partner.erase(PARTNER); };
    Vanished(PARTNER);
    EXPECT_EQ(VANISHED + LOST + REMOVED, Take());
    EXPECT_FALSE(Knows(PARTNER));
}

TEST_F(APartnersLoss, WhoseHandlerThrowsReleasesTheLock)
{
    MakeReady(PARTNER);
    m_channel.m_on_ready = [] { throw std::runtime_error("thrown by the application"); };
    EXPECT_THROW(Vanished(PARTNER), std::runtime_error);
    EXPECT_EQ(VANISHED + LOST + "unlock\n", Take());
    EXPECT_FALSE(IsLocked());
}

TEST_F(APartnersLoss, IsToldByTheBusAndTheRestartedPartnerIsTakenInAgain)
{
    BusActor partner(m_bus);
    MakeReady(partner);
    partner.Leave();
    IterateUntil([&] { return m_channel.m_partner.empty(); }, "the partner's loss");

    BusActor restarted(m_bus);
    MakeReady(restarted);
}

TEST_F(APartnersLoss, IsToldOfAPartnerThatWasGoneBeforeItWasWatched)
{
    Released(SYN_ACK, PARTNER);
    EXPECT_TRUE(m_channel.IsConnectionReady(PARTNER));
    IterateUntil([&] { return m_channel.m_partner.empty(); }, "the loss of a partner long gone");
    const std::string trace = Take();
    EXPECT_NE(std::string::npos, trace.find("HandleConnectionReady(false, :1.42)")) << trace;
}

TEST_F(APartnersLoss, IsNotReportedWhenTheConnectionIsLost)
{
    BusActor partner(m_bus);
    MakeReady(partner);
    Trace().Alias(partner.UniqueName(), PARTNER);
    CloseConnection();
    std::string trace = "\n";
    IterateUntil([&] { return (trace += Take().substr(1)).size() > 1; }, "the notification");
    EXPECT_EQ(
        VANISHED + R"(log 6 cb_PartnerNameVanished "Empty user_data or connection not valid.\n\n"
)",
        trace);
    EXPECT_TRUE(m_channel.IsConnectionReady(partner.UniqueName()));
}

}  // namespace
