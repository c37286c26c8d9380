// One end of a channel that sends without a pause and counts everything. The driver is
// tests/robustness/soak.cpp.
//
//   soak-peer service|client RATE     RATE: sendings in a second; 0: none
//
//   in:  leave
//   out: ready | report NAME NUMBER...
//
// The service broadcasts notifications with a running number. A client sends, in turn, messages
// that the service has to echo and notifications; before it leaves it asks the service for the last
// number and waits for it. It has to have seen every number since its first one.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <random>

#include "peer-lines.h"
#include "pelmar-endpoint.h"

namespace {

using Clock = std::chrono::steady_clock;
using Status = PelmarEndpoint::Status;

const Bytes FAREWELL = {'b', 'y', 'e'};

// The number in front of a payload.
Bytes Numbered(std::uint64_t number, std::size_t filler)
{
    Bytes data(sizeof(number) + filler, 'x');
    std::memcpy(data.data(), &number, sizeof(number));
    return data;
}
std::uint64_t NumberOf(const Bytes& data)
{
    std::uint64_t number = 0;
    std::memcpy(&number, data.data(), sizeof(number));
    return number;
}

class SoakPeer {
public:
    explicit SoakPeer(PelmarEndpoint::Role role) : m_endpoint(role, "soak")
    {
        using Message = PelmarEndpoint::Message;
        m_endpoint.OnMessage([this](const Message& message) { return Answer(message.data); });
        m_endpoint.OnNotification([this](const Message& message) { Receive(message.data); });
        m_endpoint.OnProblem([](PelmarEndpoint::Problem /*problem*/, const std::string& text) {
            std::cerr << text << std::endl;
        });
        m_endpoint.Start();
    }
    bool AwaitPartner()
    {
        const auto partner = m_endpoint.WaitForPartner(Clock::now() + std::chrono::seconds(20));
        m_partner = partner.value_or(PelmarEndpoint::Partner());
        return partner.has_value();
    }

    // A number that nobody took is given to the next one.
    void Broadcast()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto broadcast = m_endpoint.NotifyAll(Numbered(m_last_sent + 1, Filler()));
        if (broadcast.sent != 0)
            m_last_sent = ++m_notifications_sent;
        for (const PelmarEndpoint::Missed& missed : broadcast.missed)
            Count(missed.status, m_notifications_sent);
    }

    void SendNext()
    {
        const Bytes data(Filler(), 'y');
        m_requests_turn = !m_requests_turn;
        if (!m_requests_turn) {
            Count(m_endpoint.Notify(m_partner, data), m_notifications_sent);
            return;
        }
        const auto response = m_endpoint.Request(m_partner, data, std::chrono::seconds(10));
        const bool wrong = response.status == Status::ok && response.data != data;
        Count(wrong ? Status::remote_error : response.status, m_messages_sent);
    }

    // The service numbers the broadcast before it answers, but the answer may overtake it in here.
    bool TakeLeave()
    {
        const auto response = m_endpoint.Request(m_partner, FAREWELL, std::chrono::seconds(10));
        if (response.status != Status::ok)
            return false;
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20), [&] {
            return m_first_received == 0 || m_last_received >= NumberOf(response.data);
        });
    }

    void Report()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::ostringstream text;
        text << "messages_sent " << m_messages_sent << " notifications_sent "
             << m_notifications_sent << " refused " << m_refused << " messages_received "
             << m_messages_received << " notifications_received " << m_notifications_received
             << " missed " << m_missed << " direct " << (m_partner.IsDirect() ? 1 : 0);
        Say("report", text.str());
    }

private:
    void Count(Status status, std::uint64_t& sent)
    {
        if (status == Status::ok)
            ++sent;
        else if (status != Status::no_such_partner)
            ++m_refused;
    }

    Bytes Answer(const Bytes& data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (data == FAREWELL)
            return Numbered(m_last_sent, 0);
        ++m_messages_received;
        return data;
    }

    void Receive(const Bytes& data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_notifications_received;
        if (data.size() < sizeof(std::uint64_t) || data.back() == 'y')
            return;
        const std::uint64_t number = NumberOf(data);
        if (m_first_received == 0)
            m_first_received = number;
        else
            m_missed += number - m_last_received - 1;
        m_last_received = number;
        m_changed.notify_all();
    }

    // Mostly small, now and then large.
    std::size_t Filler() { return m_random() % 500 == 0 ? 64UL * 1024 : 1 + m_random() % 1024; }

    std::minstd_rand m_random{1};
    PelmarEndpoint::Partner m_partner;
    bool m_requests_turn = false;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_last_sent = 0;
    std::uint64_t m_first_received = 0;
    std::uint64_t m_last_received = 0;
    std::uint64_t m_missed = 0;
    std::uint64_t m_messages_sent = 0;
    std::uint64_t m_notifications_sent = 0;
    std::uint64_t m_refused = 0;
    std::uint64_t m_messages_received = 0;
    std::uint64_t m_notifications_received = 0;

    // Last: its handlers use all the others.
    PelmarEndpoint m_endpoint;
};

// Waits until the next sending is due, or for a command; true when one has come.
bool CommandComesBefore(Clock::time_point due)
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(due - Clock::now());
    const timespec wait{0, std::clamp(static_cast<long>(left.count()), 0L, 999999999L)};
    return ppoll(&input, 1, &wait, nullptr) > 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: soak-peer service|client RATE\n";
        return 2;
    }
    const bool is_service = std::string(argv[1]) == "service";
    const int rate = std::stoi(argv[2]);
    const auto interval = std::chrono::microseconds(1000000 / std::max(rate, 1));
    SoakPeer peer(is_service ? PelmarEndpoint::Role::service : PelmarEndpoint::Role::client);
    if (!is_service && !peer.AwaitPartner())
        return 1;
    Say("ready", "");
    for (auto due = Clock::now(); !CommandComesBefore(due); due += interval) {
        if (is_service)
            peer.Broadcast();
        else if (rate != 0)
            peer.SendNext();
    }
    const bool in_order = is_service || peer.TakeLeave();
    peer.Report();
    return in_order ? 0 : 1;
}
