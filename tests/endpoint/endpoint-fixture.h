/// @file
/// What the endpoint's tests share: an endpoint inside the test's process, and what its handlers
/// are told. Its partners are actors, other processes or another endpoint of the test's own.
#ifndef PELMAR_TESTS_ENDPOINT_FIXTURE_H
#define PELMAR_TESTS_ENDPOINT_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
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
using Partner = PelmarEndpoint::Partner;
using Message = PelmarEndpoint::Message;
using Response = PelmarEndpoint::Response;

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

inline std::string TextOf(const Bytes& data)
{
    return {data.begin(), data.end()};
}

inline std::vector<std::string> NamesOf(const std::vector<Partner>& partners)
{
    std::vector<std::string> names;
    for (const Partner& partner : partners)
        names.push_back(partner.Name());
    return names;
}

inline std::chrono::steady_clock::time_point In(std::chrono::milliseconds time)
{
    return std::chrono::steady_clock::now() + time;
}

/// Wakes the test's thread to look at its condition again.
inline void WakeTest()
{
    g_main_context_wakeup(nullptr);
}

/// The payload of the messages by which a test waits until the handlers have run.
inline const std::string SETTLING = "settling";

/// What the kernel takes of a direct path that nobody reads from.
constexpr std::size_t OF_THE_SOCKET = 512UL * 1024;

/// Until the partners, all endpoints, go past the bus; of that nobody is told.
inline void AwaitDirect(const std::vector<Partner>& partners)
{
    const auto deadline = In(TEST_DEADLINE);
    for (const Partner& partner : partners) {
        while (!partner.IsDirect()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "no direct path";
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

/// The same, unless the test runs on the bus.
inline void AwaitItsWay(const Partner& partner)
{
    const char* direct = std::getenv("PELMAR_DIRECT");
    if (direct == nullptr || std::string(direct) != "0")
        AwaitDirect({partner});
}

/// What the handlers of an endpoint were told, as lines, in order. From any thread.
class News {
public:
    /// Sets all handlers but OnDeferredMessage. Each writes a line; a message is answered with its
    /// bytes reversed.
    void Follow(PelmarEndpoint& endpoint)
    {
        endpoint.OnMessage([this](Message& message) {
            if (TextOf(message.data) != SETTLING)
                Add("message " + TextOf(message.data));
            return Bytes(message.data.rbegin(), message.data.rend());
        });
        endpoint.OnNotification(
            [this](Message& message) { Add("notification " + TextOf(message.data)); });
        endpoint.OnReady([this](const Partner& partner) { AddReady(partner); });
        endpoint.OnLost([this](const Partner& partner) { Add("lost " + partner.Name()); });
        endpoint.OnRoom([this](const Partner& partner) { Add("room " + partner.Name()); });
        endpoint.OnBusLost([this] { Add("bus_lost"); });
        endpoint.OnBusBack([this] { Add("bus_back"); });
        endpoint.OnProblem([this](PelmarEndpoint::Problem problem, const std::string& text) {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_problems.push_back(problem);
            }
            Add("problem " + text);
        });
    }

    void Add(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
        WakeTest();
    }

    void AddReady(const Partner& partner)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_partners[partner.Name()] = partner;
        }
        Add("ready " + partner.Name());
    }

    /// The one of that name that was reported ready last; nobody when none was.
    Partner PartnerNamed(const std::string& name) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_partners.find(name);
        return found != m_partners.end() ? found->second : Partner();
    }

    std::vector<PelmarEndpoint::Problem> Problems() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_problems;
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
    std::vector<PelmarEndpoint::Problem> m_problems;
    std::map<std::string, Partner> m_partners;
};

/// An endpoint and its news, for tests with several of them.
struct End {
    explicit End(Role role, const std::string& channel = CHANNEL) : endpoint(role, channel)
    {
        news.Follow(endpoint);
    }

    /// Waits until a partner is ready, without dispatching the main context.
    Partner AwaitPartner() const
    {
        const auto partner =
            endpoint.WaitForPartner(std::chrono::steady_clock::now() + TEST_DEADLINE);
        if (!partner)
            throw std::runtime_error("waited in vain for a partner");
        return *partner;
    }

