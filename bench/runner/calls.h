/// @file
/// Round trips, one after the other, as a sample.
#ifndef PELMAR_BENCH_CALLS_H
#define PELMAR_BENCH_CALLS_H

#include <sys/types.h>

#include <vector>

#include "echo-client.h"
#include "rounds.h"

/// Calls for so many seconds, each call timed by itself. Processor time, waits and page faults are
/// those of the servers together.
Sample CallFor(double seconds, EchoClient& client, const std::vector<pid_t>& servers,
               const EchoClient::Bytes& data);

#endif
