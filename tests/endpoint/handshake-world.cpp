#include "handshake-world.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace handshakes {

namespace {

using Kind = Handshake::Action::Kind;
using Event = Machines::Event;

// Whoever holds a name without being a participant.
constexpr std::size_t HOLDER = 7;

enum class Request : std::uint8_t {
    listen,
    unlisten,
    acquire,
    release,
    meet,
    question,
    answer,
    answer_unknown,
    notification,
    goodbye
};

template <typename Item>
std::uint8_t Pack(Item kind, std::size_t about)
{
    return static_cast<std::uint8_t>(static_cast<unsigned>(kind) << 3U | about);
}

template <typename Item>
std::uint8_t Pack(Item kind, Stage stage)
{
    return Pack(kind, IndexOf(stage));
}

template <typename Item>
Item KindOf(std::uint8_t item)
{
    return static_cast<Item>(item >> 3U);
}

std::size_t AboutOf(std::uint8_t item)
{
    return item & 7U;
}

template <typename Item>
bool IsNext(const Queue& queue, Item kind)
{
    return !queue.empty() && KindOf<Item>(queue.items[0]) == kind;
}

Stage StageOf(std::uint8_t item)
{
    return ALL_STAGES[AboutOf(item)];
}

Event PulseOf(std::size_t stage)
{
    return static_cast<Event>(static_cast<std::size_t>(Event::pulse_seen) + stage);
}

bool IsPulse(Event event)
{
    return event >= Event::pulse_seen && event <= Event::pulse_seen_last;
}

Stage PulsedStage(Event event)
{
    return ALL_STAGES[static_cast<std::size_t>(event) -
                      static_cast<std::size_t>(Event::pulse_seen)];
}

bool Has(unsigned set, std::size_t member)
{
    return (set >> member & 1U) != 0;
}

void Add(std::uint8_t& set, std::size_t member)
{
    set = static_cast<std::uint8_t>(set | 1U << member);
}

void Remove(std::uint8_t& set, std::size_t member)
{
    set = static_cast<std::uint8_t>(set & ~(1U << member));
}

std::string BusNameOf(std::size_t process)
{
    return std::string(1, static_cast<char>('a' + process));
}

std::size_t ProcessOf(const std::string& bus_name)
{
    return static_cast<std::size_t>(bus_name[0] - 'a');
}

std::size_t StageNameOf(ChannelRole role, std::size_t stage)
{
    return (role == ChannelRole::service ? 0 : ALL_STAGES.size()) + stage;
}

const char* TextOf(Stage stage)
{
    constexpr std::array<const char*, ALL_STAGES.size()> texts = {"SYN", "SYN_ACK", "ACK"};
    return texts[IndexOf(stage)];
}

Handshake::Actions Apply(Handshake& machine, Event event, std::uint8_t about)
{
    using PulseResult = Handshake::PulseResult;
    const std::string partner = BusNameOf(about);
    const Stage stage = ALL_STAGES[about % ALL_STAGES.size()];
    switch (event) {
        case Event::announce:
            return machine.Announce();
        case Event::shown:
            return machine.PulseEnded(stage, PulseResult::shown);
        case Event::missed:
            return machine.PulseEnded(stage, PulseResult::missed);
        case Event::retry:
            return machine.Retry(stage);
        case Event::met:
            return machine.Met(partner);
        case Event::gone:
            return machine.Gone(partner);
        case Event::answered_yes:
            return machine.Answered(partner, Handshake::Answer::yes);
        case Event::answered_unknown:
            return machine.Answered(partner, Handshake::Answer::unknown);
        case Event::answered_never:
            return machine.Answered(partner, Handshake::Answer::never);
        case Event::answered_not_now:
            return machine.Answered(partner, Handshake::Answer::not_now);
        case Event::time_over:
            return machine.TimeOver(partner);
        case Event::asked:
            return machine.Asked(partner);
        case Event::traffic:
            return machine.TrafficCame(partner);
        default:
            return machine.PulseSeen(PulsedStage(event), partner);
    }
}

}  // namespace

// ---- Queue ---------------------------------------------------------------------------------

void Queue::Push(std::uint8_t item)
{
    if (size == LONGEST) {
        std::cerr << "a queue of the explorer is too short\n";
        std::abort();
    }
    items[size++] = item;
}

std::uint8_t Queue::Pop()
{
    const std::uint8_t item = items[0];
    std::copy(items.begin() + 1, items.begin() + size, items.begin());
    items[--size] = 0;
    return item;
}

void Queue::Clear()
{
    *this = Queue();
}

// ---- Machines ------------------------------------------------------------------------------

std::uint32_t Machines::IdOf(const Handshake& machine)
{
    const auto [entry, is_new] =
        m_ids.try_emplace(machine.Fingerprint(), static_cast<std::uint32_t>(m_machines.size()));
    if (is_new)
        m_machines.push_back(machine);
    return entry->second;
}

