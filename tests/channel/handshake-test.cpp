// The three stage watchers.

#include <stdexcept>

#include "channel-test.h"

namespace {

// What every stage does first with a change of its name's owner from $old to $new.
const std::string HEADING = R"(
log 3 $handler "$handler called\n"
lock
log 3 $handler "$handler %s %s from '%s' => '%s' \n\n" org.vaska.Pelmar.demo_PEER$suffix, self, $old, $new
)";

const std::string MONITOR = R"(log 3 $handler "Monitor unique name %s\n\n" :1.42
g_bus_watch_name_on_connection(connection=$connection, name=:1.42, flags=0, appeared=null, vanished=cb_PartnerNameVanished, data=channel, free=null) = watch#1
log 3 $handler "Partner is available and has unique name %s\n\n" :1.42
)";

const std::string PROXY =
    R"(log 3 $handler "Create proxy for %s on obj %s\n\n" :1.42, /org/vaska/pelmar/CommunicationChannel/demo
g_dbus_proxy_new_sync(connection=$connection, flags=1, info=null, name=:1.42, path=/org/vaska/pelmar/CommunicationChannel/demo, interface=org.vaska.pelmar.DbusCommunication, cancellable=null, error=&null) = )";

const std::string SUBSCRIPTION =
    R"(log 3 $handler "Subscribe for signals from %s on object %s.\n\n" :1.42, /org/vaska/pelmar/CommunicationChannel/demo
g_dbus_connection_signal_subscribe(connection=$connection, sender=:1.42, interface=org.vaska.pelmar.DbusCommunication, member=null, path=/org/vaska/pelmar/CommunicationChannel/demo, arg0=null, flags=0, callback=cb_SignalCall, data=channel, free=null) = subscription#4
)";

const std::string ALREADY_EXISTS = R"(log 3 $handler "Owner %s already exists\n" :1.42
unlock
)";

const std::string READY = "HandleConnectionReady(true, :1.42)\n";

class AStage : public StageTest {
protected:
    // The trace of this stage. The change is a release by the partner unless told otherwise.
    std::string ForStage(const std::string& trace, const std::string& old_owner = PARTNER,
                         const std::string& new_owner = "\"\"") const
    {
        std::string filled =
            Fill(Fill(trace, "$handler", GetParam().handler), "$suffix", GetParam().suffix);
        filled = Fill(Fill(filled, "$old", old_owner), "$new", new_owner);
        return Fill(filled, "$connection", "own");
    }

    // What follows the wiring in the two stages that wire a partner up.
    std::string Answer() const
    {
        if (GetParam().suffix == names::SYN)
            return PulseTrace("_SYN_ACK");
        return PulseTrace("_ACK") + READY;
    }

    int StageAfterWiring() const
    {
        return GetParam().suffix == names::SYN ? PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN_ACK
                                               : PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK;
    }

    void Release(const std::string& partner = PARTNER) { Released(GetParam(), partner); }

    void ExpectWired()
    {
        EXPECT_EQ(1U, m_channel.m_partner.size());
        EXPECT_EQ(PARTNER, Record(PARTNER).m_partner_dbus_name);
        EXPECT_EQ("watch#1", Trace().ShowId(Record(PARTNER).m_proxy_watch));
        EXPECT_EQ("subscription#4", Trace().ShowId(Record(PARTNER).m_signal_id));
        EXPECT_EQ(StageAfterWiring(), Record(PARTNER).m_handshake);
    }
};

// ---- What all three have in common ---------------------------------------------------------

