/// @file
/// What the endpoint's tests share: an endpoint inside the test's process, and what its handlers
/// are told. Its partners are actors or other processes: two ends of a channel do not find each
/// other inside one process.
#ifndef PELMAR_TESTS_ENDPOINT_FIXTURE_H
#define PELMAR_TESTS_ENDPOINT_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus-actor.h"
#include "main-loop.h"
#include "names.h"
#include "pelmar-endpoint.h"
#include "test-bus.h"

using Role = PelmarEndpoint::Role;
using Status = PelmarEndpoint::Status;

inline const std::string CHANNEL = "demo";

inline Role Opposite(Role role)
{
    return role == Role::service ? Role::client : Role::service;
}

inline std::string NameOf(Role role)
{
    return role == Role::service ? "service" : "client";
}

/// The name that a channel of this role pulses for a stage.
inline std::string StageName(Role role, const std::string& stage)
{
    return names::Base(CHANNEL) + (role == Role::service ? "_SERVICE" : "_CLIENT") + stage;
}

inline void PrintTo(Role role, std::ostream* out)
{
    *out << NameOf(role);
}

inline void PrintTo(Status status, std::ostream* out)
{
    *out << PelmarEndpoint::ToString(status);
}

/// A size that the nightly run raises: the environment variable's value, or the suite's own size.
inline int Scale(const char* variable, int in_the_suite)
{
    const char* text = std::getenv(variable);
    return text != nullptr ? std::stoi(text) : in_the_suite;
}

/// Wakes the test's thread to look at its condition again.
inline void WakeTest()
{
    g_main_context_wakeup(nullptr);
}

/// What the handlers of an endpoint were told, as lines, in order. From any thread.
class News {
public:
    /// Each writes a line; a message is answered with its bytes reversed.
    PelmarEndpoint::Handlers Handlers()
    {
        PelmarEndpoint::Handlers handlers;
        handlers.message = [this](Bytes& data) {
            Add("message " + std::string(data.begin(), data.end()));
            return Bytes(data.rbegin(), data.rend());
        };
        handlers.notification = [this](Bytes& data) {
            Add("notification " + std::string(data.begin(), data.end()));
        };
        handlers.ready = [this](const std::string& partner) { Add("ready " + partner); };
        handlers.lost = [this](const std::string& partner) { Add("lost " + partner); };
        handlers.bus_lost = [this] { Add("bus_lost"); };
        handlers.bus_back = [this] { Add("bus_back"); };
        handlers.problem = [this](const std::string& text) { Add("problem " + text); };
        return handlers;
    }

    void Add(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
        WakeTest();
    }

    std::vector<std::string> All() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    /// The lines that start with `prefix`, without it.
    std::vector<std::string> Of(const std::string& prefix) const
    {
        std::vector<std::string> chosen;
        for (const std::string& line : All()) {
            if (line.compare(0, prefix.size(), prefix) == 0)
                chosen.push_back(line.substr(prefix.size()));
        }
        return chosen;
    }
    std::size_t Count(const std::string& prefix) const { return Of(prefix).size(); }

    /// Waits until `count` lines start with `prefix`.
    void Await(const std::string& prefix, std::size_t count = 1) const
    {
        try {
            IterateUntil([&] { return Count(prefix) >= count; }, "");
        } catch (const std::runtime_error&) {
            throw std::runtime_error("waited in vain for '" + prefix + "' of the endpoint, " +
                                     std::to_string(count) + " times; came " +
                                     testing::PrintToString(All()));
        }
    }

    void Clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// The same role as a parameter for what holds for both.
inline const auto BOTH_ROLES = testing::Values(Role::service, Role::client);
inline std::string RoleSuffix(const testing::TestParamInfo<Role>& role)
{
    return NameOf(role.param);
}

class EndpointTest : public testing::Test {
protected:
    /// `configuration` is XML that the daemon's configuration ends with.
    explicit EndpointTest(const std::string& configuration = "") : m_bus(configuration) {}

    void Start(Role role, const PelmarEndpoint::Handlers& handlers,
               PelmarEndpoint::Options options = {})
    {
        options.role = role;
        m_role = role;
        m_endpoint = std::make_unique<PelmarEndpoint>(CHANNEL, handlers, options);
    }
    void Start(Role role = Role::service) { Start(role, m_news.Handlers()); }

    std::string Own(const std::string& stage) const { return StageName(m_role, stage); }
    std::string Peers(const std::string& stage) const { return StageName(Opposite(m_role), stage); }

    /// What a partner does that starts after the endpoint and sees all of its pulses.
    void PulseHandshake(BusActor& partner) const
    {
        if (m_role == Role::client) {
            partner.Pulse(Peers(names::SYN_ACK));
            return;
        }
        partner.Pulse(Peers(names::SYN));
        partner.Pulse(Peers(names::ACK));
    }
    void MakeReady(BusActor& partner) const
    {
        PulseHandshake(partner);
        m_news.Await("ready " + partner.UniqueName());
    }

    /// Returns when the endpoint's loop has dealt with all that `partner` did on the bus before,
    /// and its handlers have been told.
    void Settle(const BusActor& partner) const
    {
        // What the first round makes the endpoint post to itself is over before the second.
        for (int round = 0; round < 2; ++round)
            ASSERT_TRUE(AskForProperties(partner, OwnName())) << "the endpoint does not answer";
    }

    /// A question that the loop of the endpoint at `name` answers after all that came before. False
    /// when there is no endpoint.
    static bool AskForProperties(const BusActor& asker, const std::string& name)
    {
        GVariant* reply = g_dbus_connection_call_sync(
            asker.Connection(), name.c_str(), names::Path(CHANNEL).c_str(),
            "org.freedesktop.DBus.Properties", "GetAll",
            g_variant_new("(s)", names::INTERFACE.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
            nullptr, nullptr);
        if (reply != nullptr)
            g_variant_unref(reply);
        return reply != nullptr;
    }

    /// The unique name of this process, for its partners.
    static std::string OwnName()
    {
        GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        const std::string name = g_dbus_connection_get_unique_name(connection);
        g_object_unref(connection);
        return name;
    }

    TestBus m_bus;
    News m_news;
    Role m_role = Role::service;
    std::unique_ptr<PelmarEndpoint> m_endpoint;
};

/// The same for what holds for either role.
class EitherEndpointTest : public EndpointTest, public testing::WithParamInterface<Role> {
protected:
    using EndpointTest::EndpointTest;
};

#endif