const Machines::Outcome& Machines::After(std::uint32_t machine, Event event, std::uint8_t about)
{
    const std::uint64_t key = static_cast<std::uint64_t>(machine) << 16U |
                              static_cast<std::uint64_t>(event) << 8U | about;
    const auto [entry, is_new] = m_outcomes.try_emplace(key);
    if (!is_new)
        return entry->second;

    Handshake copy = m_machines[machine];
    const Handshake::Actions actions = Apply(copy, event, about);
    entry->second.machine = IdOf(copy);
    for (const Handshake::Action& action : actions) {
        const std::size_t subject =
            action.partner.empty() ? IndexOf(action.stage) : ProcessOf(action.partner);
        entry->second.effects.push_back({action.kind, static_cast<std::uint8_t>(subject)});
    }
    return entry->second;
}

// ---- What may come next --------------------------------------------------------------------

Bus::Bus(Plan plan) : m_plan(std::move(plan)) {}

World Bus::Beginning() const
{
    return {};
}

bool Bus::IsEndpoint(std::size_t process) const
{
    return m_plan.processes[process].make == Make::endpoint;
}

// Participants that are alike start in their order: any other order is the same with other names.
bool Bus::MayStart(const World& world, std::size_t process) const
{
    const ProcessPlan& plan = m_plan.processes[process];
    if (world.processes[process].life != Life::unborn)
        return false;
    if (plan.successor_of >= 0) {
        const Process& before = world.processes[static_cast<std::size_t>(plan.successor_of)];
        return before.life == Life::crashed && (m_plan.overlaps || before.connected == 0);
    }
    if (!m_plan.reduced)
        return true;
    for (std::size_t other = 0; other < process; ++other) {
        const ProcessPlan& before = m_plan.processes[other];
        if (before.role == plan.role && before.make == plan.make && before.successor_of < 0 &&
            before.may_crash == plan.may_crash && world.processes[other].life == Life::unborn)
            return false;
    }
    return true;
}

bool Bus::HasRivals(const World& world, std::size_t process) const
{
    for (std::size_t other = 0; other < m_plan.processes.size(); ++other) {
        const Process& rival = world.processes[other];
        if (other != process && m_plan.processes[other].role == m_plan.processes[process].role &&
            (rival.connected != 0 || rival.life == Life::unborn))
            return true;
    }
    return false;
}

bool Bus::MayNotify(const World& world, std::size_t from, std::size_t to) const
{
    const Process& sender = world.processes[from];
    return m_plan.traffic && sender.life == Life::running && sender.pulsing == 0 &&
           Has(sender.told_ready, to) && !Has(sender.told_lost, to) && !Has(sender.notified, to);
}

void Bus::AddTimers(const World& world, std::size_t process, std::vector<Step>& steps) const
{
    const auto index = static_cast<std::uint8_t>(process);
    for (const Stage stage : ALL_STAGES) {
        if (Has(world.processes[process].retries, IndexOf(stage)))
            steps.push_back({Step::Kind::retry, index, static_cast<std::uint8_t>(IndexOf(stage))});
    }
    for (std::uint8_t partner = 0; partner < 8; ++partner) {
        if (Has(world.processes[process].timers, partner) && !IsPatient(world, process, partner))
            steps.push_back({Step::Kind::time_over, index, partner});
    }
}

// Where only patience says that a partner is there, it lasts longer than news of its end take.
bool Bus::IsPatient(const World& world, std::size_t process, std::size_t partner) const
{
    return m_plan.questions_refused && partner < m_plan.processes.size() &&
           world.processes[partner].life == Life::crashed &&
           (Has(world.processes[process].watches, partner) ||
            !world.processes[process].from_bus.empty());
}

// What a process may do without the bus.
bool Bus::AddLocalSteps(const World& world, std::size_t process, std::vector<Step>& steps) const
{
    const auto index = static_cast<std::uint8_t>(process);
    const Process& here = world.processes[process];
    if (here.life != Life::running)
        return false;
    const bool takes = !here.from_bus.empty() && here.pulsing == 0;
    if (takes)
        steps.push_back({Step::Kind::take, index});
    AddTimers(world, process, steps);
    for (std::uint8_t partner = 0; partner < MOST_PROCESSES; ++partner) {
        if (MayNotify(world, process, partner))
            steps.push_back({Step::Kind::notify, index, partner});
    }
    if (m_plan.announces_again && IsEndpoint(process) && here.announced_again == 0)
        steps.push_back({Step::Kind::announce_again, index});
    if (m_plan.processes[process].may_crash && world.crashed == 0)
        steps.push_back({Step::Kind::crash, index});
    return takes;
}

