/// @file
/// What the tests of one recorded channel share. They reach its private members because they are
/// compiled with -fno-access-control.
#ifndef PELMAR_TESTS_CHANNEL_TEST_H
#define PELMAR_TESTS_CHANNEL_TEST_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "main-loop.h"
#include "names.h"
#include "recorded-channel.h"
#include "test-bus.h"

/// The unique name of a partner that is on no bus. GIO takes it like any other.
inline const std::string PARTNER = ":1.42";

/// Replaces each `placeholder` in an expected trace.
inline std::string Fill(std::string trace, const std::string& placeholder, const std::string& value)
{
    for (std::size_t place = trace.find(placeholder); place != std::string::npos;
         place = trace.find(placeholder, place + value.size()))
        trace.replace(place, placeholder.size(), value);
    return trace;
}

/// The trace of a successful pulse on the channel "demo".
inline std::string PulseTrace(const std::string& stage)
{
    return Fill(R"(log 3 BroadcastName "BroadcastName %s Public unique name %s\n\n" $name, self
g_dbus_connection_call_sync(connection=own, name=org.freedesktop.DBus, path=/org/freedesktop/DBus, interface=org.freedesktop.DBus, method=RequestName, parameters=(su)($name, 4), reply=(u), flags=0, timeout=-1, cancellable=null, error=&null) = (u)(1)
log 3 BroadcastName "Become primary owner for name. Releasing it.\n\n"
g_dbus_connection_call_sync(connection=own, name=org.freedesktop.DBus, path=/org/freedesktop/DBus, interface=org.freedesktop.DBus, method=ReleaseName, parameters=(s)($name), reply=(u), flags=0, timeout=-1, cancellable=null, error=&null) = (u)(1)
)",
                "$name", "org.vaska.Pelmar.demo_OWN" + stage);
}

/// One of the three stage watchers.
struct Stage {
    std::string suffix;
    std::string handler;
    GDBusSignalCallback callback;
};

inline const Stage SYN{names::SYN, "cb_SynNameOwnerChanged",
                       PelmarDbusLocal::cb_SynNameOwnerChanged};
inline const Stage SYN_ACK{names::SYN_ACK, "cb_SynAckNameOwnerChanged",
                           PelmarDbusLocal::cb_SynAckNameOwnerChanged};
inline const Stage ACK{names::ACK, "cb_AckNameOwnerChanged",
                       PelmarDbusLocal::cb_AckNameOwnerChanged};

inline std::ostream& operator<<(std::ostream& stream, const Stage& stage)
{
    return stream << stage.handler;
}

/// A channel named "demo" on a bus of its own, with its construction's trace taken.
class ChannelTest : public testing::Test {
protected:
    ChannelTest() { Take(); }
    ~ChannelTest() override { Trace().StopLooking(); }

    static Recorder& Trace() { return Recorder::Get(); }
    static std::string Take() { return Trace().Take(); }

    std::string OwnName() const { return m_channel.m_public_dbus_name; }
    ConnectionPartner& Record(const std::string& name) { return m_channel.m_partner[name]; }
    bool Knows(const std::string& name) const { return m_channel.m_partner.count(name) != 0; }

    /// What the bus daemon reports when the peer's name of a stage changes its owner, given to the
    /// stage's watcher as GIO does.
    void OwnerChanged(const Stage& stage, const std::string& old_owner,
                      const std::string& new_owner, GDBusConnection* connection)
    {
        g_autoptr(GVariant) change =
            g_variant_ref_sink(g_variant_new("(sss)", names::Peer("demo", stage.suffix).c_str(),
                                             old_owner.c_str(), new_owner.c_str()));
        stage.callback(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus", "NameOwnerChanged", change, m_user_data);
    }

    /// The half of a pulse that counts: `partner` releases the name.
    void Released(const Stage& stage, const std::string& partner)
    {
        OwnerChanged(stage, partner, "", m_channel.m_connection);
    }

    void Vanished(const std::string& partner)
    {
        PelmarDbusLocal::cb_PartnerNameVanished(m_channel.m_connection, partner.c_str(),
                                                m_user_data);
    }

    /// Leave the partner ready, and nothing in the trace. An actor pulses and is there to stay; a
    /// mere name is wired up and found lost when the main loop runs.
    void MakeReady(const std::string& partner)
    {
        Released(SYN_ACK, partner);
        Take();
    }
    void MakeReady(BusActor& partner)
    {
        partner.Pulse(names::Peer("demo", names::SYN_ACK));
        IterateUntil([&] { return m_channel.IsConnectionReady(partner.UniqueName()); },
                     "the partner " + partner.UniqueName());
        Take();
    }

    /// Closes the channel's connection, without the end of the process that GIO makes of it.
    void CloseConnection()
    {
        g_dbus_connection_set_exit_on_close(m_channel.m_connection, FALSE);
        g_dbus_connection_close_sync(m_channel.m_connection, nullptr, nullptr);
        IterateUntil([&] { return g_dbus_connection_is_closed(m_channel.m_connection) != FALSE; },
                     "the connection to be closed");
    }

    /// Another thread finds the channel's lock taken.
    bool IsLocked()
    {
        bool taken = false;
        std::thread([&] {
            taken = pthread_mutex_trylock(&m_channel.m_mutex.m_mutex) == 0;
            if (taken)
                pthread_mutex_unlock(&m_channel.m_mutex.m_mutex);
        }).join();
        return !taken;
    }

    TestBus m_bus;
    RecordedChannel m_channel{"demo"};
    // What GIO hands to every callback: the pointer that the channel registered.
    PelmarDbusLocal* m_user_data = &m_channel;
};

/// The stage watcher's parameter is the stage.
class StageTest : public ChannelTest, public testing::WithParamInterface<Stage> {};

#endif
