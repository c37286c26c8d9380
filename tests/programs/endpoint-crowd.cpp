// Several endpoints of one role in one process, each with a connection of its own. What they are
// sent they answer with nothing, so that the process has no copies of its own.
//
//   endpoint-crowd service|client CHANNEL COUNT
//
//   in:  request SIZE | request-later SIZE | stop INDEX
//   out: ready INDEX | taken SIZE | status TEXT | stopped INDEX

#include <future>
#include <memory>
#include <vector>

#include "peer-lines.h"
#include "pelmar-endpoint.h"

namespace {

constexpr std::chrono::seconds PATIENCE{60};

std::unique_ptr<PelmarEndpoint> MakeEndpoint(PelmarEndpoint::Role role, const char* channel,
                                             std::size_t index)
{
    auto endpoint = std::make_unique<PelmarEndpoint>(role, channel);
    endpoint->OnMessage([](const PelmarEndpoint::Message& message) {
        Say("taken", std::to_string(message.data.size()));
        return Bytes();
    });
    endpoint->OnReady(
        [index](const PelmarEndpoint::Partner&) { Say("ready", std::to_string(index)); });
    return endpoint;
}

void SayStatus(const PelmarEndpoint::Response& response)
{
    Say("status", PelmarEndpoint::ToString(response.status));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: endpoint-crowd service|client CHANNEL COUNT\n";
        return 2;
    }
    const auto role = std::string(argv[1]) == "client" ? PelmarEndpoint::Role::client
                                                       : PelmarEndpoint::Role::service;
    std::vector<std::unique_ptr<PelmarEndpoint>> crowd;
    for (std::size_t i = 0; i < std::stoul(argv[3]); ++i)
        crowd.push_back(MakeEndpoint(role, argv[2], i));
    for (const auto& endpoint : crowd)
        endpoint->Start();
    std::string word;
    std::size_t number = 0;
    while (std::cin >> word >> number) {
        if (word == "stop") {
            crowd.at(number)->Stop();
            Say("stopped", std::to_string(number));
            continue;
        }
        PelmarEndpoint& first = *crowd.front();
        const PelmarEndpoint::Partner partner = first.Partners().front();
        if (word == "request")
            SayStatus(first.Request(partner, Bytes(number, 'x'), PATIENCE));
        else
            first.Request(partner, Bytes(number, 'x'), PATIENCE, SayStatus);
    }
    return 0;
}
