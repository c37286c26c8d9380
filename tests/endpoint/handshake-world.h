// A bus daemon, the processes of one channel on it and what is under way between them: small enough
// that every order of events can be gone through. An endpoint is the state machine that ships; a
// plain channel is its table of transitions.
#ifndef PELMAR_HANDSHAKE_WORLD_H
#define PELMAR_HANDSHAKE_WORLD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "handshake.h"

namespace handshakes {

constexpr std::size_t MOST_PROCESSES = 6;
constexpr std::size_t STAGE_NAMES = 2 * ALL_STAGES.size();

enum class Make { endpoint, plain };

struct ProcessPlan {
    ChannelRole role;
    Make make;
    int successor_of = -1;   // starts after that one has crashed
    bool may_crash = false;  // there is one crash at most, whoever may
};

// What may happen beside the handshake itself.
struct Plan {
    std::vector<ProcessPlan> processes = {};
    bool holder = false;             // somebody else may hold one stage name for a while
    bool holder_is_seen = false;     // ... and its end is taken for a pulse by those who listen
    bool questions_refused = false;  // by the bus's policy
    bool questions_dropped = false;  // any question may be answered with: not now
    bool traffic = false;            // who is ready may send a notification to each partner
    bool announces_again = false;    // each endpoint may announce itself again, once
    bool overlaps = true;            // a successor may start before the bus has noticed the crash
    bool plain_is_judged = false;    // what goes wrong between two plain channels is a fault
    bool reduced = true;             // orders that come to the same are gone through once
};

std::string Describe(const Plan& plan);

enum class Fault {
    none,
    early_ready,   // ready before the partner has wired this side up
    told_wrongly,  // ready or lost out of turn, or not lost
    message_lost,
    not_ready,  // at the end; with plain channels at both ends, why:
    both_half,
    collision,
    name_held,
    not_quiet  // it never ends
};

struct Verdict {
    Fault fault = Fault::none;
    std::string text = {};
};

// First in, first out; an item is a kind and what it is about.
struct Queue {
    bool empty() const { return size == 0; }
    void Push(std::uint8_t item);
    std::uint8_t Pop();
    void Clear();

    static constexpr std::size_t LONGEST = 23;
    std::uint8_t size = 0;
    std::array<std::uint8_t, LONGEST> items{};
};

enum class Life : std::uint8_t { unborn, running, crashed };

struct Process {
    std::uint32_t machine = 0;  // of an endpoint, in the table of Machines
    Life life = Life::unborn;

    // At the bus.
    std::uint8_t connected = 0;
    std::uint8_t listens = 0;  // stages
    std::uint8_t watches = 0;  // processes

    // Timers that run: of an endpoint.
    std::uint8_t retries = 0;  // stages
    std::uint8_t timers = 0;   // processes
    std::uint8_t asked = 0;    // processes with a question that is held back

    std::uint8_t told_ready = 0;  // processes
    std::uint8_t told_lost = 0;
    std::uint8_t notified = 0;
    std::uint8_t announced_again = 0;

    // Of a plain channel: whom it has wired up, how far it is, and the pulse it waits for.
    std::uint8_t wired = 0;
    std::uint8_t half = 0;
    std::uint8_t pulsing = 0;      // 1 + stage
    std::uint8_t pulsing_for = 0;  // process

    // History, to judge the end by.
    std::uint8_t seen_by = 0;    // processes to which a pulse of it showed
    std::uint8_t swallowed = 0;  // stages of pulses that a holder who is no participant swallowed
    std::uint8_t collided = 0;   // ... that another participant swallowed
    std::uint8_t misunderstood_by = 0;  // services to which an ACK showed that was another's
    std::uint8_t unused = 0;            // worlds are told apart by their bytes: there is no gap

    Queue to_bus;
    Queue from_bus;
};

struct World {
    std::array<Process, MOST_PROCESSES> processes{};
    std::array<std::uint8_t, STAGE_NAMES> owners{};
    std::uint8_t held = 0;  // the holder has had its turn
    std::uint8_t crashed = 0;
};
static_assert(std::has_unique_object_representations_v<World>);

struct Step {
    enum class Kind : std::uint8_t {
        start,
        crash,
        bus,    // the bus takes the next request of a process
        drop,   // ... which is a question, and answers it itself
        take,   // a process takes the next event
        retry,  // timers
        time_over,
        notify,
        announce_again,
        hold,
        unhold
    };
    bool operator==(const Step& other) const
    {
        return kind == other.kind && process == other.process && about == other.about;
    }

