#include "handshake-search.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

namespace handshakes {

namespace {

constexpr std::uint32_t NOWHERE = 0xffffffff;

// What is kept of a world that was met. 128 bits tell it from others: among 100 million of them no
// two are alike but with a chance of 10^-23.
struct Met {
    std::uint64_t hash[2];
    std::uint32_t before;  // the world it was reached from first
    std::uint32_t calm;    // the world that follows where nobody disturbs
};

// Grows without a second copy of what is in it.
class MetWorlds {
public:
    std::size_t size() const { return m_size; }
    Met& operator[](std::size_t index) { return m_blocks[index / BLOCK][index % BLOCK]; }
    void Add(const Met& met)
    {
        if (m_size % BLOCK == 0)
            m_blocks.push_back(std::make_unique<Met[]>(BLOCK));
        (*this)[m_size++] = met;
    }

private:
    static constexpr std::size_t BLOCK = 1U << 16U;
    std::vector<std::unique_ptr<Met[]>> m_blocks;
    std::size_t m_size = 0;
};

void Append(std::vector<std::uint8_t>& bytes, const void* data, std::size_t size)
{
    const auto* begin = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
}

// A process is written without the unused ends of its queues.
constexpr std::size_t HEAD = offsetof(Process, to_bus);

void Write(const World& world, std::size_t processes, std::vector<std::uint8_t>& bytes)
{
    Append(bytes, &world.owners, sizeof(World) - offsetof(World, owners));
    for (std::size_t process = 0; process < processes; ++process) {
        const Process& here = world.processes[process];
        Append(bytes, &here, HEAD);
        for (const Queue* queue : {&here.to_bus, &here.from_bus})
            Append(bytes, queue, 1U + queue->size);
    }
}

World Read(const std::uint8_t*& bytes, std::size_t processes)
{
    World world;
    const auto take = [&bytes](void* data, std::size_t size) {
        std::memcpy(data, bytes, size);
        bytes += size;
    };
    take(&world.owners, sizeof(World) - offsetof(World, owners));
    for (std::size_t process = 0; process < processes; ++process) {
        Process& here = world.processes[process];
        take(&here, HEAD);
        for (Queue* queue : {&here.to_bus, &here.from_bus})
            take(queue, 1U + *bytes);
    }
    return world;
}

std::uint64_t Hash(const std::vector<std::uint8_t>& bytes, std::uint64_t hash)
{
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, std::min(sizeof(word), bytes.size() - at));
        hash = (hash ^ word) * 0x9fb21c651e98df25U;
        hash ^= hash >> 32U;
    }
    hash ^= bytes.size();
    hash *= 0xd6e8feb86659fd93U;
    return hash ^ hash >> 32U;
}

class Search {
public:
    Search(const Plan& plan, const std::vector<Fault>& wanted)
        : m_plan(plan), m_wanted(wanted), m_bus(plan), m_slots(1U << 16U, NOWHERE)
    {
    }

    Finding Run()
    {
        const auto begin = std::chrono::steady_clock::now();
        if (GoThroughAll())
            LookForCircles();
        m_finding.worlds = m_met.size();
        m_finding.machines = m_bus.MachineCount();
        m_finding.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        return std::move(m_finding);
    }

private:
    bool GoThroughAll();
    bool GoOn(std::uint32_t index, const World& world);
    void LookForCircles();
    std::uint32_t Meet(const World& world, std::uint32_t before);
    bool IsWanted(Fault fault) const;
    World Tell(World world, const Step& step);
    bool Report(std::uint32_t index, const Step* step, const Verdict& verdict);

    const Plan& m_plan;
    const std::vector<Fault>& m_wanted;
    Bus m_bus;
    MetWorlds m_met;
    std::vector<std::uint32_t> m_slots;  // open addressing, by hash
    std::vector<std::uint8_t> m_next;    // the worlds that were met and not gone on from yet
    std::vector<std::uint8_t> m_bytes;
    std::vector<Step> m_steps;
    Finding m_finding;
};

bool Search::GoThroughAll()
{
    Meet(m_bus.Beginning(), NOWHERE);
    for (std::uint32_t index = 0; !m_next.empty();) {
        const std::vector<std::uint8_t> worlds = std::exchange(m_next, {});
        for (const std::uint8_t* at = worlds.data(); at != worlds.data() + worlds.size(); ++index) {
            if (!GoOn(index, Read(at, m_plan.processes.size())))
                return false;
        }
    }
    return true;
}

