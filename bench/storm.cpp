// Handshake storms: many clients that start at the same moment, and a service that is killed and
// started again under all of them; plain channels and endpoints, side by side.
//
// It prints how many pairs are ready at both ends and the time that took, and judges nothing.

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "child-process.h"
#include "test-bus.h"

namespace {

using Clock = std::chrono::steady_clock;

enum class Kind { plain, endpoint };

const char* NameOf(Kind kind)
{
    return kind == Kind::plain ? "plain" : "endpoint";
}

std::vector<std::string> Program(Kind kind, const std::string& role)
{
    if (kind == Kind::endpoint)
        return {PELMAR_ENDPOINT_PEER, role, "storm", "--wait"};
    return {role == "service" ? PELMAR_PEER_SERVICE : PELMAR_PEER_CLIENT, "storm", "--wait"};
}

// One process and the partners that it has told to be ready.
class Member {
public:
    Member(Kind kind, const std::string& role) : m_process(Program(kind, role))
    {
        m_process.WaitForLine("waiting");
    }

    void Go() { m_process.WriteLine("go"); }
    void Kill() { m_process.Kill(); }

    void ReadNews()
    {
        for (const std::string& line : m_process.ComeLines()) {
            if (line.compare(0, 6, "ready ") == 0)
                m_ready.insert(line.substr(6));
            if (line.compare(0, 5, "lost ") == 0)
                m_ready.erase(line.substr(5));
        }
    }

    std::size_t Ready() const { return m_ready.size(); }
    int Descriptor() const { return m_process.OutputDescriptor(); }

private:
    ChildProcess m_process;
    std::set<std::string> m_ready;
};

struct Result {
    std::size_t at_service;
    std::size_t at_clients;
    double seconds;
};

// Reads until all are ready at both ends, or nothing new has come for long.
Result Watch(Member& service, std::vector<std::unique_ptr<Member>>& clients)
{
    constexpr auto patience = std::chrono::seconds(6);
    const auto start = Clock::now();
    auto last_news = start;
    Result result{0, 0, 0};
    while (Clock::now() - last_news < patience) {
        std::vector<pollfd> outputs{{service.Descriptor(), POLLIN, 0}};
        for (const auto& client : clients)
            outputs.push_back({client->Descriptor(), POLLIN, 0});
        poll(outputs.data(), outputs.size(), 100);
        service.ReadNews();
        std::size_t at_clients = 0;
        for (const auto& client : clients) {
            client->ReadNews();
            at_clients += client->Ready() != 0 ? 1 : 0;
        }
        if (service.Ready() != result.at_service || at_clients != result.at_clients) {
            last_news = Clock::now();
            result = {service.Ready(), at_clients,
                      std::chrono::duration<double>(last_news - start).count()};
        }
        if (result.at_service == clients.size() && result.at_clients == clients.size())
            break;
    }
    return result;
}

void Print(const char* storm, Kind service, Kind client, std::size_t count, const Result& result)
{
    std::printf("| %-7s | %-8s | %-8s | %3zu of %zu | %3zu of %zu | %6.2f |\n", storm,
                NameOf(service), NameOf(client), result.at_service, count, result.at_clients, count,
                result.seconds);
    std::fflush(stdout);
}

void Storm(Kind service_kind, Kind client_kind, std::size_t count)
{
    const TestBus bus;
    auto service = std::make_unique<Member>(service_kind, "service");
    std::vector<std::unique_ptr<Member>> clients;
    for (std::size_t i = 0; i < count; ++i)
        clients.push_back(std::make_unique<Member>(client_kind, "client"));

    service->Go();
    for (const auto& client : clients)
        client->Go();
    Print("start", service_kind, client_kind, count, Watch(*service, clients));

    auto successor = std::make_unique<Member>(service_kind, "service");
    service->Kill();
    // All know of the end before the successor starts, as when a supervisor restarts a service.
    const auto has_partner = [](const auto& client) {
        client->ReadNews();
        return client->Ready() != 0;
    };
    while (std::any_of(clients.begin(), clients.end(), has_partner)) {
        std::vector<pollfd> outputs;
        for (const auto& client : clients)
            outputs.push_back({client->Descriptor(), POLLIN, 0});
        poll(outputs.data(), outputs.size(), 100);
    }
    successor->Go();
    Print("restart", service_kind, client_kind, count, Watch(*successor, clients));
}

int Usage()
{
    std::cerr << "usage: storm [CLIENTS [all|endpoint]]\n"
                 "CLIENTS is 1 to 200, by default 100. With 'endpoint' only endpoints storm.\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    const long count = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 100;
    const std::string which = argc > 2 ? argv[2] : "all";
    if (argc > 3 || count < 1 || count > 200 || (which != "all" && which != "endpoint"))
        return Usage();
    std::printf(
        "| storm   | service  | clients  | at service | at clients | seconds |\n"
        "|---|---|---|---|---|---|\n");
    const auto clients = static_cast<std::size_t>(count);
    Storm(Kind::endpoint, Kind::endpoint, clients);
    if (which == "all") {
        Storm(Kind::plain, Kind::plain, clients);
        Storm(Kind::plain, Kind::endpoint, clients);
        Storm(Kind::endpoint, Kind::plain, clients);
    }
    return 0;
}
