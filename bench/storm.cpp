// Handshake storms: many clients that start at the same moment, and a service that is killed and
// started again under all of them; plain channels and endpoints, side by side.
//
// It prints how many pairs are ready at both ends and the time that took, and judges nothing.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "channel-end.h"
#include "test-bus.h"

namespace {

using Kind = ChannelEnd::Kind;

const char* NameOf(Kind kind)
{
    return kind == Kind::plain ? "plain" : "endpoint";
}

void Print(const char* storm, Kind service, Kind client, std::size_t count,
           const Storm::Result& result)
{
    std::printf("| %-7s | %-8s | %-8s | %3zu of %zu | %3zu of %zu | %6.2f |\n", storm,
                NameOf(service), NameOf(client), result.at_service, count, result.at_clients, count,
                result.seconds);
    std::fflush(stdout);
}

void Run(Kind service, Kind client, std::size_t count)
{
    const TestBus bus;
    Storm storm(service, std::vector<Kind>(count, client));
    Print("start", service, client, count, storm.Start());
    Print("restart", service, client, count, storm.RestartService());
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
    Run(Kind::endpoint, Kind::endpoint, clients);
    if (which == "all") {
        Run(Kind::plain, Kind::plain, clients);
        Run(Kind::plain, Kind::endpoint, clients);
        Run(Kind::endpoint, Kind::plain, clients);
    }
    return 0;
}
