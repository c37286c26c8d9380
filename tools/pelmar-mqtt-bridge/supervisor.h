// One process for each channel. The local clients of an offered channel are told of the service's
// end by the bus, when the process's connection ends; channels that shared a connection could not
// come and go on their own.
#ifndef PELMAR_BRIDGE_SUPERVISOR_H
#define PELMAR_BRIDGE_SUPERVISOR_H

#include <csignal>
#include <functional>
#include <vector>

#include "options.h"

// The signals that the bridge waits for. Blocks them, so that they are kept for sigwait.
sigset_t BlockSignals();

// Runs `carry` in a process for each channel, hands SIGUSR1, SIGTERM and SIGINT on to them, and
// ends them all when one fails. Returns the exit status.
int CarryEach(const std::vector<CarriedChannel>& channels,
              const std::function<int(const CarriedChannel&)>& carry);

#endif
