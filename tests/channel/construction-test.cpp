// Construction and teardown, and what a channel is made of.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "channel-test.h"

namespace {

// Up to the connection, construction is the same whatever comes of it.
const std::string BEGINNING = R"(
log 3 PelmarDbusLocal "Constructor\n\n"
g_type_init()
g_dbus_node_info_new_for_xml(xml=INTERFACE_XML, error=null) = node#1
log 3 PelmarDbusLocal "XML parsed\n\n"
log 3 PelmarDbusLocal "Getting connection to SYSTEM_BUS\n\n"
g_bus_get_sync(type=1, cancellable=null, error=&null) = )";

const std::string CONNECTED = R"(own
g_dbus_connection_get_unique_name(connection=own) = $self
log 3 PelmarDbusLocal "Working with unique name %s\n\n" $logged
)";

const std::string REGISTRATION =
    R"(log 3 PelmarDbusLocal "Registering Object and Interface on path %s\n\n" /org/vaska/pelmar/CommunicationChannel/demo
g_dbus_connection_register_object(connection=own, path=/org/vaska/pelmar/CommunicationChannel/demo, interface=$node.interfaces[0], vtable=m_vtable, data=$channel, free=null, error=&null) = )";

const std::string WATCHES_AND_PULSE =
    R"(log 3 PelmarDbusLocal "Monitoring %s name waiting for communication partner\n\n" org.vaska.Pelmar.demo
g_dbus_connection_signal_subscribe(connection=own, sender=org.freedesktop.DBus, interface=org.freedesktop.DBus, member=NameOwnerChanged, path=/org/freedesktop/DBus, arg0=org.vaska.Pelmar.demo_PEER_SYN, flags=0, callback=cb_SynNameOwnerChanged, data=$channel, free=null) = $1
g_dbus_connection_signal_subscribe(connection=own, sender=org.freedesktop.DBus, interface=org.freedesktop.DBus, member=NameOwnerChanged, path=/org/freedesktop/DBus, arg0=org.vaska.Pelmar.demo_PEER_SYN_ACK, flags=0, callback=cb_SynAckNameOwnerChanged, data=$channel, free=null) = $2
g_dbus_connection_signal_subscribe(connection=own, sender=org.freedesktop.DBus, interface=org.freedesktop.DBus, member=NameOwnerChanged, path=/org/freedesktop/DBus, arg0=org.vaska.Pelmar.demo_PEER_ACK, flags=0, callback=cb_AckNameOwnerChanged, data=$channel, free=null) = $3
log 3 PelmarDbusLocal "Notify others using name %s\n\n" org.vaska.Pelmar.demo
)" + PulseTrace("_SYN");

std::string WithName(const std::string& shown, const std::string& logged)
{
    return Fill(Fill(CONNECTED, "$self", shown), "$logged", logged);
}

// The nth channel of the process.
std::string Numbered(std::string trace, int n)
{
    trace = Fill(trace, "$node", "node#" + std::to_string(n));
    trace = Fill(trace, "$channel", n == 1 ? "channel" : "channel#" + std::to_string(n));
    for (int i = 1; i <= 3; ++i)
        trace =
            Fill(trace, "$" + std::to_string(i), "subscription#" + std::to_string(3 * (n - 1) + i));
    return trace;
}

void ExpectOffTheBus(const PelmarDbusLocal& channel)
{
    EXPECT_EQ(nullptr, channel.m_connection);
    EXPECT_EQ("", channel.m_public_dbus_name);
    EXPECT_EQ("/org/vaska/pelmar/CommunicationChannel/demo", channel.m_object_name);
    EXPECT_NE(nullptr, channel.m_introspection_data);
    EXPECT_EQ(0U, channel.m_owner_id);
    EXPECT_EQ(0U, channel.m_reg_obj_id);
    EXPECT_EQ(0U, channel.m_notification_watch_syn);
    EXPECT_EQ(0U, channel.m_notification_watch_syn_ack);
    EXPECT_EQ(0U, channel.m_notification_watch_ack);
    EXPECT_TRUE(channel.m_partner.empty());
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, channel.m_handshake);
}

// Makes and unmakes a channel at a place that is known before, so that a test can look at it on the
// way.
class AConstruction : public testing::Test {
protected:
    ~AConstruction() override
    {
        Trace().StopLooking();
        Destroy();
    }

