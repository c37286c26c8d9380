// Two endpoints against a model of what they promise, through random sequences of what their
// applications do: send, ask, answer, fail, cancel, stop, start again, work slowly, and lose the
// bus.
//
// The model is a ledger of all that was sent. Whoever is told something, or gets a message, looks
// there whether it may be so: a partner is ready before anything else of it and lost after
// everything else, messages come once and in order, and requests come to one end. At the end of
// each step both endpoints have found each other again, and all that was sent with `ok` to a
// partner that is not lost has arrived.
//
//   PELMAR_ENDPOINT_MODEL_SEQUENCES=N  how many sequences (default: 20)
//   PELMAR_ENDPOINT_MODEL_SEED=N       the seed of the first one; the others count on from it

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>

#include "endpoint-fixture.h"
#include "setting.h"

namespace {

using Bytes = PelmarEndpoint::Bytes;
using std::chrono::milliseconds;
using std::chrono::seconds;

// What the receiver of a request does with it.
enum class Task { notify, echo, later, fail, drop, ask_back };

// One partner of one endpoint from ready until lost, as the endpoint's application knows it.
struct Stay {
    unsigned number = 0;
    Partner partner;
    bool was_greeted = false;  // what is sent at once is sent
    bool lost = false;
    bool has_to_be_lost = false;  // somebody was told so
    unsigned rooms = 0;
    unsigned rooms_due = 0;
};
using StayPtr = std::shared_ptr<Stay>;

// Something that was sent. A sender has two threads: the test's and that of its handlers.
struct Sent {
    Task task = Task::notify;
    std::size_t size = 0;
    StayPtr to;
    bool by_handler = false;
    bool accepted = false;
    int delivered = 0;
    bool is_short = false;  // its time is
    bool was_cancelled = false;
    int done = 0;
    PelmarEndpoint::Call call;
};

struct Life;
using LifePtr = std::shared_ptr<Life>;

std::size_t IdOf(const Bytes& data)
{
    std::size_t id = 0;
    std::memcpy(&id, data.data(), std::min(sizeof id, data.size()));
    return id;
}

Bytes PayloadOf(std::size_t id, std::size_t size)
{
    Bytes data(std::max(size, sizeof id), static_cast<char>('a' + id % 26));
    std::memcpy(data.data(), &id, sizeof id);
    return data;
}

Bytes AnswerTo(const Bytes& data)
{
    return Bytes(data.rbegin(), data.rend());
}

// One endpoint from its construction to its end.
struct Life {
    Life(Role role_of_it, bool direct)
        : role(role_of_it), is_direct(direct), endpoint(role, CHANNEL)
    {
    }

    const Role role;
    const bool is_direct;
    bool is_held = false;      // its handlers wait
    bool was_stopped = false;  // or is about to be
    bool has_ended = false;    // no handler may run
    bool lost_bus = false;
    std::map<Partner, StayPtr> stays;
    std::vector<std::pair<PelmarEndpoint::Reply, Bytes>> kept;
    PelmarEndpoint endpoint;
};

// What has happened and what was promised. From any thread.
class Ledger {
public:
    using Lock = std::unique_lock<std::mutex>;

    Lock Hold() { return Lock(m_mutex); }

    void Fault(const std::string& text) { m_faults.push_back(text); }
    std::string Faults() const
    {
        std::string all;
        for (const std::string& fault : m_faults)
            all += fault + "\n";
        return all;
    }
    bool IsClean() const { return m_faults.empty(); }

    std::size_t Add(const StayPtr& to, Task task, std::size_t size, bool by_handler)
    {
        Sent sent;
        sent.to = to;
        sent.task = task;
        sent.size = std::max(size, sizeof(std::size_t));
        sent.by_handler = by_handler;
        m_sent.push_back(sent);
        return m_sent.size() - 1;
    }
    Sent& At(std::size_t id) { return m_sent.at(id); }
    std::vector<Sent>& All() { return m_sent; }

    StayPtr Met(Life& life, const Partner& partner)
    {
        const auto stay = std::make_shared<Stay>();
        stay->number = ++m_stays;
        stay->partner = partner;
        if (!life.stays.emplace(partner, stay).second)
            Fault(partner.Name() + " is ready twice");
        return stay;
    }

