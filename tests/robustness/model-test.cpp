// A channel on a real daemon against a model of it, through random sequences of what peers do.
//
// A sequence is a number of steps; a step is a burst of one to three actions of peers, or something
// that the application does. The channel's main loop runs only at the end of a step, so the actions
// of a burst reach it together. Then the table, everything that the application was told, the
// pulses of the channel as others see them, and all traffic are compared with the model.
//
//   PELMAR_MODEL_SEQUENCES=N  how many sequences (default: 50)
//   PELMAR_MODEL_SEED=N       the seed of the first one; the others count on from it

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>

#include "bus-actor.h"
#include "main-loop.h"
#include "names.h"
#include "partner-model.h"
#include "pelmar-dbus-local.h"
#include "setting.h"
#include "test-bus.h"

namespace {

using Texts = std::vector<std::string>;

const std::string CHANNEL = "model";
const std::array<std::string, 3> STAGES = {names::SYN, names::SYN_ACK, names::ACK};

std::string TextOf(const Bytes& data)
{
    return std::string(data.begin(), data.end());
}

// The channel under test, which keeps what it is told.
class WatchedChannel : public PelmarDbusLocal {
public:
    WatchedChannel() : PelmarDbusLocal(CHANNEL) {}

    Bytes HandleMessage(Bytes& data) override
    {
        told.push_back("message " + TextOf(data));
        return Bytes(data.rbegin(), data.rend());
    }
    void HandleNotification(Bytes& data) override
    {
        told.push_back("notification " + TextOf(data));
    }
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        told.push_back((state ? "ready " : "lost ") + partner);
    }

    PartnerModel::Table Table() const
    {
        PartnerModel::Table table;
        for (const auto& [name, record] : m_partner)
            table[name] = {record.m_proxy_watch != 0 && record.m_signal_id != 0,
                           record.m_handshake};
        return table;
    }

    const std::string& Name() const { return m_public_dbus_name; }
    GDBusConnection* Connection() const { return m_connection; }

    Texts told;
};

// A call of a peer and what has to come of it.
struct PendingCall {
    std::shared_ptr<BusActor::Call> call;
    std::string reply;  // empty: an error
};

struct Peer {
    explicit Peer(const TestBus& bus) : actor(bus) { actor.Listen(CHANNEL); }

    const std::string& Name() const { return actor.UniqueName(); }
    bool Holds(const std::string& name) const
    {
        return std::find(held.begin(), held.end(), name) != held.end();
    }

    BusActor actor;
    Texts held;  // names, in the order in which it acquired them
    Texts to_hear;
    std::vector<PendingCall> calls;
};

// What reaches the channel, in the order of the daemon.
struct Arrival {
    enum class Kind { release, end, traffic } kind;
    std::string text;  // a release: the stage; traffic: what the application is told of it
    std::string partner;
};

// Peers and channel on one bus, and the model beside them.
class Scene {
public:
    Scene(const TestBus& bus, unsigned seed)
        : m_bus(bus), m_random(seed), m_witness(bus), m_shown(WatchOwnPulses())
    {
        m_channel = std::make_unique<WatchedChannel>();
        Expect(m_channel->Name() + " " + names::SYN);
    }

    // The channel's subscriptions live as long as the connection does: the next scene needs
    // another.
    ~Scene()
    {
        Settle();
        g_dbus_connection_set_exit_on_close(m_channel->Connection(), FALSE);
        gpointer connection = m_channel->Connection();
        g_object_add_weak_pointer(G_OBJECT(connection), &connection);
        m_channel.reset();
        IterateUntil([&] { return connection == nullptr; }, "the end of the channel's connection");
        g_dbus_connection_signal_unsubscribe(m_witness.Connection(), m_witness_subscription);
    }

    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    void TakeStep()
    {
        if (Chance(6)) {
            TakeApplicationStep();
            return;
        }
        for (unsigned action = Below(3) + 1; action != 0; --action)
            TakePeerAction();
    }

    // Twice, since the channel may ask the daemon for a partner that is gone; then what it made of
    // everything reaches the others.
    void Settle()
    {
        for (int round = 0; round < 2; ++round) {
            TestBus::Settle(m_channel->Connection());
            DispatchPending();
        }
        m_witness.Settle();
        for (const auto& peer : m_peers) {
            if (peer != nullptr)
                peer->actor.Settle();
        }
        DispatchPending();
        DealWithArrivals();
    }