    static Recorder& Trace() { return Recorder::Get(); }

    std::string Construct(const std::string& name = "demo")
    {
        new (m_channel) RecordedChannel(name);
        m_is_constructed = true;
        return Trace().Take();
    }

    std::string Destroy()
    {
        if (m_is_constructed)
            m_channel->~RecordedChannel();
        m_is_constructed = false;
        return Trace().Take();
    }

    TestBus m_bus;
    alignas(RecordedChannel) std::byte m_storage[sizeof(RecordedChannel)];
    RecordedChannel* const m_channel = reinterpret_cast<RecordedChannel*>(m_storage);
    bool m_is_constructed = false;
};

TEST_F(AConstruction, ConnectsExportsListensAndPulses)
{
    const std::string expected =
        BEGINNING + WithName("self", "self") + REGISTRATION + "registration\n" + WATCHES_AND_PULSE;
    EXPECT_EQ(Numbered(expected, 1), Construct());
    EXPECT_EQ("channel", Trace().ShowObject(static_cast<PelmarDbusLocal*>(m_channel)));
    EXPECT_EQ("demo", m_channel->m_name);
    EXPECT_EQ("self", Trace().Show(m_channel->m_public_dbus_name.c_str()));
    EXPECT_EQ("own", Trace().ShowObject(m_channel->m_connection));
    EXPECT_EQ("node#1", Trace().ShowObject(m_channel->m_introspection_data));
    EXPECT_EQ(0U, m_channel->m_owner_id);
    EXPECT_NE(0U, m_channel->m_reg_obj_id);
    EXPECT_EQ("subscription#1", Trace().ShowId(m_channel->m_notification_watch_syn));
    EXPECT_EQ("subscription#2", Trace().ShowId(m_channel->m_notification_watch_syn_ack));
    EXPECT_EQ("subscription#3", Trace().ShowId(m_channel->m_notification_watch_ack));
    EXPECT_TRUE(m_channel->m_partner.empty());
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel->m_handshake);
}

TEST_F(AConstruction, TurnsToItsSynStageBetweenTheAnnouncementAndThePulse)
{
    std::vector<int> stages;
    const auto look = [&] { stages.push_back(m_channel->m_handshake); };
    Trace().At("log 3 PelmarDbusLocal \"Notify others", look);
    Trace().At("log 3 BroadcastName \"BroadcastName", look);
    Construct();
    EXPECT_EQ((std::vector<int>{PelmarDbusLocal::CONNECTION_NOT_STARTED,
                                PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN}),
              stages);
}

TEST_F(AConstruction, StopsAfterOneErrorLineWhenTheBusCannotBeReached)
{
    Trace().Fail("g_bus_get_sync", 39, "no bus today");
    EXPECT_EQ(BEGINNING + R"(null
log 6 PelmarDbusLocal "Error while connecting to system bus [%d] %s\n\n" 39, no bus today
g_error_free(no bus today)
)",
              Construct());
    ExpectOffTheBus(*m_channel);
    EXPECT_EQ("\ng_dbus_node_info_unref(node#1)\n", Destroy());
}

TEST_F(AConstruction, StopsWhenThereIsNeitherAConnectionNorAnError)
{
    Trace().FailSilently("g_bus_get_sync");
    EXPECT_EQ(BEGINNING + R"(null
log 6 PelmarDbusLocal "Error while connecting to system bus [%d] %s\n\n" 0, no connection and no reason given
)",
              Construct());
    ExpectOffTheBus(*m_channel);
    EXPECT_EQ("\ng_dbus_node_info_unref(node#1)\n", Destroy());
}

TEST_F(AConstruction, GoesOnWhenTheConnectionHasNoUniqueName)
{
    Trace().Alias(std::string(), "self");
    Trace().FailSilently("g_dbus_connection_get_unique_name");
    const std::string expected =
        BEGINNING + WithName("null", "self") + REGISTRATION + "registration\n" + WATCHES_AND_PULSE;
    EXPECT_EQ(Numbered(expected, 1), Construct());
    EXPECT_EQ("", m_channel->m_public_dbus_name);
}