TEST_P(AStage, IgnoresTheAcquisitionHalfOfAPulse)
{
    OwnerChanged(GetParam(), "", PARTNER, m_channel.m_connection);
    EXPECT_EQ(ForStage(HEADING, "\"\"", PARTNER) + "unlock\n", Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_P(AStage, IgnoresATransferToANewOwner)
{
    OwnerChanged(GetParam(), PARTNER, ":1.43", m_channel.m_connection);
    EXPECT_EQ(ForStage(HEADING, PARTNER, ":1.43") + "unlock\n", Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_P(AStage, IgnoresTheChannelsOwnPulse)
{
    Release(OwnName());
    EXPECT_EQ(ForStage(HEADING, "self") + "unlock\n", Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_P(AStage, RefusesACallWithoutConnectionOrChannelBeforeItLocks)
{
    const std::string expected = ForStage(R"(
log 3 $handler "$handler called\n"
log 6 $handler "Empty user_data or connection not valid.\n\n"
)");
    OwnerChanged(GetParam(), PARTNER, "", nullptr);
    EXPECT_EQ(expected, Take());
    m_user_data = nullptr;
    OwnerChanged(GetParam(), PARTNER, "", m_channel.m_connection);
    EXPECT_EQ(expected, Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_P(AStage, LeavesTheChannelsOwnStageAlone)
{
    Release();
    Release();
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel.m_handshake);
}

TEST_P(AStage, HoldsTheLockWhileItWorks)
{
    std::vector<bool> locked;
    const auto look = [&] { locked.push_back(IsLocked()); };
    for (const char* line : {"log 3 cb_", "g_", "log 3 BroadcastName", "Handle"})
        Trace().At(line, look);
    Release();
    ASSERT_LE(3U, locked.size());
    EXPECT_FALSE(locked.front()) << "in the first line, before any check";
    EXPECT_EQ(std::vector<bool>(locked.size() - 1, true),
              std::vector<bool>(locked.begin() + 1, locked.end()));
    EXPECT_FALSE(IsLocked());
}

TEST_P(AStage, IsReachedByAPeersPulseOfItsName)
{
    BusActor partner(m_bus);
    Trace().Alias(partner.UniqueName(), PARTNER);
    partner.Pulse(names::Peer("demo", GetParam().suffix));
    IterateUntil([&] { return Knows(partner.UniqueName()); }, "the stage");
    const std::string trace = Take();
    const std::string acquisition = ForStage(HEADING, "\"\"", PARTNER) + "unlock\n";
    const std::string release = ForStage(HEADING).substr(1);
    EXPECT_EQ(acquisition + release, trace.substr(0, (acquisition + release).size()));
}

TEST_P(AStage, TakesTheOldOwnerForThePartnerWhateverTheNameIs)
{
    GVariant* change = g_variant_ref_sink(g_variant_new("(sss)", "any.name", PARTNER.c_str(), ""));
    GetParam().callback(m_channel.m_connection, nullptr, nullptr, nullptr, nullptr, change,
                        m_user_data);
    g_variant_unref(change);
    const std::string expected =
        Fill(ForStage(HEADING), names::Base("demo") + "_PEER" + GetParam().suffix, "any.name");
    EXPECT_EQ(expected, Take().substr(0, expected.size()));
    EXPECT_TRUE(Knows(PARTNER));
}

INSTANTIATE_TEST_SUITE_P(Handshake, AStage, testing::Values(SYN, SYN_ACK, ACK),
                         testing::PrintToStringParamName());

// ---- SYN and SYN_ACK -----------------------------------------------------------------------

class AWiringStage : public AStage {
protected:
    std::string Wired() const
    {
        return ForStage(HEADING + MONITOR + PROXY) + "proxy#1\n" + ForStage(SUBSCRIPTION) +
               Answer() + "unlock\n";
    }
};

TEST_P(AWiringStage, WiresANewPartnerUpAndAnswers)
{
    Release();
    EXPECT_EQ(Wired(), Take());
    ExpectWired();
    EXPECT_EQ("proxy#1", Trace().ShowObject(Record(PARTNER).m_proxy));
}

TEST_P(AWiringStage, WiresARecordUpThatALookUpLeft)
{
    m_channel.IsConnectionReady(PARTNER);
    Release();
    EXPECT_EQ(Wired(), Take());
    ExpectWired();
}

TEST_P(AWiringStage, WiresARecordUpThatTheAckStageLeft)
{
    Released(ACK, PARTNER);
    Take();
    Release();
    EXPECT_EQ(Wired(), Take());
    ExpectWired();
}

TEST_P(AWiringStage, KnowsAPartnerThatIsWiredAndLeavesItsStage)
{
    Release();
    Take();
    for (const int stage : {1, 2, 3}) {
        Record(PARTNER).m_handshake = stage;
        Release();
        EXPECT_EQ(ForStage(HEADING + ALREADY_EXISTS), Take());
        EXPECT_EQ(stage, Record(PARTNER).m_handshake);
    }
    Record(PARTNER).m_handshake = StageAfterWiring();
    ExpectWired();
}

TEST_P(AWiringStage, KnowsAPartnerThatHasAWatchOnly)
{
    Record(PARTNER).m_proxy_watch = 1;
    Release();
    EXPECT_EQ(ForStage(HEADING + ALREADY_EXISTS), Take());
    EXPECT_EQ(0U, Record(PARTNER).m_signal_id);
}

TEST_P(AWiringStage, KnowsAPartnerThatHasASubscriptionOnly)
{
    Record(PARTNER).m_signal_id = 1;
    Release();
    EXPECT_EQ(ForStage(HEADING + ALREADY_EXISTS), Take());
    EXPECT_EQ(0U, Record(PARTNER).m_proxy_watch);
}

TEST_P(AWiringStage, GoesOnWithoutAProxy)
{
    Trace().Fail("g_dbus_proxy_new_sync", 5, "no proxy");
    Release();
    EXPECT_EQ(ForStage(HEADING + MONITOR + PROXY + R"(null
log 6 $handler "Error while registering proxy  %s\n\n" no proxy
g_error_free(no proxy)
)" + SUBSCRIPTION) +
                  Answer() + "unlock\n",
              Take());
    ExpectWired();
    EXPECT_EQ(nullptr, Record(PARTNER).m_proxy);
}

TEST_P(AWiringStage, GoesOnWithoutAProxyAndWithoutAReason)
{
    Trace().FailSilently("g_dbus_proxy_new_sync");
    Release();
    EXPECT_EQ(ForStage(HEADING + MONITOR + PROXY) + "null\n" + ForStage(SUBSCRIPTION) + Answer() +
                  "unlock\n",
              Take());
    EXPECT_EQ(nullptr, Record(PARTNER).m_proxy);
}

TEST_P(AWiringStage, StoresWhateverIdsItGets)
{
    Trace().FailSilently("g_bus_watch_name_on_connection");
    Trace().FailSilently("g_dbus_connection_signal_subscribe");
    Release();
    EXPECT_EQ(0U, Record(PARTNER).m_proxy_watch);
    EXPECT_EQ(0U, Record(PARTNER).m_signal_id);
    EXPECT_EQ(StageAfterWiring(), Record(PARTNER).m_handshake);
}

TEST_P(AWiringStage, CompletesAlthoughItsPulseIsLost)
{
    for (const guint32 code : {3U, 4U}) {
        const std::string partner = ":1." + std::to_string(code);
        Trace().Answer("RequestName", code);
        Release(partner);
        EXPECT_NE(std::string::npos, Take().find("Cannot own name due to return code = %d"));
        EXPECT_EQ(StageAfterWiring(), Record(partner).m_handshake);
    }
}

TEST_P(AWiringStage, TurnsThePartnersStageAfterThePulseAndNotBefore)
{
    std::vector<int> stages;
    Trace().At("g_dbus_connection_call_sync",
               [&] { stages.push_back(Record(PARTNER).m_handshake); });
    Release();
    EXPECT_EQ((std::vector<int>{0, 0}), stages);
    EXPECT_EQ(StageAfterWiring(), Record(PARTNER).m_handshake);
}

TEST_P(AWiringStage, FillsTheRecordStepByStep)
{
    std::vector<bool> filled;
    const auto look = [&](const std::string& line, const std::function<bool()>& is_filled) {
        Trace().At(line, [&filled, is_filled] { filled.push_back(is_filled()); });
    };
    look("g_bus_watch_name", [&] { return Knows(PARTNER); });
    look("log 3 " + GetParam().handler + " \"Partner is", [&] {
        return Record(PARTNER).m_proxy_watch != 0 && Record(PARTNER).m_partner_dbus_name.empty();
    });
    look("log 3 " + GetParam().handler + " \"Create", [&] {
        return Record(PARTNER).m_partner_dbus_name == PARTNER && Record(PARTNER).m_proxy == nullptr;
    });
    look("log 3 " + GetParam().handler + " \"Subscribe",
         [&] { return Record(PARTNER).m_proxy != nullptr && Record(PARTNER).m_signal_id == 0; });
    look("log 3 BroadcastName \"BroadcastName", [&] { return Record(PARTNER).m_signal_id != 0; });
    Release();
    EXPECT_EQ(std::vector<bool>(5, true), filled);
}

TEST_P(AWiringStage, WorksOnTheConnectionThatItWasCalledWith)
{
    BusActor stranger(m_bus);
    Trace().Alias(stranger.Connection(), "another");
    OwnerChanged(GetParam(), PARTNER, "", stranger.Connection());
    const std::string expected = ForStage(
        Fill(HEADING + MONITOR + PROXY + "proxy#1\n" + SUBSCRIPTION, "$connection", "another"));
    EXPECT_EQ(expected + Answer() + "unlock\n", Take());
}

TEST_P(AWiringStage, KeepsTwoPartnersApart)
{
    Release(":1.9");
    Release(":1.10");
    EXPECT_EQ(2U, m_channel.m_partner.size());
    EXPECT_EQ(":1.9", Record(":1.9").m_partner_dbus_name);
    EXPECT_EQ(":1.10", Record(":1.10").m_partner_dbus_name);
    EXPECT_NE(Record(":1.9").m_proxy_watch, Record(":1.10").m_proxy_watch);
    EXPECT_NE(Record(":1.9").m_signal_id, Record(":1.10").m_signal_id);
    EXPECT_NE(Record(":1.9").m_proxy, Record(":1.10").m_proxy);
}

INSTANTIATE_TEST_SUITE_P(Handshake, AWiringStage, testing::Values(SYN, SYN_ACK),
                         testing::PrintToStringParamName());

// ---- ACK -----------------------------------------------------------------------------------

class TheAckStage : public ChannelTest {
protected:
    static std::string Expected(const std::string& trace)
    {
        std::string filled =
            Fill(Fill(HEADING + trace, "$handler", ACK.handler), "$suffix", ACK.suffix);
        return Fill(Fill(filled, "$old", PARTNER), "$new", "\"\"");
    }
};

TEST_F(TheAckStage, ReportsAWiredPartnerReadyOncePerPulse)
{
    Released(SYN, PARTNER);
    Take();
    for (int pulse = 0; pulse < 2; ++pulse) {
        Released(ACK, PARTNER);
        EXPECT_EQ(Expected(READY + "unlock\n"), Take());
        EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK, Record(PARTNER).m_handshake);
    }
}

TEST_F(TheAckStage, DoesNotAskWhatStageTheWiredPartnerWasAt)
{
    Released(SYN, PARTNER);
    Take();
    for (const int stage : {0, 1, 2, 3}) {
        Record(PARTNER).m_handshake = stage;
        Released(ACK, PARTNER);
        EXPECT_EQ(Expected(READY + "unlock\n"), Take());
    }
}

TEST_F(TheAckStage, LeavesAnEmptyRecordOfAnUnknownPartner)
{
    Released(ACK, PARTNER);
    EXPECT_EQ(Expected(ALREADY_EXISTS), Take());
    ASSERT_TRUE(Knows(PARTNER));
    EXPECT_EQ("", Record(PARTNER).m_partner_dbus_name);
    EXPECT_EQ(0U, Record(PARTNER).m_proxy_watch);
    EXPECT_EQ(nullptr, Record(PARTNER).m_proxy);
    EXPECT_EQ(0U, Record(PARTNER).m_signal_id);
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, Record(PARTNER).m_handshake);
}

TEST_F(TheAckStage, DoesNotMakeAHalfWiredPartnerReady)
{
    for (guint ConnectionPartner::*missing :
         {&ConnectionPartner::m_proxy_watch, &ConnectionPartner::m_signal_id}) {
        Record(PARTNER).m_proxy_watch = 1;
        Record(PARTNER).m_signal_id = 1;
        Record(PARTNER).*missing = 0;
        Released(ACK, PARTNER);
        EXPECT_EQ(Expected(ALREADY_EXISTS), Take());
        EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, Record(PARTNER).m_handshake);
    }
    m_channel.m_partner.clear();
}

// ---- The handler of readiness --------------------------------------------------------------

class AReadinessHandler : public StageTest {
protected:
    AReadinessHandler()
    {
        if (GetParam().suffix == names::ACK)
            Released(SYN, PARTNER);
        Take();
    }
};

TEST_P(AReadinessHandler, RunsWithTheLockHeldAndThePartnerReady)
{
    bool was_locked = false;
    bool was_ready = false;
    m_channel.m_on_ready = [&] {
        was_locked = IsLocked();
        was_ready = m_channel.IsConnectionReady(PARTNER);
    };
    Released(GetParam(), PARTNER);
    EXPECT_TRUE(was_locked);
    EXPECT_TRUE(was_ready);
    EXPECT_FALSE(IsLocked());
}

TEST_P(AReadinessHandler, MaySendToThePartner)
{
    m_channel.m_on_ready = [&] {
        Bytes greeting = BytesOf("hi");
        m_channel.SendNotification(greeting);
    };
    Released(GetParam(), PARTNER);
    EXPECT_NE(std::string::npos, Take().find("parameters=(ay)([68 69]), error=&null) = true"));
}

TEST_P(AReadinessHandler, ThatThrowsReleasesTheLock)
{
    m_channel.m_on_ready = [] { throw std::runtime_error("thrown by the application"); };
    EXPECT_THROW(Released(GetParam(), PARTNER), std::runtime_error);
    const std::string trace = Take();
    const std::string end = "\nHandleConnectionReady(true, :1.42)\nunlock\n";
    EXPECT_EQ(end, trace.substr(trace.size() - end.size()));
    EXPECT_FALSE(IsLocked());
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK, Record(PARTNER).m_handshake);
}

INSTANTIATE_TEST_SUITE_P(Handshake, AReadinessHandler, testing::Values(SYN_ACK, ACK),
                         testing::PrintToStringParamName());

// ---- Both ways through, on the bus ---------------------------------------------------------

class AHandshake : public ChannelTest {
protected:
    BusActor m_partner{m_bus};
};

TEST_F(AHandshake, ThatThePeerStartsEndsWithItsAck)
{
    const auto answers = m_partner.WatchOwner(names::Own("demo", names::SYN_ACK));
    m_partner.Pulse(names::Peer("demo", names::SYN));
    IterateUntil([&] { return answers->size() == 2; }, "the answer to the peer's SYN");
    EXPECT_FALSE(m_channel.IsConnectionReady(m_partner.UniqueName()));
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN_ACK,
              Record(m_partner.UniqueName()).m_handshake);

    m_partner.Pulse(names::Peer("demo", names::ACK));
    IterateUntil([&] { return m_channel.IsConnectionReady(m_partner.UniqueName()); },
                 "the partner to be ready");
}

TEST_F(AHandshake, ThatTheChannelStartsEndsWithItsOwnAck)
{
    const auto answers = m_partner.WatchOwner(names::Own("demo", names::ACK));
    m_partner.Pulse(names::Peer("demo", names::SYN_ACK));
    IterateUntil([&] { return answers->size() == 2; }, "the channel's ACK");
    EXPECT_TRUE(m_channel.IsConnectionReady(m_partner.UniqueName()));
}

TEST_F(AHandshake, IsNotStartedByPulsesOfOtherNames)
{
    for (const std::string& name :
         {names::Own("demo", names::SYN), names::Peer("other", names::SYN), names::Base("demo")})
        m_partner.Pulse(name);
    m_partner.Settle();
    TestBus::Settle(m_channel.m_connection);
    DispatchPending();
    EXPECT_EQ("\n", Take());
}

}  // namespace
