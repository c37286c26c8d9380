// Inbound calls and signals, and the default handlers.

#include <stdexcept>

#include "channel-test.h"

namespace {

const std::string PATH = names::Path("demo");

struct Payload {
    std::string label;
    std::string bytes;
    std::string shown;
};

std::ostream& operator<<(std::ostream& stream, const Payload& payload)
{
    return stream << payload.label;
}

const Payload PAYLOADS[] = {
    {"Text", "hello", "[68 65 6c 6c 6f]"},
    {"Empty", "", "[]"},
    {"ZeroBytes", std::string("\0a\0", 3), "[00 61 00]"},
    {"HighBytes", "\x7f\x80\xff", "[7f 80 ff]"},
};

class InboundTest : public ChannelTest {
protected:
    InboundTest() { Trace().Alias(m_partner.UniqueName(), "partner"); }

    // A call, until it is answered.
    std::shared_ptr<BusActor::Call> Call(const std::string& method, GVariant* arguments)
    {
        auto call = m_partner.CallMethod(OwnName(), PATH, method, arguments);
        IterateUntil([&] { return call->Done(); }, "the answer to " + method);
        return call;
    }

    // What the callbacks get from GIO, with a body of the test's own.
    void Signal(GVariant* body, const std::string& path = PATH)
    {
        const std::unique_ptr<GVariant, decltype(&g_variant_unref)> held(g_variant_ref_sink(body),
                                                                         g_variant_unref);
        PelmarDbusLocal::cb_SignalCall(m_channel.m_connection, "partner", path.c_str(), "interface",
                                       "member", body, m_user_data);
    }

    BusActor m_partner{m_bus};
};

const std::string SIGNAL_CALLED = R"(
log 3 cb_SignalCall "cb_SignalCall sender=%s obj_path=%s iface_name=%s signal_name=%s\n\n" partner, $path, $interface, $member
)";

std::string SignalCalled(const std::string& path = PATH, const std::string& interface = "interface",
                         const std::string& member = "member")
{
    return Fill(Fill(Fill(SIGNAL_CALLED, "$path", path), "$interface", interface), "$member",
                member);
}

// ---- Calls ---------------------------------------------------------------------------------

class ACall : public InboundTest, public testing::WithParamInterface<Payload> {};

const std::string METHOD_CALLED = R"(
log 3 cb_MethodCall "cb_MethodCall sender=%s obj_path=%s iface_name=%s method_name=%s\n\n" partner, /org/vaska/pelmar/CommunicationChannel/demo, org.vaska.pelmar.DbusCommunication, Send
)";

TEST_P(ACall, CarriesItsBytesToTheHandlerAndItsReplyBack)
{
    const Bytes data = BytesOf(GetParam().bytes);
    EXPECT_EQ(data, Call("Send", BusActor::Body(data))->reply);
    EXPECT_EQ(METHOD_CALLED + "HandleMessage(" + GetParam().shown +
                  ")\ng_dbus_method_invocation_return_value(parameters=(ay)(" + GetParam().shown +
                  "))\n",
              Take());
}

INSTANTIATE_TEST_SUITE_P(Payloads, ACall, testing::ValuesIn(PAYLOADS),
                         testing::PrintToStringParamName());

class AnAnswer : public InboundTest {};

TEST_F(AnAnswer, IsWhatTheHandlerReturnsAndNotWhatItWasGiven)
{
    m_channel.m_answer = [](const Bytes&) { return BytesOf("other"); };
    EXPECT_EQ(BytesOf("other"), Call("Send", BusActor::Body(BytesOf("x")))->reply);
}

TEST_F(AnAnswer, IsGivenWithoutTheLock)
{
    bool was_locked = true;
    m_channel.m_answer = [&](const Bytes& data) {
        was_locked = IsLocked();
        return data;
    };
    Call("Send", BusActor::Body({}));
    EXPECT_FALSE(was_locked);
}

TEST_F(AnAnswer, IsGivenToAnybodyWhoCalls)
{
    EXPECT_EQ(BytesOf("x"), Call("Send", BusActor::Body(BytesOf("x")))->reply);
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_F(AnAnswer, ToAnUndeclaredMethodOrToWrongArgumentsIsGiosOwn)
{
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", Call("Fetch", BusActor::Body({}))->error);
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs",
              Call("Send", g_variant_new("(s)", "text"))->error);
    EXPECT_EQ("\n", Take());
}

