// The name pulse.

#include <limits>

#include "channel-test.h"

namespace {

class APulse : public ChannelTest {
protected:
    std::string Pulse(std::string name = "org.vaska.Pelmar.demo_PULSED")
    {
        m_channel.BroadcastName(name);
        return Take();
    }

    guint32 CallBus(const char* method, GVariant* parameters)
    {
        GVariant* reply = g_dbus_connection_call_sync(
            m_channel.m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
            nullptr, nullptr);
        guint32 code = 0;
        g_variant_get(reply, "(u)", &code);
        g_variant_unref(reply);
        return code;
    }

    BusActor m_stranger{m_bus};
};

const std::string NAME = "org.vaska.Pelmar.demo_PULSED";

const std::string REQUEST = R"(
log 3 BroadcastName "BroadcastName %s Public unique name %s\n\n" org.vaska.Pelmar.demo_PULSED, self
g_dbus_connection_call_sync(connection=own, name=org.freedesktop.DBus, path=/org/freedesktop/DBus, interface=org.freedesktop.DBus, method=RequestName, parameters=(su)(org.vaska.Pelmar.demo_PULSED, 4), reply=(u), flags=0, timeout=-1, cancellable=null, error=&null) = )";

const std::string RELEASE =
    R"(log 3 BroadcastName "Become primary owner for name. Releasing it.\n\n"
g_dbus_connection_call_sync(connection=own, name=org.freedesktop.DBus, path=/org/freedesktop/DBus, interface=org.freedesktop.DBus, method=ReleaseName, parameters=(s)(org.vaska.Pelmar.demo_PULSED), reply=(u), flags=0, timeout=-1, cancellable=null, error=&null) = )";

TEST_F(APulse, AcquiresTheNameAndReleasesItAtOnce)
{
    const auto changes = m_stranger.WatchOwner(NAME);
    EXPECT_EQ(REQUEST + "(u)(1)\n" + RELEASE + "(u)(1)\n", Pulse());
    IterateUntil([&] { return changes->size() == 2; }, "both halves of the pulse");
    EXPECT_EQ((std::vector<std::string>{"=>" + OwnName(), OwnName() + "=>"}), *changes);
}

TEST_F(APulse, TakesNoLockAndReleasesBothReplies)
{
    bool was_locked = true;
    Trace().At("g_dbus_connection_call_sync", [&] { was_locked = IsLocked(); });
    Trace().Answer("RequestName", 1);
    Trace().Answer("ReleaseName", 1);
    Pulse();
    EXPECT_FALSE(was_locked);
    EXPECT_TRUE(Trace().AnswersReleased());
}

TEST_F(APulse, IgnoresWhatTheReleaseIsAnswered)
{
    Trace().Answer("ReleaseName", 2);
    EXPECT_EQ(REQUEST + "(u)(1)\n" + RELEASE + "(u)(2)\n", Pulse());
}

TEST_F(APulse, OfANameThatAnotherHoldsIsLostAndTheOtherKeepsTheName)
{
    ASSERT_EQ(1U, m_stranger.Acquire(NAME));
    const auto changes = m_stranger.WatchOwner(NAME);
    EXPECT_EQ(REQUEST + R"((u)(3)
log 6 BroadcastName "Cannot own name due to return code = %d\n\n" 3
)",
              Pulse());
    EXPECT_EQ(1U, m_stranger.Release(NAME));
    IterateUntil([&] { return !changes->empty(); }, "the release by its holder");
    EXPECT_EQ((std::vector<std::string>{m_stranger.UniqueName() + "=>"}), *changes);
}

TEST_F(APulse, OfANameThatItAlreadyHoldsDoesNotReleaseIt)
{
    ASSERT_EQ(1U, CallBus("RequestName", g_variant_new("(su)", NAME.c_str(), 4)));
    EXPECT_EQ(REQUEST + R"((u)(4)
log 6 BroadcastName "Cannot own name due to return code = %d\n\n" 4
)",
              Pulse());
    EXPECT_EQ(3U, m_stranger.Acquire(NAME));
}

TEST_F(APulse, ThatIsQueuedIsNotReleased)
{
    Trace().Answer("RequestName", 2);
    EXPECT_EQ(REQUEST + R"((u)(2)
log 6 BroadcastName "Cannot own name due to return code = %d\n\n" 2
)",
              Pulse());
    EXPECT_TRUE(Trace().AnswersReleased());
}

TEST_F(APulse, ShowsAnUnknownAnswerAsASignedNumber)
{
    Trace().Answer("RequestName", std::numeric_limits<guint32>::max());
    EXPECT_EQ(REQUEST + R"((u)(4294967295)
log 6 BroadcastName "Cannot own name due to return code = %d\n\n" -1
)",
              Pulse());
}

const std::string TWO_ERROR_LINES = R"(null
log 6 BroadcastName "Error during request name call [%d] %s\n\n" $code, $message
g_error_free($message)
log 6 BroadcastName "Cannot get response for name request\n\n"
)";

TEST_F(APulse, OfAnInvalidNameEndsInTwoErrorLinesAndNoSignal)
{
    const auto changes = m_stranger.WatchOwner("not a bus name");
    const std::string expected =
        Fill(Fill(TWO_ERROR_LINES, "$code", "16"), "$message", "<the message>");
    EXPECT_EQ(Fill(REQUEST, NAME, "not a bus name") + expected, Pulse("not a bus name"));
    TestBus::Settle(m_channel.m_connection);
    m_stranger.Settle();
    DispatchPending();
    EXPECT_TRUE(changes->empty());
}

TEST_F(APulse, OnAClosedConnectionEndsInTwoErrorLines)
{
    CloseConnection();
    EXPECT_EQ(REQUEST + Fill(Fill(TWO_ERROR_LINES, "$code", "18"), "$message", "<the message>"),
              Pulse());
}

TEST_F(APulse, ThatThePolicyForbidsEndsInTwoErrorLines)
{
    Trace().Fail("RequestName", 9, "not allowed");
    EXPECT_EQ(REQUEST + Fill(Fill(TWO_ERROR_LINES, "$code", "9"), "$message", "not allowed"),
              Pulse());
}

TEST_F(APulse, WithNeitherAnAnswerNorAnErrorEndsInOneErrorLine)
{
    Trace().FailSilently("RequestName");
    EXPECT_EQ(REQUEST + R"(null
log 6 BroadcastName "Cannot get response for name request\n\n"
)",
              Pulse());
}

TEST_F(APulse, NeitherLogsNorFreesTheErrorOfItsRelease)
{
    const std::string expected = REQUEST + "(u)(1)\n" + RELEASE + R"(null
log 6 BroadcastName "Release failed due to empty response.\n\n"
)";
    Trace().Fail("ReleaseName", 24, "timed out");
    EXPECT_EQ(expected, Pulse());
    CallBus("ReleaseName", g_variant_new("(s)", NAME.c_str()));
    Trace().FailSilently("ReleaseName");
    EXPECT_EQ(expected, Pulse());
}

TEST_F(APulse, ChangesNothingInTheChannel)
{
    MakeReady(PARTNER);
    const std::string name = OwnName();
    Pulse();
    EXPECT_EQ(name, OwnName());
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_SYN, m_channel.m_handshake);
    EXPECT_EQ(1U, m_channel.m_partner.size());
    EXPECT_EQ(PelmarDbusLocal::CONNECTION_HANDSHAKE_ACK, Record(PARTNER).m_handshake);
}

}  // namespace
