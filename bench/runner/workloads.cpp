#include "workloads.h"

#include <filesystem>

namespace {

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;

}  // namespace

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
    effort.receivers = {1, 10, 100};
    effort.handshakes = 30;
    effort.growth = {1, 10, 50, 150};
    effort.pulses = 200;
    effort.counted_sizes = {64, KIB, 16 * KIB};
    effort.counted_calls = 500;
    effort.profiled_calls = 100;
    return effort;
}

Effort QuickEffort()
{
    Effort effort = FullEffort();
    effort.rounds = {8, 12, 5, 0.02};
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
    effort.rounds = {1, 1, 0, 0};
    effort.sample_seconds = 0;
    effort.receivers = {1, 2};
    effort.handshakes = 1;
    effort.growth = {1, 2};
    effort.pulses = 2;
    effort.counted_sizes = {64};
    effort.counted_calls = 5;
    effort.profiled_calls = 5;
    return effort;
}

// Each workload, and what it measures.
const std::vector<Workload>& Workloads()
{
    static const std::vector<Workload> workloads = {
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
    };
    return workloads;
}
