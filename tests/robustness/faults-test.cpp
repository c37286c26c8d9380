// The bus daemon, the service or the client is killed or stopped at the worst moments. Whatever
// happens, nobody crashes, nobody hangs, every message that was answered had arrived, and
// afterwards the two work together again. Endpoints, on the direct path and on the bus, tell of
// whom they lose and deliver nothing twice, in another order or before ready, and all that was
// taken for a partner that is not lost.
//
//   PELMAR_FAULT_RUNS=N  how often each combination is tried (default: once)

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <set>

#include "child-process.h"
#include "setting.h"
#include "test-bus.h"

namespace {

enum class Kind { Channel, Endpoint, EndpointOnTheBus };
enum class Victim { Daemon, Service, Client };
enum class Fault { Killed, Stopped };
// MidTraffic is for endpoints, which may go over to the direct path meanwhile.
enum class Moment { Idle, MidPulse, MidCall, InsideAHandler, DuringTheDestructor, MidTraffic };

const std::string STOP_INSIDE_HANDLER = "73746f70";

bool IsEndpoint(Kind kind)
{
    return kind != Kind::Channel;
}

// One end of the channel as a process, with everything that it has said.
class Party {
public:
    Party(Kind kind, const std::string& role)
        : m_process(IsEndpoint(kind)
                        ? std::vector<std::string>{PELMAR_ENDPOINT_PEER, role, "demo", "--wait"}
                        : std::vector<std::string>{role == "service" ? PELMAR_PEER_SERVICE
                                                                     : PELMAR_PEER_CLIENT,
                                                   "demo", "--wait"},
                    {{"PELMAR_DIRECT", kind == Kind::EndpointOnTheBus ? "0" : "1"}})
    {
        m_process.WaitForLine("waiting");
    }

    ChildProcess& Process() { return m_process; }

    void ReadNews()
    {
        for (std::string& line : m_process.ComeLines())
            m_lines.push_back(std::move(line));
    }

    bool Said(const std::string& word) const { return !All(word).empty(); }
    bool HasSaid(const std::string& line) const
    {
        return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
    }

    // What followed the word, each time.
    std::vector<std::string> All(const std::string& word) const
    {
        std::vector<std::string> values;
        for (const std::string& line : m_lines) {
            if (line.compare(0, word.size() + 1, word + " ") == 0)
                values.push_back(line.substr(word.size() + 1));
        }
        return values;
    }

    // Who is ready and not lost since. Says what an endpoint never does: tell of one twice, hand
    // over something before ready, or twice, or out of order.
    std::set<std::string> ReadyPartners(std::string& fault) const
    {
        std::set<std::string> ready;
        std::string last;
        for (const std::string& line : m_lines) {
            const std::string word = line.substr(0, line.find(' '));
            const std::string value = line.substr(std::min(line.size(), word.size() + 1));
            bool is_right = true;
            if (word == "ready")
                is_right = ready.insert(value).second;
            else if (word == "lost")
                is_right = ready.erase(value) == 1;
            else if (word == "notification" || (word == "message" && value != STOP_INSIDE_HANDLER))
                is_right = !ready.empty() && std::exchange(last, value) < value;
            if (!is_right)
                fault += line + "\n";
        }
        return ready;
    }

    // The newest partner that is ready and not lost since; empty: none.
    std::string Partner() const
    {
        std::string partner;
        for (const std::string& line : m_lines) {
            if (line.compare(0, 6, "ready ") == 0)
                partner = line.substr(6);
            else if (line == "lost " + partner)
                partner.clear();
        }
        return partner;
    }

private:
    ChildProcess m_process;
    std::vector<std::string> m_lines;
};

class Scene {
public:
    Scene(Kind kind, unsigned seed) : m_kind(kind), m_random(seed) { Renew(m_service, "service"); }

