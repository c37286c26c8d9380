/// @file
/// Measuring several servers side by side: one sample of each in turn, round after round.
#ifndef PELMAR_BENCH_ROUNDS_H
#define PELMAR_BENCH_ROUNDS_H

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "workloads.h"

/// One sample of one server, per operation.
struct Sample {
    double seconds = 0;
    double processor_seconds = 0;  // of the server alone
    std::vector<double> calls;     // where each was timed by itself
    double waits = 0;              // of the server, see server-process.h
    double page_faults = 0;
    std::map<std::string, double> others = {};  // processor seconds of whom else
};

struct Contender {
    std::string name;
    std::function<Sample()> sample;
};

/// For each contender its rounds, as "us" and "server_us"; where calls were timed by themselves
/// also "p99_us", "per_second", "waits" and "page_faults"; and "NAME_us" of whom else there is. The
/// first contender's ratios decide when it is enough.
nlohmann::json RunRounds(const std::vector<Contender>& contenders, const Effort::Rounds& rounds);

#endif
