#include "workloads.h"

#include <filesystem>

#include "precedence.h"

namespace {

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;

}  // namespace

BenchBus::BenchBus()
    : TestBus(
          "<limit name=\"max_connections_per_user\">4000</limit>\n"
          "<limit name=\"max_completed_connections\">4000</limit>\n"
          "<limit name=\"max_match_rules_per_connection\">8000</limit>")
{
    GivePrecedenceTo(Daemon().Pid());
}

std::string BenchBus::Folder() const
{
    const std::string prefix = "unix:path=";
    return std::filesystem::path(Address().substr(prefix.size())).parent_path();
}

Effort FullEffort()
{
    Effort effort;
    effort.sizes = {0, 64, KIB, 16 * KIB, 256 * KIB, MIB};
    effort.rounds = {40, 400, 45, 0.005};
    effort.sample_seconds = 0.02;
    effort.request_sizes = {0, 64, KIB, 16 * KIB, 256 * KIB, MIB, 16 * MIB};
    effort.peer_rounds = {15, 200, 18, 0.005};
    effort.deliveries = 20'000;
    effort.idle_partners = 1000;
    effort.receivers = {1, 10, 100};
    effort.handshakes = 30;
    effort.growth = {1, 10, 50, 150};
    effort.pulses = 200;
    effort.counted_sizes = {64, KIB, 16 * KIB};
    effort.counted_request_sizes = {64, MIB};
    effort.counted_calls = 500;
    effort.profiled_calls = 100;
    return effort;
}

Effort QuickEffort()
{
    Effort effort = FullEffort();
    effort.rounds = effort.peer_rounds = {8, 12, 5, 0.02};
    effort.idle_partners = 100;
    effort.receivers = {1, 100};
    effort.handshakes = 5;
    effort.growth = {1, 10};
    effort.pulses = 50;
    effort.counted_sizes = {KIB};
    effort.counted_calls = 200;
    return effort;
}

Effort SmokeEffort()
{
    Effort effort;
    effort.sizes = {0, 64, MIB};
    effort.rounds = effort.peer_rounds = {1, 1, 0, 0};
    effort.request_sizes = {0, 64, MIB};
    effort.deliveries = 40;
    effort.idle_partners = 3;
    effort.sample_seconds = 0;
    effort.receivers = {1, 2};
    effort.handshakes = 1;
    effort.growth = {1, 2};
    effort.pulses = 2;
    effort.counted_sizes = {64};
    effort.counted_request_sizes = {64};
    effort.counted_calls = 5;
    effort.profiled_calls = 5;
    return effort;
}

// Each workload, and what it measures.
const std::vector<Workload>& Workloads()
{
    static const std::vector<Workload> workloads = {
        {"request", "round trips of Request at growing sizes, one technology at both ends",
         MeasureRequest},
        {"request-on-two", "the same with the client on a processor of its own",
         MeasureRequestOnTwo},
        {"deliveries", "notifications of 64 bytes to 1, 10 and 100 processes", MeasureDeliveries},
        {"idle-partners", "round trips of Request beside 1,000 partners that do nothing",
         MeasureIdlePartners},
        {"handlers", "round trips of Request by where the endpoint's handlers run",
         MeasureHandlers},
        {"send", "round trips of Send at growing sizes, one client against every server",
         MeasureSend},
#ifdef PELMAR_BENCH_BRIDGE
        {"bridge", "round trips of Send through the MQTT bridge, direct, and of MQTT alone",
         MeasureBridge},
#endif
        {"notifications", "notifications of 64 bytes to 1, 10 and 100 partners",
         MeasureNotifications},
        {"handshake", "from a constructor to ready at both ends, in both orders", MeasureHandshake},
        {"growth", "the next handshake, memory and the cost of a pulse with 1 to 150 partners",
         MeasureGrowth},
        {"memory", "what a server that does nothing takes for itself", MeasureMemory},
#ifdef PELMAR_COUNT_COPIES
        {"profile", "system calls of a server for one Send, and what it copies and fills",
         MeasureProfile},
#endif
        {"instructions", "instructions that a server executes for one Send, by callgrind",
         CountInstructions},
        {"request-instructions", "instructions of either end for one Request past the daemon",
         CountRequestInstructions},
    };
    return workloads;
}