    void Reach(Moment moment, Victim victim)
    {
        m_service->Process().WriteLine("go");
        AwaitUp(*m_service);
        Renew(m_client, "client");
        m_client->Process().WriteLine("go");
        if (moment == Moment::MidPulse) {
            Dawdle(3000);
            return;
        }
        AwaitReady();
        switch (moment) {
            case Moment::MidCall:
                for (int i = 0; i < 100; ++i)
                    Send(NewPayload());
                Await([this] { return m_client->Said("reply"); }, "the first reply");
                Dawdle(2000);
                break;
            case Moment::MidTraffic:
                for (int i = 0; i < 200; ++i) {
                    m_client->Process().WriteLine("notify " + NewPayload());
                    m_service->Process().WriteLine("notify " + NewPayload());
                }
                Dawdle(4000);
                break;
            case Moment::InsideAHandler:
                Send(STOP_INSIDE_HANDLER);
                Await([this] { return m_service->Said("stopping"); }, "the handler");
                m_service->Process().WaitUntilStopped();
                break;
            case Moment::DuringTheDestructor:
                Quitting(victim).Process().WriteLine("quit");
                Dawdle(1000);
                break;
            default:
                break;
        }
    }

    void Kill(Victim victim, Moment moment)
    {
        if (victim == Victim::Daemon)
            m_bus.Kill();
        else
            ProcessOf(victim).Kill();
        LeaveHandler(victim, moment);
        if (victim == Victim::Daemon && m_kind == Kind::Channel) {
            ExpectEnd(*m_service);
            ExpectEnd(*m_client);
        }
        if (moment == Moment::DuringTheDestructor)
            ExpectEnd(Quitting(victim));
        if (victim == Victim::Daemon)
            m_bus.Start();
        ReplaceEnded();
    }

    void StopForAWhile(Victim victim, Moment moment)
    {
        ProcessOf(victim).Signal(SIGSTOP);
        LeaveHandler(victim, moment);
        if (IsEndpoint(m_kind) && moment == Moment::Idle)
            ExpectOthersResponsive(victim);
        ProcessOf(victim).Signal(SIGCONT);
        if (moment == Moment::DuringTheDestructor)
            ExpectEnd(Quitting(victim));
        ReplaceEnded();
    }

    // As an application does it: after a request that failed another is tried. Of the first one
    // nobody knows whether it arrived.
    void ExpectWorking()
    {
        bool answered = false;
        while (!answered) {
            const std::string payload = NewPayload();
            AwaitReady();
            const std::size_t failures = m_client->All("error").size();
            Send(payload);
            Await(
                [&] {
                    answered = m_client->HasSaid("reply " + Backwards(payload));
                    return answered || m_client->All("error").size() > failures;
                },
                "the answer to " + payload);
        }
    }

    void ExpectEverythingAnsweredToHaveArrived()
    {
        NoteTraffic();
        for (const std::string& reply : m_replies)
            EXPECT_EQ(1U, m_messages.count(Backwards(reply))) << "answered: " << reply;
    }

    // Nobody but the one that is there is ready, past the bus where it may, and all that was taken
    // for a partner that was never lost is there.
    void ExpectPromisesKept()
    {
        if (!IsEndpoint(m_kind))
            return;
        ExpectArrivals(*m_client, *m_service);
        ExpectArrivals(*m_service, *m_client);
        for (Party* party : {m_service.get(), m_client.get()}) {
            std::string fault;
            Await([&] { return party->ReadyPartners(fault).size() == 1 || !fault.empty(); },
                  "the end of all who have ended");
            EXPECT_EQ("", fault);
            if (m_kind == Kind::EndpointOnTheBus)
                continue;
            party->Process().WriteLine("way");
            Await([&] { return party->Said("way"); }, "the way");
            EXPECT_EQ("direct", party->All("way").back());
        }
    }

    void ExpectCleanEnd()
    {
        for (Party* party : {m_client.get(), m_service.get()}) {
            party->Process().CloseInput();
            EXPECT_EQ(0, party->Process().WaitForEnd());
        }
    }

private:
    // Nothing waits for this: it only spreads the fault over what the processes are doing.
    void Dawdle(unsigned most_microseconds)
    {
        usleep(static_cast<useconds_t>(m_random() % most_microseconds));
    }

