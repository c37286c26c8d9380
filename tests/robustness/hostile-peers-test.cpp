// What a process that may use the bus can do to a service that it has nothing to do with, and what
// a partner that breaks the rules can do. The same attacks against a plain channel and an endpoint.
//
// The bus of these tests lets everybody do everything: what a policy keeps off is not relied on.

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

#include "bus-actor.h"
#include "main-loop.h"
#include "names.h"
#include "pelmar-dbus-local.h"
#include "pelmar-endpoint.h"
#include "test-bus.h"

namespace {

using Texts = std::vector<std::string>;

const std::string CHANNEL = "demo";

// Of a long payload the length is enough.
std::string TextOf(const Bytes& data)
{
    return data.size() > 64 ? std::to_string(data.size()) + " bytes"
                            : std::string(data.begin(), data.end());
}

// What the service under attack is told, from whatever thread.
class News {
public:
    void Add(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
        g_main_context_wakeup(nullptr);
    }

    Texts Lines() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    std::ptrdiff_t Count(const std::string& line) const
    {
        const Texts lines = Lines();
        return std::count(lines.begin(), lines.end(), line);
    }

    std::ptrdiff_t CountOf(const std::string& prefix) const
    {
        const Texts lines = Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.compare(0, prefix.size(), prefix) == 0;
        });
    }

private:
    mutable std::mutex m_mutex;
    Texts m_lines;
};

class PlainService : public PelmarDbusLocal {
public:
    explicit PlainService(News& news) : PelmarDbusLocal(CHANNEL), m_news(news) {}
    ~PlainService() { g_object_unref(m_connection); }

    std::string Name() const { return g_dbus_connection_get_unique_name(m_connection); }

    Bytes HandleMessage(Bytes& data) override
    {
        m_news.Add("message " + TextOf(data));
        return Bytes(data.rbegin(), data.rend());
    }
    void HandleNotification(Bytes& data) override { m_news.Add("notification " + TextOf(data)); }
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        m_news.Add((state ? "ready " : "lost ") + partner);
    }

private:
    News& m_news;
    // The process's shared one, which it uses.
    GDBusConnection* m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
};

class EndpointService {
public:
    explicit EndpointService(News& news)
    {
        Follow(news, m_endpoint);
        m_endpoint.Start();
    }

    std::string Name() const { return m_endpoint.Name(); }

    static Bytes Answer(News& news, const PelmarEndpoint::Message& message)
    {
        news.Add("message " + TextOf(message.data));
        return Bytes(message.data.rbegin(), message.data.rend());
    }

    static void Follow(News& news, PelmarEndpoint& endpoint)
    {
        using Message = PelmarEndpoint::Message;
        using Partner = PelmarEndpoint::Partner;
        endpoint.OnMessage([&news](Message& message) { return Answer(news, message); });
        endpoint.OnNotification(
            [&news](Message& message) { news.Add("notification " + TextOf(message.data)); });
        endpoint.OnReady([&news](const Partner& partner) { news.Add("ready " + partner.Name()); });
        endpoint.OnLost([&news](const Partner& partner) { news.Add("lost " + partner.Name()); });
        endpoint.OnProblem([&news](PelmarEndpoint::Problem /*problem*/, const std::string& text) {
            news.Add("problem " + text);
        });
    }

private:
    PelmarEndpoint m_endpoint{PelmarEndpoint::Role::service, CHANNEL};
};

// An endpoint with room for 8 MiB, whose handler stays inside the first message until it is let go.
class HeldEndpointService {
public:
    explicit HeldEndpointService(News& news)
    {
        EndpointService::Follow(news, m_endpoint);
        m_endpoint.OnMessage([&news, this](PelmarEndpoint::Message& message) {
            Bytes reply = EndpointService::Answer(news, message);
            m_open.wait();
            return reply;
        });
        m_endpoint.SetIntake(8UL * 1024 * 1024);
        m_endpoint.Start();
    }
    ~HeldEndpointService() { LetGo(); }

    std::string Name() const { return m_endpoint.Name(); }