// Where nobody disturbs, pulses do not overlap and timers run out last.
bool Bus::FindCalmStep(const World& world, Step& step) const
{
    const std::size_t count = m_plan.processes.size();
    for (std::uint8_t process = 0; process < count; ++process) {
        step = {Step::Kind::start, process};
        if (MayStart(world, process))
            return true;
    }
    for (std::uint8_t name = 0; name < STAGE_NAMES; ++name) {
        const std::uint8_t owner = world.owners[name];
        if (owner == 1 + HOLDER)
            step = {Step::Kind::unhold, 0, name};
        else
            step = {Step::Kind::bus, static_cast<std::uint8_t>(owner - 1)};
        if (owner != 0)
            return true;
    }
    return FindDelivery(world, step) || FindTimer(world, step);
}

bool Bus::FindDelivery(const World& world, Step& step) const
{
    const std::size_t count = m_plan.processes.size();
    for (std::uint8_t process = 0; process < count; ++process) {
        const Process& here = world.processes[process];
        step = {Step::Kind::take, process};
        if (here.life == Life::running && here.pulsing == 0 && !here.from_bus.empty())
            return true;
    }
    for (std::uint8_t process = 0; process < count; ++process) {
        step = {Step::Kind::bus, process};
        if (!world.processes[process].to_bus.empty())
            return true;
    }
    return false;
}

bool Bus::FindTimer(const World& world, Step& step) const
{
    std::vector<Step> timers;
    for (std::size_t process = 0; process < m_plan.processes.size(); ++process)
        AddTimers(world, process, timers);
    if (!timers.empty())
        step = timers.front();
    return !timers.empty();
}

bool Bus::IsAboutToWireUp(const World& world, std::size_t process) const
{
    const Process& here = world.processes[process];
    const std::uint8_t item = here.from_bus.items[0];
    const std::size_t partner = AboutOf(item);
    return !here.from_bus.empty() && IsPulse(KindOf<Event>(item)) && partner != HOLDER &&
           !Has(here.wired, partner) && (IsEndpoint(partner) || m_plan.plain_is_judged);
}

void Bus::AddHolder(const World& world, std::vector<Step>& steps) const
{
    const bool has_holder = m_plan.holder || m_plan.holder_is_seen;
    for (std::uint8_t name = 0; has_holder && name < STAGE_NAMES; ++name) {
        if (world.held == 0 && world.owners[name] == 0)
            steps.push_back({Step::Kind::hold, 0, name});
        if (world.owners[name] == 1 + HOLDER)
            steps.push_back({Step::Kind::unhold, 0, name});
    }
}

bool Bus::StepsFrom(const World& world, std::vector<Step>& steps)
{
    steps.clear();
    const std::size_t count = m_plan.processes.size();
    // What a process does with the event at hand does not depend on what others do meanwhile, and
    // nobody sees it before the bus has taken what it sends; but whether a plain channel has wired
    // an endpoint up is looked at from outside.
    for (std::size_t process = 0; m_plan.reduced && process < count; ++process) {
        if (IsEndpoint(process) || !IsAboutToWireUp(world, process)) {
            if (AddLocalSteps(world, process, steps))
                return true;
            steps.clear();
        }
    }

    for (std::uint8_t process = 0; process < count; ++process) {
        if (MayStart(world, process))
            steps.push_back({Step::Kind::start, process});
        AddLocalSteps(world, process, steps);
        const Queue& requests = world.processes[process].to_bus;
        if (requests.empty())
            continue;
        steps.push_back({Step::Kind::bus, process});
        if (m_plan.questions_dropped && KindOf<Request>(requests.items[0]) == Request::question)
            steps.push_back({Step::Kind::drop, process});
    }
    AddHolder(world, steps);
    Step calm = {Step::Kind::bus};
    if (!FindCalmStep(world, calm))
        return false;
    std::iter_swap(steps.begin(), std::find(steps.begin(), steps.end(), calm));
    return true;
}

// ---- Steps ---------------------------------------------------------------------------------

Verdict Bus::Do(World& world, const Step& step)
{
    m_verdict = {};
    m_notes.clear();
    Process& process = world.processes[step.process];
    switch (step.kind) {
        case Step::Kind::start:
            Start(world, step.process);
            break;
        case Step::Kind::crash:
            Crash(world, step.process);
            break;
        case Step::Kind::bus:
            TakeRequest(world, step.process, false);
            break;
        case Step::Kind::drop:
            TakeRequest(world, step.process, true);
            break;
        case Step::Kind::take:
            TakeEvent(world, step.process);
            break;
        case Step::Kind::retry:
            Remove(process.retries, step.about);
            Feed(world, step.process, Event::retry, step.about);
            break;
        case Step::Kind::time_over:
            Remove(process.timers, step.about);
            Feed(world, step.process, Event::time_over, step.about);
            break;
        case Step::Kind::notify:
            Add(process.notified, step.about);
            process.to_bus.Push(Pack(Request::notification, step.about));
            break;
        case Step::Kind::announce_again:
            AnnounceAgain(world, step.process);
            break;
        case Step::Kind::hold:
            world.held = 1;
            world.owners[step.about] = 1 + HOLDER;
            break;
        case Step::Kind::unhold:
            Release(world, HOLDER, step.about);
            break;
    }
    return m_verdict;
}