    Kind kind;
    std::uint8_t process = 0;
    std::uint8_t about = 0;
};

// Every machine that came up, each once, and what became of it by each event.
class Machines {
public:
    enum class Event : std::uint8_t {
        announce,
        pulse_seen,  // + stage
        pulse_seen_last = pulse_seen + 2,
        shown,
        missed,
        retry,
        met,
        gone,
        answered_yes,
        answered_unknown,
        answered_never,
        answered_not_now,
        time_over,
        asked,
        traffic
    };
    struct Effect {
        Handshake::Action::Kind kind;
        std::uint8_t about;  // stage or process
    };
    struct Outcome {
        std::uint32_t machine = 0;
        std::vector<Effect> effects = {};
    };

    std::uint32_t Fresh(ChannelRole role) { return IdOf(Handshake(role)); }
    const Outcome& After(std::uint32_t machine, Event event, std::uint8_t about);
    const Handshake& At(std::uint32_t machine) const { return m_machines[machine]; }
    std::size_t Count() const { return m_machines.size(); }

private:
    std::uint32_t IdOf(const Handshake& machine);

    std::vector<Handshake> m_machines;
    std::unordered_map<std::string, std::uint32_t> m_ids;
    std::unordered_map<std::uint64_t, Outcome> m_outcomes;
};

class Bus {
public:
    explicit Bus(Plan plan);

    World Beginning() const;

    // Everything that may come next. Whether the first of them comes also where nobody disturbs;
    // nothing does at the end.
    bool StepsFrom(const World& world, std::vector<Step>& steps);

    // What is wrong with the step, or with the world after it.
    Verdict Do(World& world, const Step& step);

    // Of a world in which nothing can happen any more but disturbances.
    Verdict AtTheEnd(const World& world) const;

    std::string Describe(const World& world, const Step& step) const;
    std::string Describe(const World& world) const;
    std::size_t MachineCount() const { return m_machines.Count(); }

    // What the last Do made the endpoints do, for a trace.
    const std::string& Notes() const { return m_notes; }
    void TakeNotes(bool take) { m_takes_notes = take; }

private:
    bool IsEndpoint(std::size_t process) const;
    std::string NameOf(std::size_t process) const;
    bool MayStart(const World& world, std::size_t process) const;
    bool HasRivals(const World& world, std::size_t process) const;
    bool MayNotify(const World& world, std::size_t from, std::size_t to) const;
    bool AddLocalSteps(const World& world, std::size_t process, std::vector<Step>& steps) const;
    bool IsAboutToWireUp(const World& world, std::size_t process) const;
    bool IsPatient(const World& world, std::size_t process, std::size_t partner) const;
    void AddTimers(const World& world, std::size_t process, std::vector<Step>& steps) const;
    void AddHolder(const World& world, std::vector<Step>& steps) const;
    bool FindDelivery(const World& world, Step& step) const;
    bool FindTimer(const World& world, Step& step) const;
    bool FindCalmStep(const World& world, Step& step) const;

    void Start(World& world, std::size_t process);
    void Crash(World& world, std::size_t process);
    void TakeRequest(World& world, std::size_t process, bool drop);
    void Acquire(World& world, std::size_t process, std::size_t stage);
    void EndPulse(World& world, std::size_t process, std::size_t stage);
    void Notify(World& world, std::size_t from, std::size_t to);
    void AnnounceAgain(World& world, std::size_t process);
    void Disconnect(World& world, std::size_t process);
    void Release(World& world, std::size_t process, std::size_t name);
    void Deliver(World& world, std::size_t process, std::uint8_t item) const;
    void TakeEvent(World& world, std::size_t process);
    void PlainTakes(World& world, std::size_t process, std::uint8_t item);
    void PlainPulses(World& world, std::size_t process, Stage stage, std::size_t partner);
    void PlainPulsed(World& world, std::size_t process);
    void Feed(World& world, std::size_t process, Machines::Event event, std::uint8_t about);
    void Perform(World& world, std::size_t process, const Machines::Effect& effect);
    void AnswerAll(World& world, std::size_t process);
    void Answer(World& world, std::size_t process, std::size_t asker);
    bool IsJudged(const World& world, std::size_t process, std::size_t partner) const;
    Verdict OfOneEnd(const World& world, std::size_t process, std::size_t partner) const;
    bool IsLimit(const World& world, std::size_t process, std::size_t partner) const;
    void TellReady(World& world, std::size_t process, std::size_t partner);
    void TellLost(World& world, std::size_t process, std::size_t partner);
    bool HasWiredUp(const World& world, std::size_t process, std::size_t partner);
    void Fail(Fault fault, std::string text);

    Plan m_plan;
    Machines m_machines;
    Verdict m_verdict;
    std::string m_notes;
    bool m_takes_notes = false;
};

}  // namespace handshakes

#endif
