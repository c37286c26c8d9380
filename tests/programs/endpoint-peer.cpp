// One end of a channel as a process, like peer.cpp, but an endpoint in either role.
//
//   endpoint-peer service|client CHANNEL [--wait | --exit-when-bus-dies]
//
//   in:  notify HEX | notify-to NAME HEX | send NAME HEX | partners | stop | quit
//   out: on | ready NAME | lost NAME | message HEX | notification HEX | reply HEX | error TEXT |
//        status TEXT | partners NAME... | problem TEXT | bus_lost | bus_back | stopped |
//        stopping

#include <future>

#include "peer-lines.h"
#include "pelmar-endpoint.h"

namespace {

// Handlers may run before the endpoint is constructed; their lines come after "on" all the same.
PelmarEndpoint::Handlers SayEverything(const std::shared_future<void>& on)
{
    const auto say = [on](const char* what, const std::string& text = "") {
        on.wait();
        Say(what, text);
    };
    PelmarEndpoint::Handlers handlers;
    handlers.message = [say](Bytes& data) {
        say("message", Hex(data));
        return AnswerTo(data);
    };
    handlers.notification = [say](Bytes& data) { say("notification", Hex(data)); };
    handlers.ready = [say](const std::string& partner) { say("ready", partner); };
    handlers.lost = [say](const std::string& partner) { say("lost", partner); };
    handlers.bus_lost = [say] { say("bus_lost"); };
    handlers.bus_back = [say] { say("bus_back"); };
    handlers.problem = [say](const std::string& text) { say("problem", text); };
    return handlers;
}

void SendTo(PelmarEndpoint& endpoint, const std::string& partner, const Bytes& data)
{
    const PelmarEndpoint::Response response =
        endpoint.Request(data, partner, std::chrono::seconds(10));
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

void SayPartners(const PelmarEndpoint& endpoint)
{
    std::string names;
    for (const std::string& name : endpoint.Partners())
        names += name + " ";
    Say("partners", names);
}

// False when the program is to end.
bool Obey(PelmarEndpoint& endpoint, const std::string& line)
{
    const Command command(line);
    if (command.name == "notify")
        SayStatus(endpoint.Notify(command.data));
    else if (command.name == "notify-to")
        SayStatus(endpoint.Notify(command.data, command.partner));
    else if (command.name == "send")
        SendTo(endpoint, command.partner, command.data);
    else if (command.name == "partners")
        SayPartners(endpoint);
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
    PelmarEndpoint::Options options;
    if (std::string(argv[1]) == "client")
        options.role = PelmarEndpoint::Role::client;
    options.exit_when_bus_dies = argc > 3 && std::string(argv[3]) == "--exit-when-bus-dies";
    std::promise<void> on;
    PelmarEndpoint endpoint(argv[2], SayEverything(on.get_future()), options);
    Say("on", "");
    on.set_value();
    std::string line;
    while (std::getline(std::cin, line) && Obey(endpoint, line)) {
    }
    return 0;
}