TEST_F(AnAnswer, ComesToTheSecondChannelOfANameFromTheFirst)
{
    const RecordedChannel second("demo");
    Take();
    Call("Send", BusActor::Body({}));
    EXPECT_EQ(METHOD_CALLED +
                  "HandleMessage([])\ng_dbus_method_invocation_return_value(parameters=(ay)([]))\n",
              Take());
}

// An invocation that the tests hold back from the channel's own handler, to hand it on with
// arguments of their choice.
class AHeldCall : public InboundTest {
protected:
    void HandOn(GDBusConnection* connection, const std::string& path, gpointer user_data,
                const std::string& interface = names::INTERFACE, const std::string& method = "Send")
    {
        g_autoptr(GVariant) body = g_variant_ref_sink(BusActor::Body(BytesOf("x")));
        PelmarDbusLocal::cb_MethodCall(connection, "partner", path.c_str(), interface.c_str(),
                                       method.c_str(), body, m_invocation, user_data);
    }

    void SetUp() override
    {
        static const GDBusInterfaceVTable vtable = {
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
               GDBusMethodInvocation* invocation,
               gpointer held) { *static_cast<GDBusMethodInvocation**>(held) = invocation; },
            nullptr,
            nullptr,
            {}};
        const guint id = g_dbus_connection_register_object(
            m_channel.m_connection, "/held", m_channel.m_introspection_data->interfaces[0], &vtable,
            &m_invocation, nullptr, nullptr);
        ASSERT_NE(0U, id);
        m_call = m_partner.CallMethod(OwnName(), "/held", "Send", BusActor::Body({}));
        IterateUntil([&] { return m_invocation != nullptr; }, "a call");
    }

    // The daemon has dealt with all that the channel sent, and no answer was among it. Nobody but
    // the test has the call then.
    void ExpectUnanswered()
    {
        TestBus::Settle(m_channel.m_connection);
        m_partner.Settle();
        DispatchPending();
        EXPECT_FALSE(m_call->Done());
        g_object_unref(m_invocation);
    }

    GDBusMethodInvocation* m_invocation = nullptr;
    std::shared_ptr<BusActor::Call> m_call;
};

TEST_F(AHeldCall, WithoutConnectionOrChannelIsRefusedAndLeftUnanswered)
{
    const std::string refused =
        METHOD_CALLED + R"(log 6 cb_MethodCall "Empty user_data or connection not valid.\n\n"
)";
    HandOn(nullptr, PATH, m_user_data);
    EXPECT_EQ(refused, Take());
    HandOn(m_channel.m_connection, PATH, nullptr);
    EXPECT_EQ(refused, Take());
    ExpectUnanswered();
}

TEST_F(AHeldCall, ForAnotherPathIsDroppedSilentlyAndLeftUnanswered)
{
    for (const std::string& path : {PATH + "2", names::Path("dem"), std::string("/")}) {
        HandOn(m_channel.m_connection, path, m_user_data);
        EXPECT_EQ(Fill(METHOD_CALLED, PATH + ",", path + ","), Take());
    }
    ExpectUnanswered();
}

TEST_F(AHeldCall, IsAnsweredWhateverItsMethodAndInterface)
{
    HandOn(m_channel.m_connection, PATH, m_user_data, "any.interface", "AnyMethod");
    EXPECT_EQ(Fill(Fill(METHOD_CALLED, names::INTERFACE, "any.interface"), "Send", "AnyMethod") +
                  "HandleMessage([78])\n"
                  "g_dbus_method_invocation_return_value(parameters=(ay)([78]))\n",
              Take());
    IterateUntil([&] { return m_call->Done(); }, "the answer");
    EXPECT_EQ(BytesOf("x"), m_call->reply);
}

TEST_F(AHeldCall, WhoseHandlerThrowsIsLeftUnanswered)
{
    m_channel.m_answer = [](const Bytes&) -> Bytes { throw std::runtime_error("no answer"); };
    EXPECT_THROW(HandOn(m_channel.m_connection, PATH, m_user_data), std::runtime_error);
    EXPECT_EQ(METHOD_CALLED + "HandleMessage([78])\n", Take());
    ExpectUnanswered();
}