    std::string NewPayload()
    {
        char digits[9];
        std::snprintf(digits, sizeof(digits), "%08x", ++m_payloads);
        return digits;
    }

    // Of bytes in hexadecimal.
    static std::string Backwards(const std::string& payload)
    {
        std::string backwards;
        for (std::size_t i = payload.size(); i >= 2; i -= 2)
            backwards += payload.substr(i - 2, 2);
        return backwards;
    }

    void Send(const std::string& payload)
    {
        m_client->Process().WriteLine("send " + m_client->Partner() + " " + payload);
    }

    void ExpectArrivals(const Party& sender, const Party& receiver)
    {
        const auto all_arrived = [&] {
            const auto statuses = sender.All("status");
            const auto taken = std::count(statuses.begin(), statuses.end(), "ok");
            return sender.Said("lost") || receiver.Said("lost") ||
                   receiver.All("notification").size() == static_cast<std::size_t>(taken);
        };
        Await(all_arrived, "all that was taken for a partner that is not lost");
    }

    // Whose destructor runs when the victim is hit during one.
    Party& Quitting(Victim victim) { return victim == Victim::Client ? *m_client : *m_service; }

    ChildProcess& ProcessOf(Victim victim)
    {
        if (victim == Victim::Daemon)
            return m_bus.Daemon();
        return victim == Victim::Service ? m_service->Process() : m_client->Process();
    }

    void Renew(std::unique_ptr<Party>& party, const std::string& role)
    {
        NoteTraffic();
        std::string fault;
        if (party != nullptr && IsEndpoint(m_kind))
            party->ReadyPartners(fault);
        EXPECT_EQ("", fault);
        party = std::make_unique<Party>(m_kind, role);
    }

    void NoteTraffic()
    {
        for (const auto* party : {&m_service, &m_client}) {
            if (*party == nullptr)
                continue;
            (*party)->ReadNews();
            for (std::string& payload : (*party)->All("message"))
                m_messages.insert(std::move(payload));
            for (std::string& payload : (*party)->All("reply"))
                m_replies.insert(std::move(payload));
        }
    }

    // A service that has stopped inside its handler goes on, unless it is the one that is stopped.
    void LeaveHandler(Victim victim, Moment moment)
    {
        if (moment == Moment::InsideAHandler && victim != Victim::Service)
            m_service->Process().Signal(SIGCONT);
    }

    // One after the other, and when the survivor listens: two plain channels that start at the same
    // moment may both stay half-way.
    void ReplaceEnded()
    {
        for (Party* party : {m_service.get(), m_client.get()}) {
            if (party->Process().Runs())
                AwaitUp(*party);
        }
        ReplaceIfEnded(m_service, "service");
        ReplaceIfEnded(m_client, "client");
    }
    void ReplaceIfEnded(std::unique_ptr<Party>& party, const std::string& role)
    {
        if (party->Process().Runs())
            return;
        Renew(party, role);
        party->Process().WriteLine("go");
        AwaitUp(*party);
    }

    // A plain channel's process is ended by GLib when its bus goes.
    void ExpectEnd(Party& party)
    {
        if (!party.Process().Runs())
            return;
        party.Process().CloseInput();
        const int status = party.Process().WaitForEnd();
        EXPECT_TRUE(status == 0 || (m_kind == Kind::Channel && status == -SIGTERM))
            << "it ended with " << status;
    }

    void AwaitUp(Party& party)
    {
        const char* word = IsEndpoint(m_kind) ? "on" : "name";
        Await([&] { return party.Said(word); }, "an end of the channel");
    }

    void AwaitReady()
    {
        Await([this] { return !m_client->Partner().empty() && !m_service->Partner().empty(); },
              "both to be ready");
    }

    void ExpectOthersResponsive(Victim victim)
    {
        for (Party* party : {m_service.get(), m_client.get()}) {
            if (&party->Process() == &ProcessOf(victim))
                continue;
            party->Process().WriteLine("partners");
            Await([&] { return party->Said("partners"); },
                  "an answer while another one is stopped");
        }
    }

