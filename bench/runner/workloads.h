/// @file
/// What is measured. Each workload adds its part to the results, under its own name; one that this
/// machine cannot run gives null.
#ifndef PELMAR_BENCH_WORKLOADS_H
#define PELMAR_BENCH_WORKLOADS_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "test-bus.h"

/// How much of everything. Rounds go on from the least to the most until the ratios between the
/// servers are known to `precision`, or the seconds are over.
struct Effort {
    struct Rounds {
        unsigned least;
        unsigned most;
        double seconds;
        double precision;
    };

    std::vector<std::string> servers;  // those to measure; empty: all
    std::vector<std::string> peers;    // technologies at both ends; empty: all
    std::vector<std::size_t> sizes;    // of messages
    Rounds rounds;                     // for each size, and for each number of partners
    double sample_seconds;             // for one server in one round
    std::vector<std::size_t> request_sizes;
    Rounds peer_rounds;   // of the technologies at both ends, and of the bridge
    unsigned deliveries;  // of notifications, in one round
    unsigned idle_partners;
    std::vector<unsigned> receivers;
    unsigned handshakes;
    std::vector<unsigned> growth;  // numbers of partners
    unsigned pulses;
    std::vector<std::size_t> counted_sizes;  // of messages, for the instruction counts
    std::vector<std::size_t> counted_request_sizes;
    unsigned counted_calls;
    unsigned profiled_calls;
};

Effort FullEffort();
Effort QuickEffort();
Effort SmokeEffort();

/// The private bus that everything runs on.
class BenchBus : public TestBus {
public:
    /// With room for a crowd.
    BenchBus();

    /// Where other sockets may be put, too.
    std::string Folder() const;
};

struct Workload {
    const char* name;
    const char* description;
    nlohmann::json (*measure)(BenchBus& bus, const Effort& effort);
};
const std::vector<Workload>& Workloads();

nlohmann::json MeasureSend(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureRequest(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureRequestOnTwo(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureDeliveries(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureIdlePartners(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureHandlers(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureBridge(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureNotifications(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureHandshake(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureGrowth(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureMemory(BenchBus& bus, const Effort& effort);
nlohmann::json MeasureProfile(BenchBus& bus, const Effort& effort);
nlohmann::json CountInstructions(BenchBus& bus, const Effort& effort);
nlohmann::json CountRequestInstructions(BenchBus& bus, const Effort& effort);

#endif