    void LetGo()
    {
        if (!std::exchange(m_let_go, true))
            m_gate.set_value();
    }

private:
    bool m_let_go = false;
    std::promise<void> m_gate;
    std::shared_future<void> m_open = m_gate.get_future();
    PelmarEndpoint m_endpoint{PelmarEndpoint::Role::service, CHANNEL};
};

template <typename Service>
class AServiceUnderAttack : public testing::Test {
protected:
    std::string Target() const { return m_service.Name(); }

    // It has the channel's object, which an endpoint asks whether it is there.
    void PulseAsPartner(BusActor& partner)
    {
        partner.Serve(CHANNEL, [](const Bytes& data) { return data; });
        partner.Pulse(names::Peer(CHANNEL, names::SYN_ACK));
    }
    void MakeReady(BusActor& partner)
    {
        PulseAsPartner(partner);
        AwaitNews("ready " + partner.UniqueName());
    }

    void AwaitNews(const std::string& line)
    {
        IterateUntil([&] { return m_news.Count(line) != 0; }, "'" + line + "'");
    }

    std::shared_ptr<BusActor::Call> Finish(std::shared_ptr<BusActor::Call> call)
    {
        IterateUntil([&] { return call->Done(); }, "the end of a call");
        return call;
    }

    void ExpectReply(BusActor& caller, const Bytes& data)
    {
        const auto call = Finish(caller.Send(Target(), CHANNEL, data));
        EXPECT_EQ("", call->error);
        EXPECT_EQ(Bytes(data.rbegin(), data.rend()), call->reply.value_or(Bytes()));
    }

    // The partner's traffic works both ways after whatever was done before.
    void ExpectWorking()
    {
        ExpectReply(m_partner, BytesOf("still there?"));
        m_partner.Emit(Target(), names::Path(CHANNEL), "SendSignal",
                       BusActor::Body(BytesOf("the end")));
        AwaitNews("notification the end");
    }

    void Notify(BusActor& from, const std::string& text, bool broadcast = false)
    {
        from.Emit(broadcast ? "" : Target(), names::Path(CHANNEL), "SendSignal",
                  BusActor::Body(BytesOf(text)));
        from.Settle();
    }

    // A signal as the bus daemon sends it, but from a stranger; destination null: to everybody.
    void Forge(const char* destination, const char* signal, GVariant* body)
    {
        g_dbus_connection_emit_signal(m_stranger.Connection(), destination, "/org/freedesktop/DBus",
                                      "org.freedesktop.DBus", signal, body, nullptr);
    }
    void ForgeEverything(const char* destination)
    {
        const std::string partner = m_partner.UniqueName();
        for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK})
            Forge(destination, "NameOwnerChanged",
                  g_variant_new("(sss)", names::Peer(CHANNEL, stage).c_str(), ":1.7777", ""));
        Forge(destination, "NameOwnerChanged",
              g_variant_new("(sss)", partner.c_str(), partner.c_str(), ""));
        Forge(destination, "NameLost",
              g_variant_new("(s)", names::Own(CHANNEL, names::SYN).c_str()));
        Forge(destination, "NameOwnerChanged", g_variant_new("(u)", 1U));
        m_stranger.Settle();
    }

    void FloodWithCalls(unsigned count, std::size_t size)
    {
        GVariant* body = g_variant_ref_sink(BusActor::Body(Bytes(size, 'x')));
        for (unsigned i = 0; i < count; ++i) {
            GDBusMessage* call = g_dbus_message_new_method_call(
                Target().c_str(), names::Path(CHANNEL).c_str(), names::INTERFACE.c_str(), "Send");
            g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
            g_dbus_message_set_body(call, body);
            g_dbus_connection_send_message(m_stranger.Connection(), call,
                                           G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
            g_object_unref(call);
            if (i % 256 == 0)
                m_stranger.Settle();
        }
        g_variant_unref(body);
        m_stranger.Settle();
    }

    TestBus m_bus;
    News m_news;
    Service m_service{m_news};
    BusActor m_partner{m_bus};
    BusActor m_stranger{m_bus};
};

struct Names {
    template <typename Service>
    static std::string GetName(int /*index*/)
    {
        return std::is_same_v<Service, PlainService> ? "PlainChannel" : "Endpoint";
    }
};
using Services = testing::Types<PlainService, EndpointService>;
TYPED_TEST_SUITE(AServiceUnderAttack, Services, Names);