// ---- Signals -------------------------------------------------------------------------------

class ASignal : public InboundTest, public testing::WithParamInterface<Payload> {};

TEST_P(ASignal, CarriesItsBytesToTheHandler)
{
    Signal(BusActor::Body(BytesOf(GetParam().bytes)));
    EXPECT_EQ(SignalCalled() + "HandleNotification(" + GetParam().shown + ")\n", Take());
}

INSTANTIATE_TEST_SUITE_P(Payloads, ASignal, testing::ValuesIn(PAYLOADS),
                         testing::PrintToStringParamName());

class ANotification : public InboundTest {
protected:
    // All that was sent before to the channel, by whomever, has been dispatched.
    std::string TakeAfter(BusActor& sender)
    {
        sender.Settle();
        TestBus::Settle(m_channel.m_connection);
        DispatchPending();
        return Take();
    }
};

TEST_F(ANotification, OfAPartnerIsDeliveredWhateverTheSignalsName)
{
    MakeReady(m_partner);
    for (const char* member : {"SendSignal", "AnyOther"}) {
        m_partner.Emit(OwnName(), PATH, member, BusActor::Body(BytesOf("x")));
        EXPECT_EQ(SignalCalled(PATH, names::INTERFACE, member) + "HandleNotification([78])\n",
                  TakeAfter(m_partner));
    }
}

TEST_F(ANotification, ReachesTheChannelAlsoWhenItIsBroadcast)
{
    MakeReady(m_partner);
    m_partner.Emit("", PATH, "SendSignal", BusActor::Body(BytesOf("x")));
    EXPECT_EQ(SignalCalled(PATH, names::INTERFACE, "SendSignal") + "HandleNotification([78])\n",
              TakeAfter(m_partner));
}

TEST_F(ANotification, FromAnotherPathDoesNotReachTheChannel)
{
    MakeReady(m_partner);
    m_partner.Emit(OwnName(), PATH + "2", "SendSignal", BusActor::Body(BytesOf("x")));
    EXPECT_EQ("\n", TakeAfter(m_partner));
}

TEST_F(ANotification, OfAStrangerDoesNotReachTheChannel)
{
    MakeReady(m_partner);
    BusActor stranger(m_bus);
    stranger.Emit(OwnName(), PATH, "SendSignal", BusActor::Body(BytesOf("x")));
    EXPECT_EQ("\n", TakeAfter(stranger));
}

TEST_F(ANotification, ForAnotherPathIsDroppedSilently)
{
    for (const std::string& path : {PATH + "2", names::Path("dem"), std::string("/")}) {
        Signal(BusActor::Body(BytesOf("x")), path);
        EXPECT_EQ(SignalCalled(path), Take());
    }
}

TEST_F(ANotification, WithoutConnectionOrChannelIsRefused)
{
    const std::string refused =
        SignalCalled() + R"(log 6 cb_SignalCall "Empty user_data or connection not valid.\n\n"
)";
    GVariant* body = g_variant_ref_sink(BusActor::Body({}));
    for (const auto& [connection, user_data] :
         {std::pair<GDBusConnection*, gpointer>(nullptr, m_user_data),
          std::pair<GDBusConnection*, gpointer>(m_channel.m_connection, nullptr)}) {
        PelmarDbusLocal::cb_SignalCall(connection, "partner", PATH.c_str(), "interface", "member",
                                       body, user_data);
        EXPECT_EQ(refused, Take());
    }
    g_variant_unref(body);
}

TEST_F(ANotification, WithAnotherBodyCostsOneErrorLineAndTheChannelGoesOn)
{
    MakeReady(m_partner);
    const std::pair<const char*, GVariant*> bodies[] = {
        {"(s)", g_variant_new("(s)", "text")},
        {"()", g_variant_new("()")},
        {"(ayay)", g_variant_new("(ayay)", nullptr, nullptr)},
        {"(v)", g_variant_new("(v)", g_variant_new_bytestring("x"))},
        {"(ai)", g_variant_new("(ai)", nullptr)},
        {"(y)", g_variant_new("(y)", 1)},
    };
    for (const auto& [type, body] : bodies) {
        m_partner.Emit(OwnName(), PATH, "SendSignal", body);
        EXPECT_EQ(
            SignalCalled(PATH, names::INTERFACE, "SendSignal") +
                Fill(
                    R"(log 6 cb_SignalCall "Signal from %s dropped: its body is %s and not (ay)\n\n" partner, $type
)",
                    "$type", type),
            TakeAfter(m_partner));
    }
    m_partner.Emit(OwnName(), PATH, "SendSignal", BusActor::Body(BytesOf("x")));
    EXPECT_EQ(SignalCalled(PATH, names::INTERFACE, "SendSignal") + "HandleNotification([78])\n",
              TakeAfter(m_partner));
}

