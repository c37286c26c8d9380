// What the repair of the handshake sees, in any order and at any time: pulses of partners and its
// own ones, answers, ends of partners. A channel that does what the table in docs/protocol.md says
// stands beside it.

#include <map>
#include <utility>
#include <vector>

#include "handshake-repair.h"
#include "input.h"

namespace {

using Repair = HandshakeRepair;

class Scene : private Repair::Actions {
public:
    explicit Scene(Input input)
        : m_input(input),
          m_role(m_input.Below(2) == 0 ? Repair::Role::service : Repair::Role::client),
          m_repair(m_role, *this, m_input.Byte())
    {
        m_repair.Require(Stage::syn, m_now);
    }

    void Run()
    {
        while (!m_input.Empty())
            TakeStep();
        Calm();
    }

private:
    // Repair::Actions
    Repair::Wiring WiringOf(const std::string& partner) const override
    {
        const auto found = m_wiring.find(partner);
        return found != m_wiring.end() ? found->second : Repair::Wiring::none;
    }
    bool AnyWired() const override { return !m_wiring.empty(); }
    void Pulse(Stage stage) override
    {
        FUZZ_ASSERT(!m_in_flight[IndexOf(stage)]);
        m_in_flight[IndexOf(stage)] = true;
    }
    void Probe(const std::string& partner) override
    {
        m_probes.push_back(partner);
        FUZZ_ASSERT(m_probes.size() <= 16);
    }
    void TakeAckAsSeen(const std::string& partner) override
    {
        FUZZ_ASSERT(WiringOf(partner) == Repair::Wiring::half);
        BecomesReady(partner);
    }
    void TakeSynAckAsSeen(const std::string& partner) override
    {
        FUZZ_ASSERT(WiringOf(partner) == Repair::Wiring::none);
        m_adopted.push_back(partner);
    }
    void ReportReady(const std::string& partner) override
    {
        FUZZ_ASSERT(WiringOf(partner) == Repair::Wiring::ready);
    }

    void TakeStep()
    {
        switch (m_input.Below(7)) {
            case 0:
            case 1:
                PeerPulses(ALL_STAGES[m_input.Below(3)], AnyPartner());
                break;
            case 2:
                m_repair.OwnReleased(ALL_STAGES[m_input.Below(3)], m_now);
                break;
            case 3:
                AnswerPulse(ALL_STAGES[m_input.Below(3)], m_input.Below(3));
                break;
            case 4:
                AnswerProbe();
                break;
            case 5:
                Leave(AnyPartner());
                break;
            default:
                m_now += std::chrono::milliseconds(m_input.Byte() * m_input.Byte());
                Wake();
                break;
        }
        AdoptUnknown();
    }

    // The session does it when the daemon has said that the partner lives.
    void AdoptUnknown()
    {
        for (const std::string& partner : std::exchange(m_adopted, {})) {
            if (WiringOf(partner) == Repair::Wiring::none) {
                m_repair.Require(Stage::ack, m_now);
                BecomesReady(partner);
            }
        }
    }

    std::string AnyPartner() { return ":1." + std::to_string(m_input.Below(24)); }

    // First the repair is told, then the channel does what it does.
    void PeerPulses(Stage stage, const std::string& partner)
    {
        m_repair.PeerReleased(stage, partner, m_now);
        const Repair::Wiring wiring = WiringOf(partner);
        if (stage == Stage::syn && wiring == Repair::Wiring::none)
            m_wiring[partner] = Repair::Wiring::half;
        else if (stage == Stage::syn_ack && wiring == Repair::Wiring::none)
            BecomesReady(partner);
        else if (stage == Stage::ack && wiring != Repair::Wiring::none)
            BecomesReady(partner);
    }

    void BecomesReady(const std::string& partner)
    {
        m_wiring[partner] = Repair::Wiring::ready;
        m_repair.ChannelReady(partner, m_now);
    }

    // What shows is told before the answer.
    void AnswerPulse(Stage stage, std::size_t outcome)
    {
        if (!m_in_flight[IndexOf(stage)])
            return;
        m_in_flight[IndexOf(stage)] = false;
        if (outcome == 0)
            m_repair.OwnReleased(stage, m_now);
        m_repair.PulseAnswered(
            stage, outcome == 2 ? Repair::PulseResult::refused : Repair::PulseResult::done, m_now);
    }

    void AnswerProbe()
    {
        if (m_probes.empty())
            return;
        const std::size_t which = m_input.Below(m_probes.size());
        const std::string partner = m_probes[which];
        m_probes.erase(m_probes.begin() + static_cast<std::ptrdiff_t>(which));
        m_repair.ProbeAnswered(partner, static_cast<Repair::ProbeResult>(m_input.Below(3)), m_now);
    }

    void Leave(const std::string& partner)
    {
        m_wiring.erase(partner);
        m_repair.PartnerGone(partner);
    }

    // It never asks to be woken at once again: that would be a busy loop.
    void Wake()
    {
        m_repair.Wake(m_now);
        const auto next = m_repair.NextWake();
        FUZZ_ASSERT(!next || *next > m_now);
    }

    // When everything is answered and every pulse shows, the repair comes to rest.
    void Calm()
    {
        for (int rounds = 0; m_repair.NextWake() || AnyInFlight() || !m_probes.empty(); ++rounds) {
            FUZZ_ASSERT(rounds < 10000);
            for (const Stage stage : ALL_STAGES)
                AnswerPulse(stage, 0);
            while (!m_probes.empty()) {
                const std::string partner = m_probes.back();
                m_probes.pop_back();
                m_repair.ProbeAnswered(partner, Repair::ProbeResult::alive, m_now);
            }
            if (const auto next = m_repair.NextWake()) {
                m_now = std::max(m_now, *next);
                Wake();
            }
            AdoptUnknown();
        }
    }

    bool AnyInFlight() const
    {
        return std::find(m_in_flight.begin(), m_in_flight.end(), true) != m_in_flight.end();
    }

    Input m_input;
    const Repair::Role m_role;
    Repair m_repair;
    Repair::TimePoint m_now;
    std::map<std::string, Repair::Wiring> m_wiring;
    std::array<bool, ALL_STAGES.size()> m_in_flight = {};
    std::vector<std::string> m_probes;
    std::vector<std::string> m_adopted;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Scene(Input(data, size)).Run();
    return 0;
}