TEST_F(AConstruction, GoesOnWhenTheObjectCannotBeExported)
{
    Trace().Fail("g_dbus_connection_register_object", 2, "taken");
    const std::string expected = BEGINNING + WithName("self", "self") + REGISTRATION + R"(0
log 6 PelmarDbusLocal "Error while registering object [%d] %s\n\n" 2, taken
g_error_free(taken)
)" + WATCHES_AND_PULSE;
    EXPECT_EQ(Numbered(expected, 1), Construct());
    EXPECT_EQ(0U, m_channel->m_reg_obj_id);
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel->m_handshake);
}

TEST_F(AConstruction, GoesOnWhenTheObjectCannotBeExportedAndNobodySaysWhy)
{
    Trace().FailSilently("g_dbus_connection_register_object");
    const std::string expected =
        BEGINNING + WithName("self", "self") + REGISTRATION + "0\n" + WATCHES_AND_PULSE;
    EXPECT_EQ(Numbered(expected, 1), Construct());
}

TEST_F(AConstruction, GoesOnWhenAChannelOfTheSameNameLivesInTheProcess)
{
    const RecordedChannel first("demo");
    Trace().Take();
    const std::string expected =
        Fill(BEGINNING, "node#1", "node#2") + WithName("self", "self") + REGISTRATION + R"(0
log 6 PelmarDbusLocal "Error while registering object [%d] %s\n\n" 2, <the message>
g_error_free(<the message>)
)" + WATCHES_AND_PULSE;
    EXPECT_EQ(Numbered(expected, 2), Construct());
}

TEST_F(AConstruction, StoresWhateverIdItsSubscriptionsGet)
{
    Trace().FailSilently("g_dbus_connection_signal_subscribe");
    Construct();
    EXPECT_EQ(0U, m_channel->m_notification_watch_syn);
    EXPECT_EQ("subscription#1", Trace().ShowId(m_channel->m_notification_watch_syn_ack));
    EXPECT_EQ(R"(
g_bus_unwatch_name(id=subscription#1)
g_bus_unwatch_name(id=subscription#2)
g_dbus_node_info_unref(node#1)
g_object_unref(own)
)",
              Destroy());
}

TEST_F(AConstruction, EndsWithWhateverComesOfThePulse)
{
    Trace().Answer("RequestName", 3);
    EXPECT_NE(std::string::npos, Construct().find("Cannot own name due to return code = %d"));
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel->m_handshake);
}

TEST_F(AConstruction, MakesTheChannelListenInTheMainContextOfItsThread)
{
    GMainContext* const context = g_main_context_new();
    g_main_context_push_thread_default(context);
    Construct();
    g_main_context_pop_thread_default(context);

    BusActor partner(m_bus);
    partner.Pulse(names::Peer("demo", names::SYN_ACK));
    TestBus::Settle(m_channel->m_connection);
    DispatchPending();
    EXPECT_TRUE(m_channel->m_partner.empty());
    while (g_main_context_iteration(context, FALSE) != FALSE) {
    }
    EXPECT_TRUE(m_channel->IsConnectionReady(partner.UniqueName()));
    g_main_context_unref(context);
}

TEST(AChannelWithoutABus, WritesOneErrorLineAndCanBeDestroyed)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    {
        const RecordedChannel channel("demo");
        const std::string trace = Recorder::Get().Take();
        EXPECT_EQ(BEGINNING + R"(null
log 6 PelmarDbusLocal "Error while connecting to system bus [%d] %s\n\n" 1, <the message>
g_error_free(<the message>)
)",
                  trace);
        ExpectOffTheBus(channel);
    }
    EXPECT_EQ("\ng_dbus_node_info_unref(node#1)\n", Recorder::Get().Take());
}

TEST(AChannelWithoutABus, AnswersItsPublicFunctions)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    RecordedChannel channel("demo");
    Bytes data = BytesOf("x");
    Recorder::Get().Take();
    EXPECT_FALSE(channel.IsConnectionReady(PARTNER));
    channel.SendNotification(data);
    EXPECT_EQ(R"(
log 3 SendNotification "Number of partners to iterate is: %d\n\n" 1
log 3 SendNotification "Sending notification for partner: %s\n\n" :1.42
log 6 SendNotification "Connection not set.\n\n"
)",
              Recorder::Get().Take());
}

// ---- Names ---------------------------------------------------------------------------------

struct OddName {
    std::string label;
    std::string name;
    bool is_path;
    bool is_bus_name;
};

std::ostream& operator<<(std::ostream& stream, const OddName& name)
{
    return stream << name.label;
}