void Bus::Start(World& world, std::size_t process)
{
    Process& here = world.processes[process];
    here.life = Life::running;
    here.connected = 1;
    const bool is_client = m_plan.processes[process].role == ChannelRole::client;
    for (const Stage stage : ALL_STAGES) {
        if (!IsEndpoint(process) || !is_client || stage != Stage::ack)
            here.to_bus.Push(Pack(Request::listen, stage));
    }
    if (IsEndpoint(process)) {
        here.machine = m_machines.Fresh(m_plan.processes[process].role);
        Feed(world, process, Event::announce, 0);
    } else {
        PlainPulses(world, process, Stage::syn, process);
    }
}

void Bus::AnnounceAgain(World& world, std::size_t process)
{
    Process& here = world.processes[process];
    here.announced_again = 1;
    if (m_plan.processes[process].role == ChannelRole::client)
        here.to_bus.Push(Pack(Request::listen, Stage::syn_ack));
    Feed(world, process, Event::announce, 0);
}

// What it has sent the bus still reads, and what it has told nobody is forgotten.
void Bus::Crash(World& world, std::size_t process)
{
    Process& here = world.processes[process];
    Process rest;
    rest.life = Life::crashed;
    rest.connected = 1;
    rest.listens = here.listens;
    rest.watches = here.watches;
    rest.to_bus = here.to_bus;
    rest.to_bus.Push(Pack(Request::goodbye, 0));
    here = rest;
    world.crashed = 1;
}

void Bus::TakeRequest(World& world, std::size_t process, bool drop)
{
    Process& here = world.processes[process];
    const std::uint8_t item = here.to_bus.Pop();
    const std::size_t about = AboutOf(item);
    switch (KindOf<Request>(item)) {
        case Request::listen:
            Add(here.listens, about);
            while (m_plan.reduced && IsNext(here.to_bus, Request::listen))
                Add(here.listens, AboutOf(here.to_bus.Pop()));
            break;
        case Request::unlisten:
            Remove(here.listens, about);
            break;
        case Request::acquire:
            Acquire(world, process, about);
            break;
        case Request::release:
            EndPulse(world, process, about);
            break;
        case Request::meet:
            if (about != HOLDER && world.processes[about].connected != 0) {
                Add(here.watches, about);
                Deliver(world, process, Pack(Event::met, about));
            } else {
                Deliver(world, process, Pack(Event::gone, about));
            }
            break;
        case Request::question:
            if (m_plan.questions_refused)
                Deliver(world, process, Pack(Event::answered_never, about));
            else if (drop)
                Deliver(world, process, Pack(Event::answered_not_now, about));
            else
                Deliver(world, about, Pack(Event::asked, process));
            break;
        case Request::answer:
            Deliver(world, about, Pack(Event::answered_yes, process));
            break;
        case Request::answer_unknown:
            Deliver(world, about, Pack(Event::answered_unknown, process));
            break;
        case Request::notification:
            Notify(world, process, about);
            break;
        case Request::goodbye:
            Disconnect(world, process);
            break;
    }
}

void Bus::Acquire(World& world, std::size_t process, std::size_t stage)
{
    Process& here = world.processes[process];
    std::uint8_t& owner = world.owners[StageNameOf(m_plan.processes[process].role, stage)];
    if (owner == 0) {
        owner = static_cast<std::uint8_t>(1 + process);
        // A plain channel releases it on the answer and does nothing before.
        if (!IsEndpoint(process) && here.life == Life::running)
            here.to_bus.Push(Pack(Request::release, stage));
        // Who tries to hold a name meanwhile gets nothing, and nobody else can try.
        if (m_plan.reduced && !HasRivals(world, process) && IsNext(here.to_bus, Request::release))
            TakeRequest(world, process, false);
    } else if (!IsEndpoint(process)) {
        Add(owner == 1 + HOLDER ? here.swallowed : here.collided, stage);
        PlainPulsed(world, process);
    }
}

void Bus::EndPulse(World& world, std::size_t process, std::size_t stage)
{
    const std::size_t name = StageNameOf(m_plan.processes[process].role, stage);
    const bool shows = world.owners[name] == 1 + process;
    if (shows)
        Release(world, process, name);
    Deliver(world, process, Pack(shows ? Event::shown : Event::missed, stage));
    if (!IsEndpoint(process))
        PlainPulsed(world, process);
}