const std::vector<const char*> WRONG_BODIES = {"('text',)", "()", "([1, 2, 3],)",
                                               "([b'ab', b'c'],)", "(<b'abc'>,)"};

GVariant* Parsed(const char* text)
{
    return g_variant_new_parsed(text);
}

TYPED_TEST(AServiceUnderAttack, HasEveryCallOfAWrongSignatureRefused)
{
    this->MakeReady(this->m_partner);
    for (BusActor* caller : {&this->m_partner, &this->m_stranger}) {
        for (const char* body : WRONG_BODIES) {
            const auto call = this->Finish(
                caller->CallMethod(this->Target(), names::Path(CHANNEL), "Send", Parsed(body)));
            EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", call->error) << body;
        }
    }
    EXPECT_EQ(0, this->m_news.CountOf("message "));
    this->ExpectWorking();
}

TYPED_TEST(AServiceUnderAttack, DropsEveryNotificationOfAWrongSignature)
{
    this->MakeReady(this->m_partner);
    for (const char* body : WRONG_BODIES)
        this->m_partner.Emit(this->Target(), names::Path(CHANNEL), "SendSignal", Parsed(body));
    this->ExpectWorking();
    EXPECT_EQ(1, this->m_news.CountOf("notification "));
}

TYPED_TEST(AServiceUnderAttack, TakesMessagesOfEverySizeUpTo16MiB)
{
    this->MakeReady(this->m_partner);
    for (std::size_t size = 1; size <= 16UL * 1024 * 1024; size *= 16) {
        this->ExpectReply(this->m_partner, Bytes(size, 'x'));
        const Bytes data(size, 'y');
        this->m_partner.Emit(this->Target(), names::Path(CHANNEL), "SendSignal",
                             BusActor::Body(data));
        this->AwaitNews("notification " + TextOf(data));
    }
    this->ExpectWorking();
}

TYPED_TEST(AServiceUnderAttack, IgnoresSignalsOfTheDaemonThatAStrangerSendsToIt)
{
    this->MakeReady(this->m_partner);
    this->ForgeEverything(this->Target().c_str());
    this->ExpectWorking();
    EXPECT_EQ(1, this->m_news.CountOf("ready "));
    EXPECT_EQ(0, this->m_news.CountOf("lost "));
}

TYPED_TEST(AServiceUnderAttack, IgnoresSignalsOfTheDaemonThatAStrangerBroadcasts)
{
    this->MakeReady(this->m_partner);
    this->ForgeEverything(nullptr);
    this->ExpectWorking();
    EXPECT_EQ(1, this->m_news.CountOf("ready "));
    EXPECT_EQ(0, this->m_news.CountOf("lost "));
}

TYPED_TEST(AServiceUnderAttack, IgnoresTheNotificationsOfAStranger)
{
    this->MakeReady(this->m_partner);
    this->Notify(this->m_stranger, "to you");
    this->Notify(this->m_stranger, "to all", true);
    this->ExpectWorking();
    EXPECT_EQ(1, this->m_news.CountOf("notification "));
}

// The handshake is no gate: only the bus's policy keeps a stranger's calls off.
TYPED_TEST(AServiceUnderAttack, AnswersTheCallsOfAStrangerThatTheBusLetsThrough)
{
    this->ExpectReply(this->m_stranger, BytesOf("hello"));
    EXPECT_EQ(0, this->m_news.CountOf("ready "));
}

// The names are the bus's: who holds one keeps the partners from being heard, and its release looks
// like a pulse of its own.
TYPED_TEST(AServiceUnderAttack, TakesWhoeverReleasesAPeersNameForAPartner)
{
    const std::string name = names::Peer(CHANNEL, names::SYN_ACK);
    this->m_stranger.Serve(CHANNEL, [](const Bytes& data) { return data; });
    this->m_stranger.Acquire(name);
    EXPECT_EQ(3U, this->m_partner.Acquire(name));
    this->m_stranger.Release(name);
    this->AwaitNews("ready " + this->m_stranger.UniqueName());
    this->MakeReady(this->m_partner);
    this->ExpectWorking();
}