TEST_F(ANotification, WhoseHandlerThrowsLetsTheExceptionPass)
{
    Trace().At("HandleNotification", [] { throw std::runtime_error("thrown by the application"); });
    EXPECT_THROW(Signal(BusActor::Body({})), std::runtime_error);
    EXPECT_EQ(SignalCalled() + "HandleNotification([])\n", Take());
}

TEST_F(ANotification, IsHandledWithoutTheLock)
{
    std::vector<bool> locked;
    Trace().At("", [&] { locked.push_back(IsLocked()); });
    Signal(BusActor::Body({}));
    EXPECT_EQ((std::vector<bool>{false, false}), locked);
}

// ---- The defaults --------------------------------------------------------------------------

class ADefaultHandler : public ChannelTest, public testing::WithParamInterface<Payload> {
protected:
    void ExpectLogAndOutput(const std::string& handler)
    {
        EXPECT_EQ(GetParam().bytes + "\n", testing::internal::GetCapturedStdout());
        EXPECT_EQ("\nlog 3 " + handler + " \"Default handler - " + handler + " = %s\\n\\n\" " +
                      GetParam().shown + "\n",
                  Take());
    }

    Bytes m_data = BytesOf(GetParam().bytes);
};

TEST_P(ADefaultHandler, OfMessagesLogsPrintsAndAnswersWithTheChannelsName)
{
    testing::internal::CaptureStdout();
    const Bytes answer = m_channel.PelmarDbusLocal::HandleMessage(m_data);
    ExpectLogAndOutput("HandleMessage");
    EXPECT_EQ(BytesOf("Default handler from : " + OwnName()), answer);
    EXPECT_EQ(BytesOf(GetParam().bytes), m_data);
}

TEST_P(ADefaultHandler, OfNotificationsLogsAndPrints)
{
    testing::internal::CaptureStdout();
    m_channel.PelmarDbusLocal::HandleNotification(m_data);
    ExpectLogAndOutput("HandleNotification");
}

INSTANTIATE_TEST_SUITE_P(Payloads, ADefaultHandler,
                         testing::Values(Payload{"Text", "hello", "hello"},
                                         Payload{"Empty", "", "\"\""},
                                         Payload{"ZeroBytes", std::string("ab\0c", 4), "ab"},
                                         Payload{"LeadingZero", std::string("\0c", 2), "\"\""},
                                         Payload{"HighBytes", "\x80\xff", "\\200\\377"},
                                         Payload{"Percent", "%s%n", "%s%n"}),
                         testing::PrintToStringParamName());

class TheDefault : public ChannelTest {};

TEST_F(TheDefault, HandlerOfReadinessOnlyLogs)
{
    testing::internal::CaptureStdout();
    m_channel.PelmarDbusLocal::HandleConnectionReady(true, PARTNER);
    m_channel.PelmarDbusLocal::HandleConnectionReady(false, PARTNER);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(R"(
log 3 HandleConnectionReady "Default handler - HandleConnectionReady = %d\n\n" 1
log 3 HandleConnectionReady "Default handler - HandleConnectionReady = %d\n\n" 0
)",
              Take());
    EXPECT_TRUE(m_channel.m_partner.empty());
}

TEST_F(TheDefault, HandlersAreTheChannelsOwn)
{
    PelmarDbusLocal plain("plain");
    Take();
    BusActor caller(m_bus);
    testing::internal::CaptureStdout();
    const auto call = caller.Send(plain.m_public_dbus_name, "plain", BytesOf("hello"));
    IterateUntil([&] { return call->Done(); }, "the default answer");
    EXPECT_EQ("hello\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(BytesOf("Default handler from : " + OwnName()), call->reply);
}

}  // namespace