    void Compare()
    {
        EXPECT_EQ(m_model.Records(), m_channel->Table());
        EXPECT_EQ(m_model.Told(), m_channel->told);
        EXPECT_EQ(m_pulses, *m_shown) << "pulses of the channel that show";
        for (const auto& peer : m_peers) {
            if (peer != nullptr)
                Compare(*peer);
        }
    }

    std::string Story() const { return m_story.str(); }

private:
    static void Compare(Peer& peer)
    {
        for (const PendingCall& pending : peer.calls) {
            EXPECT_TRUE(pending.call->Done());
            if (pending.reply.empty())
                EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", pending.call->error);
            else
                EXPECT_EQ(pending.reply, TextOf(pending.call->reply.value_or(Bytes())));
        }
        peer.calls.clear();
        Texts heard;
        for (const Bytes& data : peer.actor.Heard())
            heard.push_back(TextOf(data));
        EXPECT_EQ(peer.to_hear, heard) << "at " << peer.Name();
    }

    unsigned Below(std::size_t limit) { return static_cast<unsigned>(m_random() % limit); }
    bool Chance(unsigned one_in) { return Below(one_in) == 0; }
    const std::string& AnyStage() { return STAGES[Below(STAGES.size())]; }
    Bytes AnyData()
    {
        return BytesOf("<" + std::to_string(++m_payloads) + std::string(Below(40), '.') + ">");
    }

    std::shared_ptr<Texts> WatchOwnPulses()
    {
        auto shown = std::make_shared<Texts>();
        const auto note = [](GDBusConnection*, const gchar*, const gchar*, const gchar*,
                             const gchar*, GVariant* body, gpointer kept) {
            const gchar* name = nullptr;
            const gchar* old_owner = nullptr;
            g_variant_get(body, "(&s&s&s)", &name, &old_owner, nullptr);
            const std::string prefix = names::Own(CHANNEL, "");
            const std::string pulsed(name);
            if (*old_owner != '\0' && pulsed.compare(0, prefix.size(), prefix) == 0)
                static_cast<Texts*>(kept)->push_back(std::string(old_owner) + " " +
                                                     pulsed.substr(prefix.size()));
        };
        m_witness_subscription = g_dbus_connection_signal_subscribe(
            m_witness.Connection(), "org.freedesktop.DBus", "org.freedesktop.DBus",
            "NameOwnerChanged", "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, note,
            shown.get(), nullptr);
        m_witness.Settle();
        return shown;
    }

    void Expect(const std::string& pulse) { m_pulses.push_back(pulse); }

    // ---- What peers do ----------------------------------------------------------------------

    void TakePeerAction()
    {
        std::unique_ptr<Peer>& place = m_peers[Below(m_peers.size())];
        if (place == nullptr) {
            place = std::make_unique<Peer>(m_bus);
            Tell(*place, "comes");
            return;
        }
        Peer& peer = *place;
        switch (Below(12)) {
            case 0:
            case 1:
            case 2:
            case 3:
                Pulse(peer, AnyStage());
                break;
            case 4:
                Acquire(peer, Chance(2) ? names::Peer(CHANNEL, AnyStage())
                                        : names::Own(CHANNEL, AnyStage()));
                break;
            case 5:
            case 6:
                ReleaseOne(peer);
                break;
            case 7:
                Leave(place);
                return;
            case 8:
                Send(peer);
                break;
            case 9:
                SendWrongly(peer);
                break;
            case 10:
                Notify(peer);
                break;
            default:
                NotifyWrongly(peer);
                break;
        }
        peer.actor.Settle();
    }

    void Tell(const Peer& peer, const std::string& what)
    {
        m_story << "  " << peer.Name() << " " << what << "\n";
    }

    const Peer* HolderOf(const std::string& name) const
    {
        for (const auto& peer : m_peers) {
            if (peer != nullptr && peer->Holds(name))
                return peer.get();
        }
        return nullptr;
    }

    void Acquire(Peer& peer, const std::string& name)
    {
        const Peer* holder = HolderOf(name);
        const guint32 expected = holder == nullptr ? 1 : holder == &peer ? 4 : 3;
        EXPECT_EQ(expected, peer.actor.Acquire(name));
        Tell(peer, "acquires " + name + ": " + std::to_string(expected));
        if (expected == 1)
            peer.held.push_back(name);
    }

