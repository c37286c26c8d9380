// Owner changes of the stage names, with any owners, and the ends of partners, in any order; after
// each the channel is compared with the model of its partner table, and every watch, proxy and
// subscription with the partner that it was made for.

#include "bus-double.h"
#include "input.h"
#include "names.h"
#include "partner-model.h"
#include "pelmar-dbus-local.h"

namespace {

class ToldChannel : public PelmarDbusLocal {
public:
    ToldChannel() : PelmarDbusLocal("fuzz") {}

    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        told.push_back((state ? "ready " : "lost ") + partner);
    }

    std::vector<std::string> told;
};

struct Stage {
    const std::string& suffix;
    GDBusSignalCallback handler;
};
const Stage STAGES[] = {{names::SYN, PelmarDbusLocal::cb_SynNameOwnerChanged},
                        {names::SYN_ACK, PelmarDbusLocal::cb_SynAckNameOwnerChanged},
                        {names::ACK, PelmarDbusLocal::cb_AckNameOwnerChanged}};

class Scene {
public:
    explicit Scene(Input input) : m_input(input) { bus_double::TakeRequested(); }

    void Run()
    {
        while (!m_input.Empty()) {
            TakeStep();
            Compare();
        }
    }

private:
    void TakeStep()
    {
        switch (m_input.Below(8)) {
            case 0:
            case 1:
            case 2:
                ChangeOwner(STAGES[m_input.Below(3)], AnyOwner(), "");
                break;
            case 3:
                ChangeOwner(STAGES[m_input.Below(3)], m_input.Below(2) == 0 ? "" : AnyOwner(),
                            AnyOwner());
                break;
            case 4:
                Vanish(AnyOwner());
                break;
            case 5:
                Ask(AnyOwner());
                break;
            case 6:
                Notify();
                break;
            default:
                bus_double::AnswerRequest(static_cast<unsigned>(m_input.Below(5)),
                                          m_input.Below(2) == 0);
                bus_double::FailProxies(m_input.Below(2) == 0);
                break;
        }
    }

    // Mostly one of a few, so that they meet again; otherwise any text that a D-Bus string may be.
    std::string AnyOwner()
    {
        const std::size_t choice = m_input.Below(8);
        if (choice == 0)
            return bus_double::OWN_NAME;
        if (choice < 7)
            return ":1." + std::to_string(choice + 1);
        const std::string text = m_input.Text();
        char* valid = g_utf8_make_valid(text.c_str(), -1);
        std::string owner = std::string(":") + valid;
        g_free(valid);
        return owner;
    }

    void ChangeOwner(const Stage& stage, const std::string& old_owner, const std::string& new_owner)
    {
        GVariant* change =
            g_variant_ref_sink(g_variant_new("(sss)", names::Peer("fuzz", stage.suffix).c_str(),
                                             old_owner.c_str(), new_owner.c_str()));
        stage.handler(m_channel.m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                      "org.freedesktop.DBus", "NameOwnerChanged", change, &m_channel);
        g_variant_unref(change);

        std::vector<std::string> pulses;
        if (new_owner.empty() && old_owner != bus_double::OWN_NAME) {
            const std::string answer = m_model.Released(stage.suffix, old_owner);
            if (!answer.empty())
                pulses.push_back(names::Own("fuzz", answer));
        }
        FUZZ_ASSERT(bus_double::TakeRequested() == pulses);
    }

    void Vanish(const std::string& name)
    {
        PelmarDbusLocal::cb_PartnerNameVanished(m_channel.m_connection, name.c_str(), &m_channel);
        m_model.Vanished(name);
    }

    void Ask(const std::string& name)
    {
        FUZZ_ASSERT(m_channel.IsConnectionReady(name) == m_model.AskReady(name));
    }

    void Notify()
    {
        std::vector<char> data(m_input.Below(4));
        m_channel.SendNotification(data);
        std::vector<std::string> expected;
        for (const auto& [name, state] : m_model.Records()) {
            if (state.stage == 3)
                expected.push_back(name);
        }
        FUZZ_ASSERT(bus_double::TakeEmitted() == expected);
    }

    void Compare()
    {
        FUZZ_ASSERT(m_channel.told == m_model.Told());
        FUZZ_ASSERT(m_channel.m_partner.size() == m_model.Records().size());
        std::size_t wired = 0;
        for (const auto& [name, record] : m_channel.m_partner) {
            const auto expected = m_model.Records().find(name);
            FUZZ_ASSERT(expected != m_model.Records().end());
            FUZZ_ASSERT(record.m_handshake == expected->second.stage);
            FUZZ_ASSERT((record.m_proxy_watch != 0) == expected->second.wired);
            FUZZ_ASSERT((record.m_signal_id != 0) == expected->second.wired);
            FUZZ_ASSERT(record.m_partner_dbus_name == (expected->second.wired ? name : ""));
            if (!expected->second.wired)
                continue;
            ++wired;
            FUZZ_ASSERT(bus_double::WatchedBy(record.m_proxy_watch) == name);
            FUZZ_ASSERT(bus_double::SubscribedTo(record.m_signal_id) == name);
        }
        FUZZ_ASSERT(bus_double::Watches() == wired);
        FUZZ_ASSERT(bus_double::PartnerSubscriptions() == wired);
    }

    Input m_input;
    ToldChannel m_channel;
    PartnerModel m_model;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Scene(Input(data, size)).Run();
    FUZZ_ASSERT(bus_double::Watches() == 0);
    FUZZ_ASSERT(bus_double::PartnerSubscriptions() == 0);
    FUZZ_ASSERT(bus_double::LiveObjects() == 0);
    bus_double::Reset();
    return 0;
}
