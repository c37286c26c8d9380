// One end of a channel as a process, like peer.cpp, but an endpoint in either role.
//
//   endpoint-peer service|client CHANNEL [--wait | --exit-when-bus-dies]
//
//   in:  notify HEX | notify-to NAME HEX | send NAME HEX | partners | way | stop | quit
//   out: on | ready NAME | lost NAME | message HEX | notification HEX | reply HEX | error TEXT |
//        status TEXT | partners NAME... | way direct|bus | problem TEXT | bus_lost | bus_back |
//        stopped | stopping

#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "peer-lines.h"
#include "pelmar-endpoint.h"

namespace {

using Partner = PelmarEndpoint::Partner;

// All that were ever ready, by their bus names. From any thread.
class Acquaintances {
public:
    void Meet(const Partner& partner)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_partners[partner.Name()] = partner;
    }
    Partner Named(const std::string& name) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_partners.find(name);
        return found != m_partners.end() ? found->second : Partner();
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, Partner> m_partners;
};

// What happens while the endpoint starts is said after "on" all the same.
void SayEverything(PelmarEndpoint& endpoint, Acquaintances& acquaintances,
                   const std::shared_future<void>& on)
{
    using Message = PelmarEndpoint::Message;
    const auto say = [on](const char* what, const std::string& text = "") {
        on.wait();
        Say(what, text);
    };
    endpoint.OnMessage([say](const Message& message) {
        say("message", Hex(message.data));
        return AnswerTo(message.data);
    });
    endpoint.OnNotification(
        [say](const Message& message) { say("notification", Hex(message.data)); });
    endpoint.OnReady([say, &acquaintances](const Partner& partner) {
        acquaintances.Meet(partner);
        say("ready", partner.Name());
    });
    endpoint.OnLost([say](const Partner& partner) { say("lost", partner.Name()); });
    endpoint.OnBusLost([say] { say("bus_lost"); });
    endpoint.OnBusBack([say] { say("bus_back"); });
    endpoint.OnProblem([say](PelmarEndpoint::Problem /*problem*/, const std::string& text) {
        say("problem", text);
    });
}

void SendTo(PelmarEndpoint& endpoint, const Partner& partner, const Bytes& data)
{
    const PelmarEndpoint::Response response =
        endpoint.Request(partner, data, std::chrono::seconds(10));
    if (response.status == PelmarEndpoint::Status::ok)
        Say("reply", Hex(response.data));
    else
        Say("error",
            std::string(PelmarEndpoint::ToString(response.status)) + ": " + response.error);
}

void SayStatus(PelmarEndpoint::Status status)
{
    Say("status", PelmarEndpoint::ToString(status));
}

// Of all that it was to go to: what came of the first one that it missed.
PelmarEndpoint::Status StatusOf(const PelmarEndpoint::Broadcast& broadcast)
{
    if (!broadcast.missed.empty())
        return broadcast.missed.front().status;
    return broadcast.sent != 0 ? PelmarEndpoint::Status::ok
                               : PelmarEndpoint::Status::no_such_partner;
}

void SayPartners(const PelmarEndpoint& endpoint)
{
    std::string names;
    for (const Partner& partner : endpoint.Partners())
        names += partner.Name() + " ";
    Say("partners", names);
}

// Of the first partner, when it goes past the bus or has had the time to.
void SayWay(const PelmarEndpoint& endpoint)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    const auto partner = endpoint.WaitForPartner(deadline);
    while (partner && !partner->IsDirect() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Say("way", partner && partner->IsDirect() ? "direct" : "bus");
}

// False when the program is to end.
bool Obey(PelmarEndpoint& endpoint, const Acquaintances& acquaintances, const std::string& line)
{
    const Command command(line);
    if (command.name == "notify")
        SayStatus(StatusOf(endpoint.NotifyAll(command.data)));
    else if (command.name == "notify-to")
        SayStatus(endpoint.Notify(acquaintances.Named(command.partner), command.data));
    else if (command.name == "send")
        SendTo(endpoint, acquaintances.Named(command.partner), command.data);
    else if (command.name == "partners")
        SayPartners(endpoint);
    else if (command.name == "way")
        SayWay(endpoint);
    else if (command.name == "stop")
        Say("stopped", endpoint.Stop() ? "yes" : "no");
    return command.name != "quit";
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::cerr
            << "usage: endpoint-peer service|client CHANNEL [--wait | --exit-when-bus-dies]\n";
        return 2;
    }
    WaitForGo(argc, argv);
    const bool is_client = std::string(argv[1]) == "client";
    Acquaintances acquaintances;
    PelmarEndpoint endpoint(
        is_client ? PelmarEndpoint::Role::client : PelmarEndpoint::Role::service, argv[2]);
    std::promise<void> on;
    SayEverything(endpoint, acquaintances, on.get_future());
    endpoint.ExitWhenBusDies(argc > 3 && std::string(argv[3]) == "--exit-when-bus-dies");
    endpoint.Start();
    Say("on", "");
    on.set_value();
    std::string line;
    while (std::getline(std::cin, line) && Obey(endpoint, acquaintances, line)) {
    }
    return 0;
}