void Bus::Notify(World& world, std::size_t from, std::size_t to)
{
    if (IsEndpoint(to))
        Deliver(world, to, Pack(Event::traffic, from));
    else if (IsJudged(world, from, to) && world.processes[to].life == Life::running &&
             !Has(world.processes[to].wired, from))
        Fail(Fault::message_lost,
             NameOf(to) + " drops the message of " + NameOf(from) + ", whom it has not wired up");
}

void Bus::Disconnect(World& world, std::size_t process)
{
    for (std::size_t name = 0; name < STAGE_NAMES; ++name) {
        if (world.owners[name] == 1 + process)
            Release(world, process, name);
    }
    Process& here = world.processes[process];
    here = {};
    here.life = Life::crashed;
    for (std::size_t other = 0; other < m_plan.processes.size(); ++other) {
        if (Has(world.processes[other].watches, process)) {
            Remove(world.processes[other].watches, process);
            Deliver(world, other, Pack(Event::gone, process));
        }
    }
}

void Bus::Release(World& world, std::size_t process, std::size_t name)
{
    world.owners[name] = 0;
    if (process == HOLDER && !m_plan.holder_is_seen)
        return;
    const bool is_service = name < ALL_STAGES.size();
    const std::size_t stage = name % ALL_STAGES.size();
    for (std::size_t other = 0; other < m_plan.processes.size(); ++other) {
        const bool listens_to_services = m_plan.processes[other].role == ChannelRole::client;
        if (listens_to_services != is_service || !Has(world.processes[other].listens, stage))
            continue;
        Deliver(world, other, Pack(PulseOf(stage), process));
        if (process == HOLDER || world.processes[process].life != Life::running ||
            IsEndpoint(process))
            continue;
        Process& here = world.processes[process];
        Add(here.seen_by, other);
        if (stage == IndexOf(Stage::ack) && here.pulsing_for != other)
            Add(here.misunderstood_by, other);
    }
}

// A plain channel does not look at what the bus answers it, but for its pulses.
void Bus::Deliver(World& world, std::size_t process, std::uint8_t item) const
{
    Process& here = world.processes[process];
    const auto kind = KindOf<Event>(item);
    const bool is_of_use =
        IsEndpoint(process) || IsPulse(kind) || kind == Event::gone || kind == Event::asked;
    if (here.life == Life::running && is_of_use)
        here.from_bus.Push(item);
}

void Bus::TakeEvent(World& world, std::size_t process)
{
    Process& here = world.processes[process];
    const std::uint8_t item = here.from_bus.Pop();
    if (!IsEndpoint(process)) {
        PlainTakes(world, process, item);
        return;
    }
    const auto about = static_cast<std::uint8_t>(AboutOf(item));
    const auto event = KindOf<Event>(item);
    const Handshake& machine = m_machines.At(here.machine);
    if (event == Event::asked) {
        Answer(world, process, about);
        return;
    }
    if (event == Event::gone) {
        Remove(here.timers, about);
        Remove(here.asked, about);
    } else if (event == Event::traffic && IsEndpoint(about) && !m_plan.questions_refused &&
               machine.TrafficOf(BusNameOf(about)) == Handshake::Traffic::of_stranger) {
        Fail(Fault::message_lost,
             NameOf(process) + " does not know " + NameOf(about) + ", who sends to it");
    }
    Feed(world, process, event, about);
}

// ---- A plain channel -----------------------------------------------------------------------

void Bus::PlainTakes(World& world, std::size_t process, std::uint8_t item)
{
    Process& here = world.processes[process];
    const std::size_t about = AboutOf(item);
    const auto kind = KindOf<Event>(item);
    if (kind == Event::asked) {
        here.to_bus.Push(Pack(Request::answer, about));
        return;
    }
    if (kind == Event::gone) {
        if (Has(here.told_ready, about))
            Add(here.told_lost, about);
        Remove(here.wired, about);
        Remove(here.half, about);
        return;
    }
    const Stage stage = PulsedStage(kind);
    if (stage == Stage::ack) {
        if (Has(here.wired, about))
            TellReady(world, process, about);
        return;
    }
    if (Has(here.wired, about))
        return;
    Add(here.wired, about);
    here.to_bus.Push(Pack(Request::meet, about));
    PlainPulses(world, process, stage == Stage::syn ? Stage::syn_ack : Stage::ack, about);
}

void Bus::PlainPulses(World& world, std::size_t process, Stage stage, std::size_t partner)
{
    Process& here = world.processes[process];
    here.pulsing = static_cast<std::uint8_t>(1 + IndexOf(stage));
    here.pulsing_for = static_cast<std::uint8_t>(partner);
    here.to_bus.Push(Pack(Request::acquire, stage));
}