    void ReleaseOne(Peer& peer)
    {
        if (!peer.held.empty())
            Release(peer, peer.held[Below(peer.held.size())]);
    }

    void Release(Peer& peer, std::string name)
    {
        Tell(peer, "releases " + name);
        peer.actor.Release(name);
        peer.held.erase(std::find(peer.held.begin(), peer.held.end(), name));
        NameReleased(name, peer.Name());
    }

    void Pulse(Peer& peer, const std::string& stage)
    {
        const std::string name = names::Peer(CHANNEL, stage);
        Acquire(peer, name);
        if (peer.Holds(name))
            Release(peer, name);
    }

    // Everybody who watches the name sees who had it.
    void NameReleased(const std::string& name, const std::string& owner)
    {
        for (const std::string& stage : STAGES) {
            if (name == names::Peer(CHANNEL, stage))
                m_arrivals.push_back({Arrival::Kind::release, stage, owner});
            if (name == names::Own(CHANNEL, stage))
                Expect(owner + " " + stage);
        }
    }

    // The daemon takes a leaving peer's names away, the last one first, and its unique name at the
    // end.
    void Leave(std::unique_ptr<Peer>& place)
    {
        const std::string name = place->Name();
        Tell(*place, "leaves");
        // What it has sent before has arrived, and what was sent to it is of no interest any more.
        place->actor.Settle();
        for (auto held = place->held.rbegin(); held != place->held.rend(); ++held)
            NameReleased(*held, name);
        m_arrivals.push_back({Arrival::Kind::end, "", name});
        m_left.push_back(std::move(place));
        m_left.back()->actor.Leave();
        while (HasOwner(name)) {
        }
    }

    bool HasOwner(const std::string& name)
    {
        GVariant* reply = g_dbus_connection_call_sync(
            m_witness.Connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name.c_str()),
            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (reply == nullptr)
            throw std::runtime_error("the bus does not answer");
        gboolean has_owner = FALSE;
        g_variant_get(reply, "(b)", &has_owner);
        g_variant_unref(reply);
        return has_owner != FALSE;
    }

    void Send(Peer& peer)
    {
        const Bytes data = AnyData();
        Tell(peer, "sends " + TextOf(data));
        peer.calls.push_back({peer.actor.Send(m_channel->Name(), CHANNEL, data),
                              std::string(data.rbegin(), data.rend())});
        m_arrivals.push_back({Arrival::Kind::traffic, "message " + TextOf(data), peer.Name()});
    }

    static GVariant* WrongBody(unsigned kind)
    {
        switch (kind) {
            case 0:
                return g_variant_new("(s)", "text");
            case 1:
                return g_variant_new("()");
            case 2:
                return g_variant_new_parsed("([1, 2, 3],)");
            case 3:
                return g_variant_new_parsed("([b'ab', b'c'],)");
            default:
                return g_variant_new_parsed("(<b'abc'>,)");
        }
    }

    void SendWrongly(Peer& peer)
    {
        GVariant* body = WrongBody(Below(5));
        Tell(peer, std::string("sends a ") + g_variant_get_type_string(body));
        peer.calls.push_back(
            {peer.actor.CallMethod(m_channel->Name(), names::Path(CHANNEL), "Send", body), ""});
    }

    // A partner's notifications reach the channel from when it is wired up on; the subscription is
    // made when the channel's main loop runs, so what comes before it in the same step is lost.
    void Notify(Peer& peer)
    {
        const Bytes data = AnyData();
        const bool broadcast = Chance(3);
        Tell(peer, (broadcast ? "broadcasts " : "notifies ") + TextOf(data));
        peer.actor.Emit(broadcast ? "" : m_channel->Name(), names::Path(CHANNEL), "SendSignal",
                        BusActor::Body(data));
        if (m_model.IsWired(peer.Name()))
            m_arrivals.push_back(
                {Arrival::Kind::traffic, "notification " + TextOf(data), peer.Name()});
        for (const auto& other : m_peers) {
            if (broadcast && other != nullptr)
                other->to_hear.push_back(TextOf(data));
        }
    }

    void NotifyWrongly(Peer& peer)
    {
        GVariant* body = WrongBody(Below(5));
        Tell(peer, std::string("notifies with a ") + g_variant_get_type_string(body));
        peer.actor.Emit(m_channel->Name(), names::Path(CHANNEL), "SendSignal", body);
    }