// Its own pulses do not show. A plain channel takes the partner's word for it all the same, and an
// endpoint takes a call for a sign that the partner knows of it.
TYPED_TEST(AServiceUnderAttack, TakesAPartnerThoughItsOwnNamesAreHeldForEver)
{
    for (const std::string& stage : {names::SYN, names::SYN_ACK, names::ACK})
        this->m_stranger.Acquire(names::Own(CHANNEL, stage));
    this->m_partner.Pulse(names::Peer(CHANNEL, names::SYN));
    this->m_partner.Pulse(names::Peer(CHANNEL, names::ACK));
    this->ExpectWorking();
    EXPECT_EQ(1, this->m_news.CountOf("ready " + this->m_partner.UniqueName()));
}

TYPED_TEST(AServiceUnderAttack, ServesTheLargestNumberOfPartnersThatAUserMayHave)
{
    std::vector<std::unique_ptr<BusActor>> crowd;
    for (int i = 0; i < 250; ++i) {
        crowd.push_back(std::make_unique<BusActor>(this->m_bus));
        this->PulseAsPartner(*crowd.back());
    }
    IterateUntil([this] { return this->m_news.CountOf("ready ") == 250; }, "250 partners");
    for (const auto& partner : crowd)
        this->ExpectReply(*partner, BytesOf("hello"));
}

TYPED_TEST(AServiceUnderAttack, GoesOnAfterAFloodOfCallsThatWantNoReply)
{
    this->MakeReady(this->m_partner);
    this->FloodWithCalls(20000, 1024);
    this->ExpectWorking();
    EXPECT_EQ(20001, this->m_news.CountOf("message "));
}

class AHeldEndpointUnderAttack : public AServiceUnderAttack<HeldEndpointService> {
protected:
    // Its handler is inside a message from here on.
    void Hold()
    {
        m_held = m_partner.Send(Target(), CHANNEL, BytesOf("hold"));
        AwaitNews("message hold");
    }

    // The process has read everything that was sent to it, and the handler goes on.
    void LetGo()
    {
        // What has no room is refused at once, and in the order of the bus.
        const auto last = m_stranger.Send(Target(), CHANNEL, Bytes(8UL * 1024 * 1024, 'y'));
        EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded", Finish(last)->error);
        m_service.LetGo();
        Finish(m_held);
        ExpectWorking();
    }

private:
    std::shared_ptr<BusActor::Call> m_held;
};

TEST_F(AHeldEndpointUnderAttack, KeepsNoMoreOfAFloodOfCallsThanItHasRoomFor)
{
    MakeReady(m_partner);
    Hold();
    FloodWithCalls(64, 1024UL * 1024);
    LetGo();
    EXPECT_EQ(7, m_news.CountOf("message 1048576 bytes"));
    EXPECT_EQ(1, m_news.CountOf("problem messages come in faster"));
}

TEST_F(AHeldEndpointUnderAttack, KeepsNoMoreOfAFloodOfNotificationsThanItHasRoomFor)
{
    MakeReady(m_partner);
    Hold();
    const std::string megabyte(1024UL * 1024, 'x');
    for (int i = 0; i < 64; ++i)
        Notify(m_partner, megabyte);
    LetGo();
    EXPECT_EQ(7, m_news.CountOf("notification 1048576 bytes"));
}

TEST_F(AHeldEndpointUnderAttack, RefusesACallThatItHasNoRoomFor)
{
    MakeReady(m_partner);
    Hold();
    FloodWithCalls(8, 1024UL * 1024);
    // A partner has room for one message whatever the others do.
    const auto waiting = m_partner.Send(Target(), CHANNEL, Bytes(1024UL * 1024, 'x'));
    const auto refused = Finish(m_partner.Send(Target(), CHANNEL, Bytes(1024UL * 1024, 'x')));
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded", refused->error);
    LetGo();
}

TEST_F(AHeldEndpointUnderAttack, LetsOneMessageInThatIsLargerThanItsRoom)
{
    m_service.LetGo();
    ExpectReply(m_partner, Bytes(16UL * 1024 * 1024, 'x'));
}

}  // namespace