void Bus::PlainPulsed(World& world, std::size_t process)
{
    Process& here = world.processes[process];
    if (here.life != Life::running)
        return;
    const Stage stage = ALL_STAGES[here.pulsing - 1U];
    const std::size_t partner = here.pulsing_for;
    here.pulsing = 0;
    here.pulsing_for = 0;
    if (stage == Stage::syn_ack)
        Add(here.half, partner);
    else if (stage == Stage::ack)
        TellReady(world, process, partner);
}

// ---- An endpoint ---------------------------------------------------------------------------

void Bus::Feed(World& world, std::size_t process, Event event, std::uint8_t about)
{
    Process& here = world.processes[process];
    const Machines::Outcome& outcome = m_machines.After(here.machine, event, about);
    here.machine = outcome.machine;
    for (const Machines::Effect& effect : outcome.effects)
        Perform(world, process, effect);
    // A timer that nothing depends on any more is as good as none.
    for (std::uint8_t partner = 0; here.timers >> partner != 0; ++partner) {
        if (!Has(here.timers, partner))
            continue;
        const Machines::Outcome& late = m_machines.After(here.machine, Event::time_over, partner);
        if (late.machine == here.machine && late.effects.empty())
            Remove(here.timers, partner);
    }
}

void Bus::Perform(World& world, std::size_t process, const Machines::Effect& effect)
{
    Process& here = world.processes[process];
    const auto note = [this](const std::string& text) {
        if (m_takes_notes)
            m_notes += (m_notes.empty() ? "" : ", ") + text;
    };
    const auto stage_text = [&effect] { return TextOf(ALL_STAGES[effect.about % 3]); };
    switch (effect.kind) {
        case Kind::pulse:
            note(std::string("pulses ") + stage_text());
            here.to_bus.Push(Pack(Request::acquire, effect.about));
            here.to_bus.Push(Pack(Request::release, effect.about));
            break;
        case Kind::retry:
        case Kind::retry_refused:
            note(std::string("will pulse again ") + stage_text());
            Add(here.retries, effect.about);
            break;
        case Kind::meet:
            note("meets " + NameOf(effect.about));
            here.to_bus.Push(Pack(Request::meet, effect.about));
            break;
        case Kind::ask:
            note("asks " + NameOf(effect.about));
            here.to_bus.Push(Pack(Request::question, effect.about));
            break;
        case Kind::wait_for_ack:
        case Kind::wait_patiently:
        case Kind::wait_to_ask:
            note("waits for " + NameOf(effect.about));
            Add(here.timers, effect.about);
            break;
        case Kind::tell_ready:
            note(NameOf(effect.about) + " is ready");
            TellReady(world, process, effect.about);
            break;
        case Kind::tell_lost:
            note(NameOf(effect.about) + " is lost");
            TellLost(world, process, effect.about);
            break;
        case Kind::answer_all:
            note("answers all");
            AnswerAll(world, process);
            break;
        case Kind::stop_listening:
            note(std::string("listens no more to ") + stage_text());
            here.to_bus.Push(Pack(Request::unlisten, effect.about));
            break;
    }
}

void Bus::AnswerAll(World& world, std::size_t process)
{
    const std::uint8_t askers = std::exchange(world.processes[process].asked, std::uint8_t{0});
    for (std::size_t asker = 0; asker < m_plan.processes.size(); ++asker) {
        if (Has(askers, asker))
            Answer(world, process, asker);
    }
}

void Bus::Answer(World& world, std::size_t process, std::size_t asker)
{
    Process& here = world.processes[process];
    const Handshake& machine = m_machines.At(here.machine);
    const Handshake::Word word = machine.WordFor(BusNameOf(asker));
    if (word == Handshake::Word::later) {
        Add(here.asked, asker);
        return;
    }
    const bool is_known = word == Handshake::Word::yes;
    if (m_takes_notes)
        m_notes += std::string(m_notes.empty() ? "" : ", ") +
                   (is_known ? "answers " : "does not know ") + NameOf(asker);
    if (machine.Knows(BusNameOf(asker)))
        Feed(world, process, Event::asked, static_cast<std::uint8_t>(asker));
    here.to_bus.Push(Pack(is_known ? Request::answer : Request::answer_unknown, asker));
}

// ---- What must not be ----------------------------------------------------------------------

void Bus::Fail(Fault fault, std::string text)
{
    if (m_verdict.fault == Fault::none)
        m_verdict = {fault, std::move(text)};
}

// Whether it is a fault where `process` takes the partner as ready too early. Where the SYN of a
// plain service was lost, clients take its answer to one of them for the answer to their own.
bool Bus::IsJudged(const World& world, std::size_t process, std::size_t partner) const
{
    if (m_plan.plain_is_judged)
        return true;
    const Process& there = world.processes[partner];
    const bool is_unannounced = !IsEndpoint(partner) &&
                                m_plan.processes[partner].role == ChannelRole::service &&
                                Has(there.swallowed | there.collided, IndexOf(Stage::syn));
    return IsEndpoint(process) && !m_plan.questions_refused && !is_unannounced;
}