class AnyChannelName : public AConstruction, public testing::WithParamInterface<OddName> {};

TEST_P(AnyChannelName, LetsTheConstructionEndAndOnlyTheCallsFailThatItDoesNotSuit)
{
    const std::string trace = Construct(GetParam().name);
    EXPECT_EQ(GetParam().name, m_channel->m_name);
    EXPECT_EQ("/org/vaska/pelmar/CommunicationChannel/" + GetParam().name,
              m_channel->m_object_name);
    EXPECT_EQ(GetParam().is_path, m_channel->m_reg_obj_id != 0);
    const std::string outcome = GetParam().is_bus_name
                                    ? "Become primary owner for name. Releasing it.\\n\\n"
                                    : "Cannot get response for name request\\n\\n";
    EXPECT_NE(std::string::npos, trace.find(outcome)) << trace;
    EXPECT_NE(0U, m_channel->m_notification_watch_ack);
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel->m_handshake);
}

INSTANTIATE_TEST_SUITE_P(
    Names, AnyChannelName,
    testing::Values(OddName{"Plain", "demo", true, true},
                    OddName{"LeadingDigit", "1st", true, false},
                    OddName{"Underscores", "_a_SERVICE_CLIENT_SYN", true, true},
                    OddName{"Dash", "a-b", false, true}, OddName{"Dots", "a.b", false, true},
                    OddName{"Slash", "a/b", true, false}, OddName{"Empty", "", false, true},
                    OddName{"Space", "a b", false, false},
                    OddName{"Umlaut", "\xc3\xa4", false, false},
                    OddName{"NotUtf8", "\xff", false, false},
                    OddName{"TooLong", std::string(300, 'x'), true, false},
                    OddName{"Percent", "%s%n", false, false}),
    testing::PrintToStringParamName());

TEST(TwoChannelsOfDifferentNames, ShareNothingButTheBus)
{
    const TestBus bus;
    RecordedChannel first("first");
    RecordedChannel second("second");
    Recorder::Get().Take();
    EXPECT_NE(0U, first.m_reg_obj_id);
    EXPECT_NE(0U, second.m_reg_obj_id);
    EXPECT_EQ(first.m_connection, second.m_connection);
    EXPECT_NE(first.m_object_name, second.m_object_name);
    EXPECT_NE(first.m_introspection_data, second.m_introspection_data);

    BusActor partner(bus);
    partner.Pulse(names::Peer("second", names::SYN_ACK));
    IterateUntil([&] { return second.IsConnectionReady(partner.UniqueName()); },
                 "the second channel's partner");
    EXPECT_TRUE(first.m_partner.empty());
}

// ---- Teardown ------------------------------------------------------------------------------

class ATeardown : public AConstruction {
protected:
    ATeardown() { Construct(); }

    // A partner as a stage leaves it.
    void Wire(const std::string& partner)
    {
        m_channel->WirePartner(m_channel->m_connection, partner, "");
        Trace().Take();
    }
};