    // ---- What the application does ----------------------------------------------------------

    void TakeApplicationStep()
    {
        const std::string partner = AnyPartner();
        if (Chance(3)) {
            m_story << "  the application asks for " << partner << "\n";
            EXPECT_EQ(m_model.AskReady(partner), m_channel->IsConnectionReady(partner));
            return;
        }
        Bytes data = AnyData();
        const bool to_all = Chance(2);
        m_story << "  the application notifies " << (to_all ? "all" : partner) << "\n";
        if (to_all)
            m_channel->SendNotification(data);
        else
            m_channel->SendNotification(data, partner);
        for (const auto& peer : m_peers) {
            if (peer != nullptr && m_model.IsReady(peer->Name()) &&
                (to_all || peer->Name() == partner))
                peer->to_hear.push_back(TextOf(data));
        }
    }

    std::string AnyPartner()
    {
        const auto& peer = m_peers[Below(m_peers.size())];
        return peer != nullptr ? peer->Name() : ":9." + std::to_string(Below(3));
    }

    // ---- What the channel makes of it -------------------------------------------------------

    void DealWithArrivals()
    {
        const PartnerModel::Table before = m_model.Records();
        Texts gone_when_wired;
        for (const Arrival& arrival : m_arrivals) {
            switch (arrival.kind) {
                case Arrival::Kind::traffic:
                    m_model.Told().push_back(arrival.text);
                    break;
                case Arrival::Kind::release:
                    if (Answer(m_model.Released(arrival.text, arrival.partner)) &&
                        HasLeft(arrival.partner))
                        gone_when_wired.push_back(arrival.partner);
                    break;
                case Arrival::Kind::end:
                    if (const auto record = before.find(arrival.partner);
                        record != before.end() && record->second.wired)
                        m_model.Vanished(arrival.partner);
                    break;
            }
        }
        // A watch begins with a question, and its answer comes after everything that was there.
        for (const std::string& partner : gone_when_wired)
            m_model.Vanished(partner);
        m_arrivals.clear();
        m_left.clear();
    }

    bool HasLeft(const std::string& name) const
    {
        return std::any_of(m_left.begin(), m_left.end(),
                           [&](const auto& peer) { return peer->Name() == name; });
    }

    // True when there was something to answer. The pulse shows unless somebody holds the name; the
    // channel pulses after the burst.
    bool Answer(const std::string& stage)
    {
        if (!stage.empty() && HolderOf(names::Own(CHANNEL, stage)) == nullptr)
            Expect(m_channel->Name() + " " + stage);
        return !stage.empty();
    }

    const TestBus& m_bus;
    std::mt19937 m_random;
    BusActor m_witness;
    guint m_witness_subscription = 0;
    std::shared_ptr<Texts> m_shown;
    std::unique_ptr<WatchedChannel> m_channel;
    std::array<std::unique_ptr<Peer>, 4> m_peers;
    std::vector<std::unique_ptr<Peer>> m_left;

    PartnerModel m_model;
    std::vector<Arrival> m_arrivals;
    Texts m_pulses;
    unsigned m_payloads = 0;
    std::ostringstream m_story;
};

void RunSequence(const TestBus& bus, unsigned seed)
{
    Scene scene(bus, seed);
    const unsigned length = 1 + seed % 60;
    for (unsigned step = 0; step < length && !testing::Test::HasFailure(); ++step) {
        scene.TakeStep();
        scene.Settle();
        scene.Compare();
    }
    if (testing::Test::HasFailure())
        std::cout << "The sequence of PELMAR_MODEL_SEED=" << seed << " PELMAR_MODEL_SEQUENCES=1:\n"
                  << scene.Story();
}

TEST(AChannel, IsWhatItsModelSaysThroughAnyActionsOfItsPeers)
{
    const unsigned first = Setting("PELMAR_MODEL_SEED", std::random_device()());
    const unsigned count = Setting("PELMAR_MODEL_SEQUENCES", 50);
    std::cout << count << " sequences from PELMAR_MODEL_SEED=" << first << " on" << std::endl;
    const TestBus bus;
    for (unsigned i = 0; i < count && !HasFailure(); ++i)
        RunSequence(bus, first + i);
}

}  // namespace
