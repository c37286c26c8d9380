// Any events in any order to the state machine of an endpoint's handshake, also such as no bus
// would deliver; what it wants done is watched, and when no more comes, it has to come to rest.

#include <array>
#include <set>

#include "handshake.h"
#include "input.h"

namespace {

using Kind = Handshake::Action::Kind;

constexpr std::size_t PARTNERS = 5;

// A few for each pulse, question and wait that may still be open.
constexpr int STEPS_TO_REST = 400;

class Scene {
public:
    explicit Scene(Input input)
        : m_input(input),
          m_role(m_input.Below(2) == 0 ? ChannelRole::service : ChannelRole::client),
          m_machine(m_role)
    {
    }

    void Run()
    {
        Carry(m_machine.Announce());
        while (!m_input.Empty())
            TakeStep();
        ComeToRest();
    }

private:
    std::string AnyPartner() { return ":1." + std::to_string(m_input.Below(PARTNERS)); }
    Stage AnyStage() { return ALL_STAGES[m_input.Below(ALL_STAGES.size())]; }

    void TakeStep()
    {
        switch (m_input.Below(10)) {
            case 0:
            case 1:
            case 2:
                Carry(m_machine.PulseSeen(AnyStage(), AnyPartner()));
                break;
            case 3:
                EndPulse(AnyStage());
                break;
            case 4:
                Retry(AnyStage());
                break;
            case 5:
                Meet(AnyPartner());
                break;
            case 6:
                Answer(AnyPartner());
                break;
            case 7:
                Carry(m_machine.TimeOver(AnyPartner()));
                break;
            case 8:
                Talk(AnyPartner());
                break;
            default:
                m_input.Below(4) == 0 ? Carry(m_machine.Announce()) : Go(AnyPartner());
                break;
        }
    }

    void EndPulse(Stage stage)
    {
        using Result = Handshake::PulseResult;
        constexpr std::array<Result, 3> results = {Result::shown, Result::missed, Result::refused};
        if (m_pulsing.erase(stage) != 0)
            Carry(m_machine.PulseEnded(stage, results[m_input.Below(results.size())]));
    }

    void Retry(Stage stage)
    {
        if (m_retrying.erase(stage) != 0)
            Carry(m_machine.Retry(stage));
    }

    void Meet(const std::string& partner)
    {
        m_meeting.erase(partner);
        if (m_machine.Knows(partner))
            m_met.insert(partner);
        Carry(m_machine.Met(partner));
    }

    void Answer(const std::string& partner)
    {
        using Answer = Handshake::Answer;
        constexpr std::array<Answer, 4> answers = {Answer::yes, Answer::never, Answer::not_now,
                                                   Answer::unknown};
        m_asking.erase(partner);
        Carry(m_machine.Answered(partner, answers[m_input.Below(answers.size())]));
    }

    void Talk(const std::string& partner)
    {
        const bool was_ready = m_machine.IsReady(partner);
        FUZZ_ASSERT((m_machine.TrafficOf(partner) == Handshake::Traffic::deliver) == was_ready);
        FUZZ_ASSERT((m_machine.TrafficOf(partner) == Handshake::Traffic::of_stranger) ==
                    !m_machine.Knows(partner));
        if (m_input.Below(2) == 0) {
            Carry(m_machine.TrafficCame(partner));
            FUZZ_ASSERT(m_met.count(partner) == 0 || m_machine.IsReady(partner));
        } else if (m_machine.WordFor(partner) == Handshake::Word::yes) {
            Carry(m_machine.Asked(partner));
        }
    }

    void Go(const std::string& partner)
    {
        const bool was_ready = m_machine.IsReady(partner);
        m_meeting.erase(partner);
        m_asking.erase(partner);
        m_waiting.erase(partner);
        m_met.erase(partner);
        Carry(m_machine.Gone(partner));
        FUZZ_ASSERT(!m_machine.Knows(partner));
        FUZZ_ASSERT(was_ready == m_lost.count(partner));
        m_lost.clear();
    }