void Bus::TellReady(World& world, std::size_t process, std::size_t partner)
{
    Process& here = world.processes[process];
    if (IsEndpoint(process) && Has(here.told_ready, partner))
        Fail(Fault::told_wrongly, NameOf(process) + " is told ready twice");
    Add(here.told_ready, partner);
    Remove(here.half, partner);
    if (IsJudged(world, process, partner) && !HasWiredUp(world, partner, process))
        Fail(Fault::early_ready,
             NameOf(process) + " takes " + NameOf(partner) + " as ready, who does not know of it");
}

void Bus::TellLost(World& world, std::size_t process, std::size_t partner)
{
    Process& here = world.processes[process];
    if (!Has(here.told_ready, partner) || Has(here.told_lost, partner))
        Fail(Fault::told_wrongly, NameOf(process) + " is told lost out of turn");
    Add(here.told_lost, partner);
}

// Also when it will have done so before anything reaches it that the partner sends from now on. GIO
// drops what comes before a plain channel has subscribed, so that for it only now counts.
bool Bus::HasWiredUp(const World& world, std::size_t process, std::size_t partner)
{
    const Process& here = world.processes[process];
    if (here.life != Life::running)
        return true;
    if (!IsEndpoint(process))
        return Has(here.wired, partner);
    std::uint32_t machine = here.machine;
    for (std::uint8_t index = 0; index < here.from_bus.size; ++index) {
        const std::uint8_t item = here.from_bus.items[index];
        const auto about = static_cast<std::uint8_t>(AboutOf(item));
        machine = m_machines.After(machine, KindOf<Event>(item), about).machine;
    }
    return m_machines.At(machine).Knows(BusNameOf(partner));
}

Verdict Bus::AtTheEnd(const World& world) const
{
    const std::size_t count = m_plan.processes.size();
    for (std::size_t process = 0; process < count; ++process) {
        for (std::size_t partner = 0; partner < count; ++partner) {
            const bool are_partners =
                m_plan.processes[process].role != m_plan.processes[partner].role;
            if (!are_partners || world.processes[process].life != Life::running)
                continue;
            Verdict verdict = OfOneEnd(world, process, partner);
            if (verdict.fault != Fault::none)
                return verdict;
        }
    }
    return {};
}

Verdict Bus::OfOneEnd(const World& world, std::size_t process, std::size_t partner) const
{
    const Process& here = world.processes[process];
    const Process& there = world.processes[partner];
    const bool is_ready = Has(here.told_ready, partner) && !Has(here.told_lost, partner);
    if (there.life != Life::running) {
        if (!is_ready)
            return {};
        return {Fault::told_wrongly,
                NameOf(process) + " is not told of the end of " + NameOf(partner)};
    }
    if (is_ready || IsLimit(world, process, partner))
        return {};
    Fault fault = Fault::not_ready;
    if (!IsEndpoint(process) && !IsEndpoint(partner)) {
        if (Has(here.half, partner) && Has(there.half, process))
            fault = Fault::both_half;
        else if ((here.swallowed | there.swallowed) != 0)
            fault = Fault::name_held;
        else if ((here.collided | there.collided) != 0)
            fault = Fault::collision;
    }
    return {fault, NameOf(process) + " does not become ready for " + NameOf(partner)};
}

// What no endpoint can do anything about: a plain service of which not all pulses showed, a plain
// client of which none did, and one whose ACK to another service was seen and whose answer to this
// one was not.
bool Bus::IsLimit(const World& world, std::size_t process, std::size_t partner) const
{
    const bool is_client = m_plan.processes[process].role == ChannelRole::client;
    const std::size_t client_index = is_client ? process : partner;
    const std::size_t service_index = is_client ? partner : process;
    const Process& client = world.processes[client_index];
    const Process& service = world.processes[service_index];
    if (!IsEndpoint(client_index) && !IsEndpoint(service_index))
        return !m_plan.plain_is_judged;
    if (!IsEndpoint(service_index))
        return (service.swallowed | service.collided) != 0;
    if (IsEndpoint(client_index))
        return false;
    return !Has(client.seen_by, service_index) ||
           (is_client && Has(client.misunderstood_by, service_index) &&
            Has(client.swallowed | client.collided, IndexOf(Stage::syn_ack)));
}

// ---- For traces ----------------------------------------------------------------------------