    News news;
    PelmarEndpoint endpoint;
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

    /// An endpoint whose handlers are the news'; not started.
    void Make(Role role)
    {
        m_role = role;
        m_endpoint = std::make_unique<PelmarEndpoint>(role, CHANNEL);
        m_news.Follow(*m_endpoint);
    }
    void Start(Role role = Role::service)
    {
        Make(role);
        m_endpoint->Start();
    }

    std::string Own(const std::string& stage) const { return StageName(m_role, stage); }
    std::string Peers(const std::string& stage) const { return StageName(Opposite(m_role), stage); }

    /// What a plain partner does that starts after the endpoint and sees all of its pulses. It has
    /// the channel's object, which answers in the test's main loop.
    void PulseHandshake(BusActor& partner) const
    {
        ServeAnything(partner);
        PulseStages(partner);
    }
    void PulseStages(BusActor& partner) const
    {
        const auto changes = partner.WatchOwner(Own(names::SYN_ACK));
        partner.Pulse(Peers(names::SYN));
        const std::string released = m_endpoint->Name() + "=>";
        IterateUntil(
            [&] { return std::find(changes->begin(), changes->end(), released) != changes->end(); },
            "the answer to a SYN");
        partner.Pulse(Peers(names::ACK));
    }
    void MakeReady(BusActor& partner) const
    {
        PulseHandshake(partner);
        m_news.Await("ready " + partner.UniqueName());
    }

    /// The endpoint's partner that the actor is.
    Partner PartnerOf(const BusActor& actor) const
    {
        return m_news.PartnerNamed(actor.UniqueName());
    }

    static void ServeAnything(BusActor& partner)
    {
        if (!partner.Serves())
            partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
    }

    /// Returns when the endpoint has dealt with all that `partner` did on the bus before, and its
    /// handlers have been told.
    void Settle(BusActor& partner) const
    {
        partner.Settle();
        BusActor stranger(m_bus);
        // What the first round makes the endpoint send is answered before the second.
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(Call(stranger, OwnName(), names::INTERFACE, "Send",
                             BusActor::Body(BytesOf(SETTLING))))
                << "the endpoint does not answer";
        }
    }

    /// A question that the endpoint at `name` answers after all that came before. False when there
    /// is no endpoint.
    static bool AskForProperties(const BusActor& asker, const std::string& name)
    {
        return Call(asker, name, "org.freedesktop.DBus.Properties", "GetAll",
                    g_variant_new("(s)", names::INTERFACE.c_str()));
    }

    /// How many match rules the daemon has of a connection; zero when it has gone. Only dbus-daemon
    /// tells.
    guint32 MatchRulesOf(const std::string& connection) const
    {
        const BusActor asker(m_bus);
        GVariant* reply = g_dbus_connection_call_sync(
            asker.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
            g_variant_new("(s)", connection.c_str()), G_VARIANT_TYPE("(a{sv})"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        WakeTest();
        if (reply == nullptr)
            return 0;
        GVariant* dictionary = g_variant_get_child_value(reply, 0);
        guint32 rules = 0;
        g_variant_lookup(dictionary, "MatchRules", "u", &rules);
        g_variant_unref(dictionary);
        g_variant_unref(reply);
        return rules;
    }

    /// The unique name of the endpoint.
    std::string OwnName() const { return m_endpoint->Name(); }

    TestBus m_bus;
    News m_news;
    Role m_role = Role::service;
    std::unique_ptr<PelmarEndpoint> m_endpoint;

private:
    static bool Call(const BusActor& caller, const std::string& name, const std::string& interface,
                     const char* method, GVariant* arguments)
    {
        GVariant* reply = g_dbus_connection_call_sync(
            caller.Connection(), name.c_str(), names::Path(CHANNEL).c_str(), interface.c_str(),
            method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (reply != nullptr)
            g_variant_unref(reply);
        return reply != nullptr;
    }
};

/// The same for what holds for either role.
class EitherEndpointTest : public EndpointTest, public testing::WithParamInterface<Role> {
protected:
    using EndpointTest::EndpointTest;
};

#endif