const std::string STAGE_WATCHES = R"(
g_bus_unwatch_name(id=subscription#1)
g_bus_unwatch_name(id=subscription#2)
g_bus_unwatch_name(id=subscription#3)
)";

const std::string LAST_REFERENCES = R"(g_dbus_node_info_unref(node#1)
g_object_unref(own)
)";

TEST_F(ATeardown, WithoutPartnersReleasesTheWatchesTheDataAndTheConnection)
{
    EXPECT_EQ(STAGE_WATCHES + LAST_REFERENCES, Destroy());
}

TEST_F(ATeardown, ReleasesEachPartnersWatchProxyAndSubscriptionInKeyOrder)
{
    // By bytes, not by number, and not in the order of their coming.
    Wire(":1.9");
    Wire(":1.10");
    m_channel->m_partner[":1.9"].m_handshake = PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK;
    EXPECT_EQ(STAGE_WATCHES + R"(g_bus_unwatch_name(id=watch#2)
g_object_unref(proxy#2)
g_dbus_connection_signal_unsubscribe(connection=own, id=subscription#5)
g_bus_unwatch_name(id=watch#1)
g_object_unref(proxy#1)
g_dbus_connection_signal_unsubscribe(connection=own, id=subscription#4)
)" + LAST_REFERENCES,
              Destroy());
}

TEST_F(ATeardown, PassesOverWhatAPartnerDoesNotHave)
{
    m_channel->IsConnectionReady(":1.1");
    Wire(":1.2");
    std::swap(m_channel->m_partner[":1.2"].m_proxy, m_channel->m_partner[":1.3"].m_proxy);
    EXPECT_EQ(STAGE_WATCHES + R"(g_bus_unwatch_name(id=watch#1)
g_dbus_connection_signal_unsubscribe(connection=own, id=subscription#4)
g_object_unref(proxy#1)
)" + LAST_REFERENCES,
              Destroy());
}

TEST_F(ATeardown, GivesUpAnOwnerIdBeforeAllElse)
{
    m_channel->m_owner_id = 77;
    EXPECT_EQ("\ng_bus_unown_name(id=77)" + STAGE_WATCHES + LAST_REFERENCES, Destroy());
}

TEST_F(ATeardown, FirstTurnsBackToNotStarted)
{
    m_channel->m_owner_id = 77;
    int stage = -1;
    Trace().At("g_bus_unown_name", [&] { stage = m_channel->m_handshake; });
    Destroy();
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, stage);
}

TEST_F(ATeardown, ForgetsEachHandleAsItReleasesIt)
{
    m_channel->m_owner_id = 77;
    Wire(PARTNER);
    const auto& partner = m_channel->m_partner[PARTNER];
    std::vector<bool> forgotten;
    const auto look = [&](const std::string& line, const std::function<bool()>& is_forgotten) {
        Trace().At(line, [&forgotten, is_forgotten] { forgotten.push_back(is_forgotten()); });
    };
    look("g_bus_unwatch_name(id=subscription#1)", [&] { return m_channel->m_owner_id == 0; });
    look("g_bus_unwatch_name(id=subscription#2)",
         [&] { return m_channel->m_notification_watch_syn == 0; });
    look("g_bus_unwatch_name(id=subscription#3)",
         [&] { return m_channel->m_notification_watch_syn_ack == 0; });
    look("g_bus_unwatch_name(id=watch#1)",
         [&] { return m_channel->m_notification_watch_ack == 0; });
    look("g_object_unref(proxy#1)", [&] { return partner.m_proxy_watch == 0; });
    look("g_dbus_connection_signal_unsubscribe", [&] { return partner.m_proxy == nullptr; });
    look("g_dbus_node_info_unref", [&] { return m_channel->m_partner.empty(); });
    look("g_object_unref(own)", [&] { return m_channel->m_introspection_data == nullptr; });
    Destroy();
    EXPECT_EQ(std::vector<bool>(8, true), forgotten);
}

TEST_F(ATeardown, LeavesTheConnectionToItsOtherUsers)
{
    auto* const connection = static_cast<GDBusConnection*>(g_object_ref(m_channel->m_connection));
    const guint references = G_OBJECT(connection)->ref_count;
    Destroy();
    EXPECT_EQ(references - 1, G_OBJECT(connection)->ref_count);
    TestBus::Settle(connection);
    g_object_unref(connection);
}

TEST_F(ATeardown, IsVirtual)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<PelmarDbusLocal>);
    auto* const on_heap = new RecordedChannel("other");
    Trace().Take();
    delete static_cast<PelmarDbusLocal*>(on_heap);
    EXPECT_EQ(Fill(STAGE_WATCHES, "subscription#1", "subscription#4")
                  .substr(0, STAGE_WATCHES.find('\n', 1)),
              Trace().Take().substr(0, STAGE_WATCHES.find('\n', 1)));
}

// ---- What a channel is made of -------------------------------------------------------------

TEST(AChannelsMakeup, HasTheseConstants)
{
    EXPECT_STREQ("org.vaska.Pelmar", PelmarDbusLocal::PELMAR_DBUS_PREFIX);
    EXPECT_STREQ("/org/vaska/pelmar/CommunicationChannel", PelmarDbusLocal::PELMAR_DBUS_OBJ_NAME);
    EXPECT_STREQ("org.vaska.pelmar.DbusCommunication", PelmarDbusLocal::PELMAR_DBUS_OBJ_IFACE);
    EXPECT_STREQ("Send", PelmarDbusLocal::PELMAR_DBUS_OBJ_METHOD);
    EXPECT_STREQ("SendSignal", PelmarDbusLocal::PELMAR_DBUS_SIG_NAME);
    EXPECT_STREQ("_SYN", PelmarDbusLocal::PELMAR_DBUS_SYN_SUFFIX);
    EXPECT_STREQ("_SYN_ACK", PelmarDbusLocal::PELMAR_DBUS_SYNACK_SUFFIX);
    EXPECT_STREQ("_ACK", PelmarDbusLocal::PELMAR_DBUS_ACK_SUFFIX);
    EXPECT_EQ(names::OWN_SIDE, PelmarDbusLocal::BROADCAST_PREFIX);
    EXPECT_EQ(names::PEER_SIDE, PelmarDbusLocal::LISTEN_PREFIX);
    EXPECT_EQ(0, PelmarDbusLocal::CONNECTION_NOT_STARTED);
    EXPECT_EQ(1, PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN);
    EXPECT_EQ(2, PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_EQ(3, PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK);
}

TEST(AChannelsMakeup, DescribesItsObjectInOneLine)
{
    EXPECT_STREQ(
        "<node>  <interface name='org.vaska.pelmar.DbusCommunication'>    <method name='Send'>"
        "      <arg type='ay' name='data' direction='in'/>"
        "      <arg type='ay' name='response' direction='out'/>"
        "    </method>  </interface></node>",
        PelmarDbusLocal::INTERFACE_XML);
}

TEST(AChannelsMakeup, AnswersCallsAndNothingElse)
{
    GDBusInterfaceVTable expected{};
    expected.method_call = PelmarDbusLocal::cb_MethodCall;
    EXPECT_EQ(0, std::memcmp(&expected, &PelmarDbusLocal::m_vtable, sizeof(expected)));
}

TEST(AChannelsMakeup, KeepsTheOrderOfItsFields)
{
    const TestBus bus;
    const RecordedChannel channel("demo");
    const void* const fields[] = {&channel.m_name,
                                  &channel.m_public_dbus_name,
                                  &channel.m_object_name,
                                  &channel.m_introspection_data,
                                  &channel.m_owner_id,
                                  &channel.m_reg_obj_id,
                                  &channel.m_notification_watch_syn,
                                  &channel.m_notification_watch_syn_ack,
                                  &channel.m_notification_watch_ack,
                                  &channel.m_partner,
                                  &channel.m_handshake,
                                  &channel.m_connection,
                                  &channel.m_mutex};
    EXPECT_TRUE(std::is_sorted(std::begin(fields), std::end(fields)));
}

// The platform's C++ ABI keeps a virtual function's place in its pointer to member: one more than
// the offset in bytes. The destructor takes the first two places.
template <typename Function>
std::ptrdiff_t SlotOf(Function function)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof(words) == sizeof(function));
    std::memcpy(words, &function, sizeof(words));
    return (words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(AChannelsMakeup, KeepsItsHandlersPlacesInTheVirtualTable)
{
    EXPECT_EQ(2, SlotOf(&PelmarDbusLocal::HandleMessage));
    EXPECT_EQ(3, SlotOf(&PelmarDbusLocal::HandleNotification));
    EXPECT_EQ(4, SlotOf(&PelmarDbusLocal::HandleConnectionReady));
}

TEST(APartnersRecord, BeginsEmpty)
{
    const ConnectionPartner partner;
    EXPECT_EQ("", partner.m_partner_dbus_name);
    EXPECT_EQ(0U, partner.m_proxy_watch);
    EXPECT_EQ(nullptr, partner.m_proxy);
    EXPECT_EQ(0U, partner.m_signal_id);
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_NOT_STARTED, partner.m_handshake);
}

TEST(APartnersRecord, IsCopiedAndDestroyedWithoutTouchingItsHandles)
{
    GDBusProxy* const proxy = G_DBUS_PROXY(g_object_new(G_TYPE_DBUS_PROXY, nullptr));
    {
        ConnectionPartner partner;
        partner.m_proxy = proxy;
        partner.m_proxy_watch = 7;
        const ConnectionPartner copy = partner;
        EXPECT_EQ(proxy, copy.m_proxy);
        EXPECT_EQ(7U, copy.m_proxy_watch);
        EXPECT_EQ(1U, G_OBJECT(proxy)->ref_count);
    }
    EXPECT_EQ(1U, G_OBJECT(proxy)->ref_count);
    g_object_unref(proxy);
}

}  // namespace