std::string Describe(const Plan& plan)
{
    std::string text;
    bool crashes = false;
    for (const ProcessPlan& process : plan.processes) {
        crashes = crashes || process.may_crash;
        if (process.successor_of >= 0)
            continue;
        text += text.empty() ? "" : ", ";
        text += process.make == Make::plain ? "plain " : "";
        text += process.role == ChannelRole::service ? "service" : "client";
        text += process.may_crash ? " that crashes" : "";
    }
    const auto add = [&text](bool is_so, const char* words) {
        if (is_so)
            text += std::string("; ") + words;
    };
    add(crashes && !plan.overlaps, "crashes are noticed at once");
    add(plan.holder, "a name is held");
    add(plan.holder_is_seen, "a name is held and the holder seen");
    add(plan.questions_refused, "questions are refused");
    add(plan.questions_dropped, "questions are dropped");
    add(plan.traffic, "traffic");
    add(plan.announces_again, "announced again");
    add(!plan.reduced, "step by step");
    return text;
}

std::string Bus::NameOf(std::size_t process) const
{
    if (process == HOLDER)
        return "the holder";
    const ProcessPlan& plan = m_plan.processes[process];
    std::string name = plan.make == Make::plain ? "plain " : "";
    name += plan.role == ChannelRole::service ? "service" : "client";
    return name + " " + BusNameOf(process) + (plan.successor_of >= 0 ? "'" : "");
}

std::string Bus::Describe(const World& world, const Step& step) const
{
    const std::string who = step.process < m_plan.processes.size() ? NameOf(step.process) : "";
    const Process& process = world.processes[step.process];
    const auto stage_name = [](std::size_t name) {
        return std::string(name < 3 ? "SERVICE_" : "CLIENT_") + TextOf(ALL_STAGES[name % 3]);
    };
    switch (step.kind) {
        case Step::Kind::start:
            return who + " starts";
        case Step::Kind::crash:
            return who + " crashes";
        case Step::Kind::drop:
            return "the bus answers a question of " + who + " by: not now";
        case Step::Kind::retry:
            return who + " tries again: " + TextOf(ALL_STAGES[step.about]);
        case Step::Kind::time_over:
            return who + " has waited for " + NameOf(step.about);
        case Step::Kind::notify:
            return who + " sends to " + NameOf(step.about);
        case Step::Kind::announce_again:
            return who + " announces itself again";
        case Step::Kind::hold:
            return "somebody holds " + stage_name(step.about);
        case Step::Kind::unhold:
            return "the holder releases its name";
        case Step::Kind::bus: {
            const std::uint8_t item = process.to_bus.items[0];
            const auto kind = KindOf<Request>(item);
            constexpr std::array<const char*, 10> texts = {
                "listen to ", "listen no more to ",
                "acquire ",   "release ",
                "meet ",      "ask ",
                "answer ",    "tell that it does not know ",
                "notify ",    "goodbye"};
            std::string text = "the bus takes of " + who + ": ";
            text += texts[static_cast<std::size_t>(kind)];
            if (kind <= Request::release)
                text += TextOf(StageOf(item));
            else if (kind != Request::goodbye)
                text += NameOf(AboutOf(item));
            return text;
        }
        case Step::Kind::take: {
            const std::uint8_t item = process.from_bus.items[0];
            const auto kind = KindOf<Event>(item);
            constexpr std::array<const char*, 16> texts = {"",
                                                           "SYN of ",
                                                           "SYN_ACK of ",
                                                           "ACK of ",
                                                           "own pulse has shown: ",
                                                           "own pulse was missed: ",
                                                           "",
                                                           "has met ",
                                                           "gone: ",
                                                           "answer of ",
                                                           "is not known to ",
                                                           "refused: question to ",
                                                           "not now: question to ",
                                                           "",
                                                           "question of ",
                                                           "message of "};
            std::string text = who + " takes: " + texts[static_cast<std::size_t>(kind)];
            const bool is_own = kind == Event::shown || kind == Event::missed;
            return text + (is_own ? TextOf(StageOf(item)) : NameOf(AboutOf(item)));
        }
    }
    return {};
}

std::string Bus::Describe(const World& world) const
{
    std::string text;
    for (std::size_t process = 0; process < m_plan.processes.size(); ++process) {
        const Process& here = world.processes[process];
        text += "    " + NameOf(process) + ": ";
        if (here.life != Life::running) {
            text += here.life == Life::unborn ? "not started\n" : "crashed\n";
            continue;
        }
        if (IsEndpoint(process))
            text += m_machines.At(here.machine).Fingerprint() + " ";
        for (std::size_t partner = 0; partner < m_plan.processes.size(); ++partner) {
            if (Has(here.told_ready, partner))
                text += NameOf(partner) + " is " +
                        (Has(here.told_lost, partner) ? "lost; " : "ready; ");
            else if (Has(here.half, partner))
                text += NameOf(partner) + " is half; ";
        }
        text += "\n";
    }
    return text;
}

}  // namespace handshakes