bool Search::GoOn(std::uint32_t index, const World& world)
{
    const bool goes_on = m_bus.StepsFrom(world, m_steps);
    if (!goes_on) {
        const Verdict verdict = m_bus.AtTheEnd(world);
        if (IsWanted(verdict.fault))
            return Report(index, nullptr, verdict);
    }
    for (std::size_t at = 0; at < m_steps.size(); ++at) {
        World after = world;
        const Verdict verdict = m_bus.Do(after, m_steps[at]);
        ++m_finding.steps;
        if (IsWanted(verdict.fault))
            return Report(index, &m_steps[at], verdict);
        const std::uint32_t next = Meet(after, index);
        if (at == 0 && goes_on)
            m_met[index].calm = next;
    }
    return true;
}

// Every world has one that follows where nobody disturbs, or is an end. Who follows them comes to
// an end, unless they go in a circle.
void Search::LookForCircles()
{
    if (!IsWanted(Fault::not_quiet))
        return;
    enum : std::uint8_t { unseen, on_the_way, ends };
    std::vector<std::uint8_t> states(m_met.size(), unseen);
    for (std::uint32_t start = 0; start < m_met.size(); ++start) {
        std::uint32_t at = start;
        for (; at != NOWHERE && states[at] == unseen; at = m_met[at].calm)
            states[at] = on_the_way;
        if (at != NOWHERE && states[at] == on_the_way) {
            Report(at, nullptr, {Fault::not_quiet, "this comes again and again"});
            return;
        }
        for (at = start; at != NOWHERE && states[at] == on_the_way; at = m_met[at].calm)
            states[at] = ends;
    }
}

std::uint32_t Search::Meet(const World& world, std::uint32_t before)
{
    m_bytes.clear();
    Write(world, m_plan.processes.size(), m_bytes);
    const std::uint64_t hash[2] = {Hash(m_bytes, 0x243f6a8885a308d3U),
                                   Hash(m_bytes, 0x13198a2e03707344U)};
    if (m_met.size() * 3 > m_slots.size() * 2) {
        std::vector<std::uint32_t>(m_slots.size() * 2, NOWHERE).swap(m_slots);
        for (std::uint32_t index = 0; index < m_met.size(); ++index) {
            std::size_t slot = m_met[index].hash[0] & (m_slots.size() - 1);
            while (m_slots[slot] != NOWHERE)
                slot = (slot + 1) & (m_slots.size() - 1);
            m_slots[slot] = index;
        }
    }
    std::size_t slot = hash[0] & (m_slots.size() - 1);
    for (; m_slots[slot] != NOWHERE; slot = (slot + 1) & (m_slots.size() - 1)) {
        const Met& met = m_met[m_slots[slot]];
        if (met.hash[0] == hash[0] && met.hash[1] == hash[1])
            return m_slots[slot];
    }
    const auto index = static_cast<std::uint32_t>(m_met.size());
    m_slots[slot] = index;
    m_met.Add({{hash[0], hash[1]}, before, NOWHERE});
    m_next.insert(m_next.end(), m_bytes.begin(), m_bytes.end());
    return index;
}

bool Search::IsWanted(Fault fault) const
{
    return fault != Fault::none && (m_wanted.empty() || std::find(m_wanted.begin(), m_wanted.end(),
                                                                  fault) != m_wanted.end());
}

// False: nothing more is looked for.
bool Search::Report(std::uint32_t index, const Step* step, const Verdict& verdict)
{
    std::vector<std::uint32_t> way;
    for (std::uint32_t at = index; at != 0; at = m_met[at].before)
        way.push_back(at);

    World world = m_bus.Beginning();
    m_bus.TakeNotes(true);
    m_finding.fault = verdict.fault;
    const std::vector<Step> last = step == nullptr ? std::vector<Step>{} : std::vector<Step>{*step};
    for (; !way.empty(); way.pop_back()) {
        // Which step it was is found by taking each.
        m_bus.StepsFrom(world, m_steps);
        for (const Step& each : m_steps) {
            World after = world;
            m_bus.Do(after, each);
            if (Meet(after, NOWHERE) == way.back()) {
                world = Tell(world, each);
                break;
            }
        }
    }
    for (const Step& each : last)
        world = Tell(world, each);
    m_bus.TakeNotes(false);
    m_finding.trace += m_bus.Describe(world) + "and so: " + verdict.text + "\n";
    return false;
}

World Search::Tell(World world, const Step& step)
{
    m_finding.trace += m_bus.Describe(world, step);
    m_bus.Do(world, step);
    m_finding.trace += (m_bus.Notes().empty() ? "" : "; it " + m_bus.Notes()) + "\n";
    return world;
}

}  // namespace

Finding Explore(const Plan& plan, const std::vector<Fault>& wanted)
{
    return Search(plan, wanted).Run();
}

}  // namespace handshakes
