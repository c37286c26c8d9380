// The endpoint at both ends.
//
// Options: "bus" keeps it on the bus; a server's handlers run in a thread of the endpoint's own,
// with "context" in the main loop and with "executor" in a thread that the application hands them
// to. One more role: a crowd is so many idle partners in one process as its option says.

#include <gio/gio.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "patient-notifier.h"
#include "peer.h"
#include "pelmar-endpoint.h"

namespace {

using peer::Bytes;
using Partner = PelmarEndpoint::Partner;
using Role = PelmarEndpoint::Role;

// Runs what it is given, one after the other, in a thread that lives as long as the process.
class Executor {
public:
    Executor()
    {
        std::thread([this] { Work(); }).detach();
    }

    void Add(std::function<void()> task)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
        m_added.notify_one();
    }

private:
    [[noreturn]] void Work()
    {
        for (;;)
            Take()();
    }

    std::function<void()> Take()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait(lock, [this] { return !m_tasks.empty(); });
        std::function<void()> task = std::move(m_tasks.front());
        m_tasks.pop_front();
        return task;
    }

    std::mutex m_mutex;
    std::condition_variable m_added;
    std::deque<std::function<void()>> m_tasks;
};

// Some things are only to be looked at.
template <typename Condition>
void WaitUntil(Condition condition)
{
    while (!condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::unique_ptr<PelmarEndpoint> NewEndpoint(Role role, const peer::Arguments& arguments)
{
    auto endpoint = std::make_unique<PelmarEndpoint>(role, arguments.address);
    endpoint->SetDirectPath(arguments.option != "bus");
    return endpoint;
}

Partner AwaitPartner(const PelmarEndpoint& endpoint, const peer::Arguments& arguments)
{
    const auto patience = std::chrono::minutes(5);
    const std::optional<Partner> partner =
        endpoint.WaitForPartner(std::chrono::steady_clock::now() + patience);
    if (!partner)
        throw std::runtime_error("waited in vain for a partner");
    WaitUntil([&] { return arguments.option == "bus" || partner->IsDirect(); });
    return *partner;
}

[[noreturn]] void WaitForTheKill()
{
    for (;;)
        pause();
}

void Serve(const peer::Arguments& arguments)
{
    Executor executor;
    const auto endpoint = NewEndpoint(Role::service, arguments);
    endpoint->OnMessage(
        [](PelmarEndpoint::Message& message) { return peer::Answer(message.data); });
    if (arguments.option == "context")
        endpoint->RunHandlersIn(nullptr);
    if (arguments.option == "executor")
        endpoint->RunHandlersIn(
            [&executor](std::function<void()> task) { executor.Add(std::move(task)); });
    endpoint->Start();
    peer::Say("ready");
    if (arguments.option == "context")
        g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    WaitForTheKill();
}

void Request(const peer::Arguments& arguments)
{
    const auto endpoint = NewEndpoint(Role::client, arguments);
    endpoint->Start();
    const Partner partner = AwaitPartner(*endpoint, arguments);
    peer::RunClient([&](Bytes& data) {
        const auto patience = std::chrono::minutes(1);
        PelmarEndpoint::Response response = endpoint->Request(partner, std::move(data), patience);
        if (response.status != PelmarEndpoint::Status::ok)
            throw std::runtime_error(std::string("Request: ") +
                                     PelmarEndpoint::ToString(response.status));
        data = std::move(response.data);
    });
}

bool HaveJoined(const PelmarEndpoint& endpoint, std::size_t receivers, bool direct)
{
    const std::vector<Partner> partners = endpoint.Partners();
    return partners.size() >= receivers &&
           std::all_of(partners.begin(), partners.end(),
                       [direct](const Partner& partner) { return partner.IsDirect() || !direct; });
}

void Publish(const peer::Arguments& arguments)
{
    const auto endpoint = NewEndpoint(Role::service, arguments);
    PatientNotifier notifier(*endpoint);
    endpoint->Start();
    peer::RunPublisher(
        [&](std::size_t receivers) {
            WaitUntil([&] { return HaveJoined(*endpoint, receivers, arguments.option != "bus"); });
        },
        [&](const Bytes& data) { notifier.NotifyAll(data); }, [] {});
}

void Count(const peer::Arguments& arguments)
{
    peer::Tally tally;
    const auto endpoint = NewEndpoint(Role::client, arguments);
    endpoint->OnNotification(
        [&tally](PelmarEndpoint::Message& message) { tally.Add(message.data); });
    endpoint->Start();
    AwaitPartner(*endpoint, arguments);
    peer::Say("ready");
    WaitForTheKill();
}

void Idle(const peer::Arguments& arguments)
{
    std::vector<std::unique_ptr<PelmarEndpoint>> crowd(std::stoul(arguments.option));
    for (auto& endpoint : crowd) {
        endpoint = NewEndpoint(Role::client, arguments);
        endpoint->Start();
    }
    for (const auto& endpoint : crowd)
        AwaitPartner(*endpoint, arguments);
    peer::Say("ready");
    WaitForTheKill();
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(argc, argv,
                     {{"server", Serve},
                      {"client", Request},
                      {"publisher", Publish},
                      {"receiver", Count},
                      {"crowd", Idle}});
}