    // The partner that is told of, which has to be ready and not lost.
    StayPtr Of(const Life& life, const Partner& partner, const std::string& what)
    {
        const auto found = life.stays.find(partner);
        if (life.has_ended)
            Fault(what + " after the end of Stop");
        if (found == life.stays.end() || found->second->lost) {
            Fault(what + " of " + partner.Name() + ", which is not ready");
            return nullptr;
        }
        return found->second;
    }

    // What has come, or nothing when nobody sent it.
    std::optional<Sent> Came(const Life& life, const Message& message, bool is_request)
    {
        const std::string what = std::string(is_request ? "a message" : "a notification");
        Of(life, message.from, what);
        const std::size_t id = IdOf(message.data);
        if (id >= m_sent.size() || message.data != PayloadOf(id, m_sent[id].size)) {
            Fault(what + " that nobody sent");
            return std::nullopt;
        }
        Sent& sent = m_sent[id];
        if (++sent.delivered != 1)
            Fault(what + " came twice: " + std::to_string(id));
        if (is_request != (sent.task != Task::notify))
            Fault(what + " came as the other: " + std::to_string(id));
        // Of one thread, in order; and nothing of an earlier stay after a later one.
        auto& last = m_last[{&life, sent.to->number, sent.by_handler}];
        if (id < std::exchange(last, id))
            Fault(what + " out of order: " + std::to_string(id));
        return sent;
    }

    void Done(const Life& life, std::size_t id, const Response& response)
    {
        Sent& sent = m_sent[id];
        const std::string what = "request " + std::to_string(id) + " came to " +
                                 PelmarEndpoint::ToString(response.status) + " (" + response.error +
                                 ")";
        if (++sent.done != 1)
            Fault(what + " a second time");
        if (life.has_ended)
            Fault(what + " after the end of Stop");
        if (!MayCome(life, sent, response, id))
            Fault(what);
        Note(*sent.to, response.status);
    }

    // A partner that is said to be gone has to be told lost.
    static void Note(Stay& stay, Status status)
    {
        if (status == Status::no_such_partner || status == Status::partner_lost)
            stay.has_to_be_lost = true;
    }

private:
    bool MayCome(const Life& life, const Sent& sent, const Response& response, std::size_t id) const
    {
        switch (response.status) {
            case Status::ok:
                return sent.delivered == 1 && response.data == AnswerTo(PayloadOf(id, sent.size)) &&
                       sent.task != Task::fail && sent.task != Task::drop;
            case Status::remote_error:
                return sent.task == Task::fail ? response.error == "as told"
                                               : sent.task == Task::drop;
            case Status::timeout:
                return sent.is_short;
            case Status::cancelled:
                return sent.was_cancelled;
            case Status::stopped:
                return life.was_stopped;
            case Status::bus_gone:
                return life.lost_bus;
            case Status::queue_full:
                return sent.delivered == 0;
            case Status::busy:
            case Status::no_such_partner:
            case Status::partner_lost:
                return true;
            default:
                return false;
        }
    }