    void Carry(const Handshake::Actions& actions)
    {
        FUZZ_ASSERT(actions.size() <= 3 * PARTNERS + 2 * ALL_STAGES.size());
        for (const Handshake::Action& action : actions)
            Carry(action);
        for (const std::string& partner : m_ready)
            FUZZ_ASSERT(m_machine.IsReady(partner));
    }

    void Carry(const Handshake::Action& action)
    {
        switch (action.kind) {
            case Kind::pulse:
                FUZZ_ASSERT(m_retrying.count(action.stage) == 0);
                FUZZ_ASSERT(m_pulsing.insert(action.stage).second);
                break;
            case Kind::retry:
            case Kind::retry_refused:
                FUZZ_ASSERT(m_pulsing.count(action.stage) == 0);
                FUZZ_ASSERT(m_retrying.insert(action.stage).second);
                break;
            case Kind::meet:
                FUZZ_ASSERT(m_met.count(action.partner) == 0);
                FUZZ_ASSERT(m_meeting.insert(action.partner).second);
                break;
            case Kind::ask:
                FUZZ_ASSERT(m_met.count(action.partner) != 0);
                FUZZ_ASSERT(m_ready.count(action.partner) == 0);
                FUZZ_ASSERT(m_asking.insert(action.partner).second);
                break;
            case Kind::wait_for_ack:
            case Kind::wait_patiently:
            case Kind::wait_to_ask:
                FUZZ_ASSERT(m_machine.Knows(action.partner));
                m_waiting.insert(action.partner);
                break;
            case Kind::tell_ready:
                FUZZ_ASSERT(m_met.count(action.partner) != 0);
                FUZZ_ASSERT(m_ready.insert(action.partner).second);
                break;
            case Kind::tell_lost:
                FUZZ_ASSERT(m_ready.erase(action.partner) == 1);
                m_lost.insert(action.partner);
                break;
            case Kind::answer_all:
                FUZZ_ASSERT(m_machine.WordFor("a stranger") != Handshake::Word::later);
                break;
            case Kind::stop_listening:
                FUZZ_ASSERT(m_role == ChannelRole::client && !m_ready.empty());
                break;
        }
    }

    // Whatever is open ends well, one after the other; every partner is ready in the end.
    void ComeToRest()
    {
        int steps = 0;
        while (EndWell())
            FUZZ_ASSERT(++steps < STEPS_TO_REST);
        for (std::size_t i = 0; i < PARTNERS; ++i) {
            const std::string partner = ":1." + std::to_string(i);
            FUZZ_ASSERT(m_machine.Knows(partner) == m_machine.IsReady(partner));
        }
    }

    bool EndWell()
    {
        if (!m_pulsing.empty())
            Carry(m_machine.PulseEnded(Take(m_pulsing), Handshake::PulseResult::shown));
        else if (!m_retrying.empty())
            Carry(m_machine.Retry(Take(m_retrying)));
        else if (!m_meeting.empty())
            Meet(Take(m_meeting));
        else if (!m_asking.empty())
            Carry(m_machine.Answered(Take(m_asking), Handshake::Answer::yes));
        else if (!m_waiting.empty())
            Carry(m_machine.TimeOver(Take(m_waiting)));
        else
            return false;
        return true;
    }

    template <typename Item>
    static Item Take(std::set<Item>& items)
    {
        const Item first = *items.begin();
        items.erase(items.begin());
        return first;
    }

    Input m_input;
    const ChannelRole m_role;
    Handshake m_machine;
    std::set<Stage> m_pulsing;
    std::set<Stage> m_retrying;
    std::set<std::string> m_meeting;
    std::set<std::string> m_met;
    std::set<std::string> m_asking;
    std::set<std::string> m_waiting;
    std::set<std::string> m_ready;
    std::set<std::string> m_lost;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Scene(Input(data, size)).Run();
    return 0;
}