    void Await(const std::function<bool()>& condition, const std::string& awaited)
    {
        const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
        for (;;) {
            std::vector<pollfd> sources;
            for (const auto* party : {&m_service, &m_client}) {
                if (*party == nullptr)
                    continue;
                (*party)->ReadNews();
                sources.push_back({(*party)->Process().OutputDescriptor(), POLLIN, 0});
            }
            if (condition())
                return;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                throw std::runtime_error("waited in vain for " + awaited);
            poll(sources.data(), sources.size(), static_cast<int>(left.count()));
        }
    }

    const Kind m_kind;
    std::mt19937 m_random;
    TestBus m_bus;
    std::unique_ptr<Party> m_service;
    std::unique_ptr<Party> m_client;
    unsigned m_payloads = 0;
    std::set<std::string> m_messages;
    std::set<std::string> m_replies;
};

using Combination = std::tuple<Kind, Victim, Fault, Moment>;

class AFault : public testing::TestWithParam<Combination> {};

TEST_P(AFault, CostsNoAnsweredMessageAndIsRecoveredFrom)
{
    const auto [kind, victim, fault, moment] = GetParam();
    const unsigned seed = Setting("PELMAR_FAULT_SEED", std::random_device()());
    const unsigned runs = Setting("PELMAR_FAULT_RUNS", 1);
    std::cout << runs << " runs from PELMAR_FAULT_SEED=" << seed << " on" << std::endl;
    // LeakSanitizer stops a process that ends with SIGSTOP, and a SIGCONT of somebody else makes it
    // wait for that for ever.
    if (fault == Fault::Stopped && moment == Moment::DuringTheDestructor)
        setenv("LSAN_OPTIONS", "detect_leaks=0", 1);
    for (unsigned run = 0; run < runs && !HasFailure(); ++run) {
        Scene scene(kind, seed + run);
        scene.Reach(moment, victim);
        if (fault == Fault::Killed)
            scene.Kill(victim, moment);
        else
            scene.StopForAWhile(victim, moment);
        scene.ExpectWorking();
        scene.ExpectEverythingAnsweredToHaveArrived();
        scene.ExpectPromisesKept();
        scene.ExpectCleanEnd();
    }
}

std::string NameOf(const testing::TestParamInfo<Combination>& info)
{
    const auto [kind, victim, fault, moment] = info.param;
    const char* const kinds[] = {"Channel", "Endpoint", "EndpointOnTheBus"};
    const char* const victims[] = {"Daemon", "Service", "Client"};
    const char* const faults[] = {"Killed", "Stopped"};
    const char* const moments[] = {
        "Idle", "MidPulse", "MidCall", "InsideAHandler", "DuringTheDestructor", "MidTraffic"};
    return std::string(kinds[static_cast<int>(kind)]) + victims[static_cast<int>(victim)] +
           faults[static_cast<int>(fault)] + moments[static_cast<int>(moment)];
}

const auto VICTIMS = testing::Values(Victim::Daemon, Victim::Service, Victim::Client);
const auto FAULTS = testing::Values(Fault::Killed, Fault::Stopped);

INSTANTIATE_TEST_SUITE_P(Of, AFault,
                         testing::Combine(testing::Values(Kind::Channel), VICTIMS, FAULTS,
                                          testing::Values(Moment::Idle, Moment::MidPulse,
                                                          Moment::MidCall, Moment::InsideAHandler,
                                                          Moment::DuringTheDestructor)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(, AFault,
                         testing::Combine(testing::Values(Kind::Endpoint, Kind::EndpointOnTheBus),
                                          VICTIMS, FAULTS,
                                          testing::Values(Moment::Idle, Moment::MidPulse,
                                                          Moment::MidCall, Moment::InsideAHandler,
                                                          Moment::DuringTheDestructor,
                                                          Moment::MidTraffic)),
                         NameOf);

}  // namespace