    std::mutex m_mutex;
    std::vector<Sent> m_sent;
    std::map<std::tuple<const Life*, unsigned, bool>, std::size_t> m_last;
    unsigned m_stays = 0;
    std::vector<std::string> m_faults;
};

bool MayGoDirect()
{
    const char* direct = std::getenv("PELMAR_DIRECT");
    return direct == nullptr || std::string(direct) != "0";
}

class Scene {
public:
    Scene(TestBus& bus, unsigned seed) : m_bus(bus), m_random(seed)
    {
        Start(Role::service);
        Start(Role::client);
    }
    ~Scene()
    {
        for (const LifePtr& life : {m_service, m_client})
            Stop(*life, seconds(0));
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    void TakeStep()
    {
        for (unsigned action = Below(6) + 1; action != 0; --action)
            TakeAction(Chance(2) ? Role::service : Role::client);
    }

    // Everybody works again and has found the other, and what is under way has come to its end.
    void Settle()
    {
        LetAllGoOn();
        // Of the way that a partner goes nobody is told.
        const auto deadline = In(TEST_DEADLINE);
        while (!IsSettled() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(milliseconds(1));
        const auto lock = m_ledger.Hold();
        EXPECT_TRUE(m_ledger.IsClean()) << m_ledger.Faults();
        EXPECT_EQ("", Missing()) << "has not come";
    }

    // And what has become of the last that was sent.
    std::string Story()
    {
        const auto lock = m_ledger.Hold();
        const auto& sent = m_ledger.All();
        for (std::size_t id = sent.size() - std::min<std::size_t>(sent.size(), 40);
             id < sent.size(); ++id)
            m_story << "  " << id << ": task " << static_cast<int>(sent[id].task)
                    << (sent[id].by_handler ? " of a handler" : "") << " to "
                    << sent[id].to->partner.Name() << " (" << sent[id].to->number
                    << (sent[id].to->lost ? ", lost" : "") << ")"
                    << (sent[id].accepted ? " ok" : "") << " delivered " << sent[id].delivered
                    << " done " << sent[id].done << "\n";
        return m_story.str();
    }

private:
    unsigned Below(std::size_t limit) { return static_cast<unsigned>(m_random() % limit); }
    bool Chance(unsigned one_in) { return Below(one_in) == 0; }
    LifePtr& Of(Role role) { return role == Role::service ? m_service : m_client; }
    void Tell(const Life& life, const std::string& what)
    {
        m_story << "  the " << NameOf(life.role) << " " << what << "\n";
    }

    // ---- Lives ------------------------------------------------------------------------------

    void Start(Role role)
    {
        const std::array<std::size_t, 3> windows = {20000, 300000, 8UL * 1024 * 1024};
        const std::array<std::size_t, 2> intakes = {100000, 64UL * 1024 * 1024};
        const bool direct = !Chance(6);
        const auto life = std::make_shared<Life>(role, direct);
        Of(role) = life;
        const std::size_t window = windows[Below(windows.size())];
        const std::size_t intake = intakes[Below(intakes.size())];
        life->endpoint.SetWindow(window);
        life->endpoint.SetIntake(intake);
        life->endpoint.SetDirectPath(direct);
        SetHandlers(*life);
        Tell(*life, "starts, with a window of " + std::to_string(window) + ", an intake of " +
                        std::to_string(intake) + (direct ? "" : ", on the bus"));
        life->endpoint.Start();
    }

    void Stop(Life& life, milliseconds flush)
    {
        LetGoOn(life);
        {
            const auto lock = m_ledger.Hold();
            life.was_stopped = true;
        }
        life.endpoint.Stop(flush);
        const auto lock = m_ledger.Hold();
        life.has_ended = true;
        m_ended.push_back(Of(life.role));
    }

    // ---- Handlers ---------------------------------------------------------------------------

    void SetHandlers(Life& life)
    {
        PelmarEndpoint& endpoint = life.endpoint;
        endpoint.OnReady([this, &life](const Partner& partner) { Ready(life, partner); });
        endpoint.OnLost([this, &life](const Partner& partner) {
            const auto lock = m_ledger.Hold();
            if (const StayPtr stay = m_ledger.Of(life, partner, "the end"))
                stay->lost = true;
        });
        endpoint.OnRoom([this, &life](const Partner& partner) {
            const auto lock = m_ledger.Hold();
            if (const StayPtr stay = m_ledger.Of(life, partner, "room"))
                ++stay->rooms;
        });
        endpoint.OnBusLost([this, &life] {
            const auto lock = m_ledger.Hold();
            life.lost_bus = true;
        });
        endpoint.OnProblem([this](PelmarEndpoint::Problem problem, const std::string& text) {
            const auto lock = m_ledger.Hold();
            if (problem != PelmarEndpoint::Problem::bus_unreachable)
                m_ledger.Fault("a problem: " + text);
        });
        endpoint.OnNotification([this, &life](Message& message) {
            auto lock = m_ledger.Hold();
            m_ledger.Came(life, message, false);
            WaitWhileHeld(life, lock);
        });
        endpoint.OnDeferredMessage([this, &life](Message& message, PelmarEndpoint::Reply reply) {
            TakeMessage(life, message, std::move(reply));
        });
    }

    // What is sent at once goes by the bus, by the direct path, or one after the other.
    void Ready(Life& life, const Partner& partner)
    {
        auto lock = m_ledger.Hold();
        const StayPtr stay = m_ledger.Met(life, partner);
        lock.unlock();
        for (int i = 0; i < 3; ++i)
            Notify(life, stay, 100, true);
        Ask(life, stay, Task::echo, 100, seconds(60), true);
        lock.lock();
        stay->was_greeted = true;
    }

    void TakeMessage(Life& life, Message& message, PelmarEndpoint::Reply reply)
    {
        auto lock = m_ledger.Hold();
        const std::optional<Sent> sent = m_ledger.Came(life, message, true);
        WaitWhileHeld(life, lock);
        if (!sent)
            return;
        switch (sent->task) {
            case Task::later:
                life.kept.emplace_back(std::move(reply), std::move(message.data));
                return;
            case Task::fail:
                lock.unlock();
                reply.Fail("as told");
                return;
            case Task::drop:
                return;
            case Task::ask_back:
                lock.unlock();
                AskAndWait(life, message.from);
                break;
            default:
                lock.unlock();
                break;
        }
        reply.Send(AnswerTo(message.data));
    }

    void WaitWhileHeld(const Life& life, Ledger::Lock& lock)
    {
        m_go_on.wait(lock, [&] { return !life.is_held; });
    }

    // The client's handlers never wait for the service's, so they cannot wait for each other.
    void AskAndWait(Life& life, const Partner& partner)
    {
        auto lock = m_ledger.Hold();
        const auto found = life.stays.find(partner);
        if (life.role != Role::service || found == life.stays.end())
            return;
        const std::size_t id = m_ledger.Add(found->second, Task::echo, 50, true);
        lock.unlock();
        const Response response = life.endpoint.Request(partner, PayloadOf(id, 50), seconds(60));
        lock.lock();
        m_ledger.Done(life, id, response);
    }

    // ---- What the applications do -----------------------------------------------------------

    void TakeAction(Role role)
    {
        Life& life = *Of(role);
        switch (Below(24)) {
            case 0:
                Restart(role);
                return;
            case 1:
                LoseBus();
                return;
            case 2:
            case 3:
                Hold(life);
                return;
            case 4:
            case 5:
            case 6:
                AnswerOne(life);
                return;
            case 7:
            case 8:
                CancelOne();
                return;
            case 9:
                Settle();
                return;
            case 10:
                NotifyAll(life);
                return;
            default:
                SendTo(life, AnyPartner(life));
        }
    }

    void Restart(Role role)
    {
        Life& life = *Of(role);
        const milliseconds flush(Chance(2) ? 0 : 200);
        Tell(life, "ends, with " + std::to_string(flush.count()) + " ms to flush");
        Stop(life, flush);
        Start(role);
    }

    void LoseBus()
    {
        if (!Chance(4))
            return;
        m_story << "  the bus ends and begins again\n";
        {
            const auto lock = m_ledger.Hold();
            m_service->lost_bus = m_client->lost_bus = true;
        }
        m_bus.Kill();
        m_bus.Start();
    }

    void Hold(Life& life)
    {
        Tell(life, "holds its handlers");
        const auto lock = m_ledger.Hold();
        life.is_held = true;
    }
    void LetGoOn(Life& life)
    {
        const auto lock = m_ledger.Hold();
        life.is_held = false;
        m_go_on.notify_all();
    }

    void AnswerOne(Life& life)
    {
        auto lock = m_ledger.Hold();
        if (life.kept.empty())
            return;
        auto [reply, data] = std::move(life.kept.back());
        life.kept.pop_back();
        lock.unlock();
        Tell(life, "answers " + std::to_string(IdOf(data)));
        reply.Send(AnswerTo(data));
    }

    void CancelOne()
    {
        auto lock = m_ledger.Hold();
        std::vector<std::size_t> open;
        for (std::size_t id = 0; id < m_ledger.All().size(); ++id) {
            const Sent& sent = m_ledger.At(id);
            if (sent.task != Task::notify && sent.done == 0 && !sent.by_handler)
                open.push_back(id);
        }
        if (open.empty())
            return;
        const std::size_t id = open[Below(open.size())];
        m_ledger.At(id).was_cancelled = true;
        PelmarEndpoint::Call call = m_ledger.At(id).call;
        lock.unlock();
        m_story << "  request " << id << " is cancelled\n";
        call.Cancel();
    }

    // A partner of now, rarely one of before.
    StayPtr AnyPartner(const Life& life)
    {
        const auto lock = m_ledger.Hold();
        std::vector<StayPtr> ready;
        std::vector<StayPtr> all;
        for (const auto& [partner, stay] : life.stays) {
            all.push_back(stay);
            if (!stay->lost)
                ready.push_back(stay);
        }
        const auto& chosen = ready.empty() || Chance(20) ? all : ready;
        return chosen.empty() ? nullptr : chosen[Below(chosen.size())];
    }

    void SendTo(Life& life, const StayPtr& stay)
    {
        if (stay == nullptr)
            return;
        const std::size_t size = Chance(8) ? Below(400000) : Below(2000);
        if (Chance(2)) {
            const unsigned count = Chance(3) ? 1 + Below(60) : 1;
            Tell(life, "notifies " + std::to_string(count) + " times " + std::to_string(size));
            for (unsigned i = 0; i < count; ++i)
                Notify(life, stay, size, false);
            return;
        }
        const auto task = static_cast<Task>(1 + Below(5));
        const milliseconds time = Chance(10) ? milliseconds(1 + Below(20)) : seconds(60);
        const std::size_t id = Ask(life, stay, task, size, time, false);
        Tell(life, "asks " + std::to_string(id) + " of " + std::to_string(size) + ", task " +
                       std::to_string(static_cast<int>(task)) + ", " +
                       std::to_string(time.count()) + " ms");
    }

    void Notify(Life& life, const StayPtr& stay, std::size_t size, bool by_handler)
    {
        auto lock = m_ledger.Hold();
        const bool was_lost = stay->lost;
        const unsigned rooms = stay->rooms;
        const std::size_t id = m_ledger.Add(stay, Task::notify, size, by_handler);
        lock.unlock();
        const Status status = life.endpoint.Notify(stay->partner, PayloadOf(id, size));
        lock.lock();
        Notified(life, id, status);
        if (was_lost && status == Status::ok)
            m_ledger.Fault("a notification was taken for a partner that is lost");
        if (status == Status::queue_full)
            stay->rooms_due = std::max(stay->rooms_due, rooms + 1);
    }

    void Notified(const Life& life, std::size_t id, Status status)
    {
        Sent& sent = m_ledger.At(id);
        sent.accepted = status == Status::ok;
        Ledger::Note(*sent.to, status);
        const bool may_come = status == Status::ok || status == Status::no_such_partner ||
                              status == Status::queue_full ||
                              (status == Status::stopped && life.was_stopped) ||
                              (status == Status::bus_gone && life.lost_bus);
        if (!may_come)
            m_ledger.Fault("notification " + std::to_string(id) + " came to " +
                           PelmarEndpoint::ToString(status));
    }

    // To the partners of the moment, of which the test may not know yet.
    void NotifyAll(Life& life)
    {
        const std::vector<Partner> partners = life.endpoint.Partners();
        auto lock = m_ledger.Hold();
        if (partners.size() != 1 || life.stays.count(partners.front()) == 0)
            return;
        const StayPtr stay = life.stays[partners.front()];
        const std::size_t id = m_ledger.Add(stay, Task::notify, 100, false);
        lock.unlock();
        Tell(life, "notifies all");
        const PelmarEndpoint::Broadcast broadcast = life.endpoint.NotifyAll(PayloadOf(id, 100));
        lock.lock();
        // It may have gone to the next one instead.
        m_ledger.At(id).accepted =
            broadcast.sent == 1 && !stay->lost && life.endpoint.Partners() == partners;
    }

    std::size_t Ask(Life& life, const StayPtr& stay, Task task, std::size_t size, milliseconds time,
                    bool by_handler)
    {
        auto lock = m_ledger.Hold();
        const unsigned rooms = stay->rooms;
        const std::size_t id = m_ledger.Add(stay, task, size, by_handler);
        m_ledger.At(id).is_short = time < seconds(1);
        lock.unlock();
        const auto done = [this, &life, id, rooms](const Response& response) {
            const auto hold = m_ledger.Hold();
            m_ledger.Done(life, id, response);
            Stay& to = *m_ledger.At(id).to;
            if (response.status == Status::queue_full)
                to.rooms_due = std::max(to.rooms_due, rooms + 1);
        };
        PelmarEndpoint::Call call =
            life.endpoint.Request(stay->partner, PayloadOf(id, size), time, done);
        lock.lock();
        m_ledger.At(id).call = std::move(call);
        return id;
    }

    // ---- The end of a step ------------------------------------------------------------------

    void LetAllGoOn()
    {
        for (const LifePtr& life : {m_service, m_client})
            LetGoOn(*life);
    }

    bool IsSettled()
    {
        for (const LifePtr& life : {m_service, m_client}) {
            auto lock = m_ledger.Hold();
            const bool has_kept = !life->kept.empty();
            lock.unlock();
            if (has_kept)
                AnswerOne(*life);
        }
        const auto lock = m_ledger.Hold();
        return !m_ledger.IsClean() || Missing().empty();
    }

    // What has still to come; the ledger is held.
    std::string Missing()
    {
        const auto& sent = m_ledger.All();
        for (std::size_t id = 0; id < sent.size(); ++id) {
            if (sent[id].task != Task::notify && sent[id].done == 0)
                return "the end of request " + std::to_string(id);
            const bool is_due = sent[id].accepted && sent[id].delivered == 0 &&
                                !sent[id].to->lost && !WasStopped(*sent[id].to);
            if (is_due)
                return "notification " + std::to_string(id);
        }
        const std::string service = MissingAt(*m_service, *m_client);
        return service.empty() ? MissingAt(*m_client, *m_service) : service;
    }

    bool WasStopped(const Stay& stay) const
    {
        return std::any_of(m_ended.begin(), m_ended.end(), [&](const LifePtr& life) {
            return life->stays.count(stay.partner) != 0;
        });
    }

    static std::string MissingAt(const Life& life, const Life& other)
    {
        const std::string who = NameOf(life.role);
        const std::string name = other.endpoint.Name();
        const bool is_direct = MayGoDirect() && life.is_direct && other.is_direct;
        std::size_t ready = 0;
        for (const auto& [partner, stay] : life.stays) {
            if (stay->lost)
                continue;
            ++ready;
            if (!stay->was_greeted)
                return "a greeting of the " + who;
            if (stay->has_to_be_lost)
                return "the word that " + partner.Name() + " is lost, at the " + who;
            if (stay->rooms < stay->rooms_due)
                return "the word of room for " + partner.Name() + ", at the " + who;
            if (partner.Name() != name)
                return "the end of " + partner.Name() + ", at the " + who;
            if (partner.IsDirect() != is_direct)
                return std::string("the way ") + (is_direct ? "past" : "over") +
                       " the bus, at the " + who;
        }
        return ready == 1 ? "" : "the other one, at the " + who;
    }

    TestBus& m_bus;
    std::mt19937 m_random;
    std::ostringstream m_story;
    Ledger m_ledger;
    std::condition_variable m_go_on;
    std::vector<LifePtr> m_ended;
    LifePtr m_service;
    LifePtr m_client;
};

void RunSequence(TestBus& bus, unsigned seed)
{
    Scene scene(bus, seed);
    scene.Settle();
    const unsigned length = 1 + seed % 40;
    for (unsigned step = 0; step < length && !testing::Test::HasFailure(); ++step) {
        scene.TakeStep();
        if (step % 4 == 3)
            scene.Settle();
    }
    scene.Settle();
    if (testing::Test::HasFailure())
        std::cout << "The sequence of PELMAR_ENDPOINT_MODEL_SEED=" << seed
                  << " PELMAR_ENDPOINT_MODEL_SEQUENCES=1:\n"
                  << scene.Story();
}

TEST(TwoEndpoints, KeepWhatTheyPromiseWhateverTheirApplicationsDo)
{
    const unsigned first = Setting("PELMAR_ENDPOINT_MODEL_SEED", std::random_device()());
    const unsigned count = Setting("PELMAR_ENDPOINT_MODEL_SEQUENCES", 20);
    std::cout << count << " sequences from PELMAR_ENDPOINT_MODEL_SEED=" << first << " on"
              << std::endl;
    TestBus bus;
    for (unsigned i = 0; i < count && !HasFailure(); ++i)
        RunSequence(bus, first + i);
}

}  // namespace
