/// @file
/// Real partners and their handshakes, for more than one workload.
#ifndef PELMAR_BENCH_HANDSHAKES_H
#define PELMAR_BENCH_HANDSHAKES_H

#include <string>

#include "server-process.h"

/// The client's side of a server that has two.
ServerKind ClientOf(const std::string& server);

/// Starts the newcomer, has it find the resident and ends it. Returns the seconds from the
/// newcomer's constructor to ready at both ends.
double HandshakeWith(ServerProcess& resident, const ServerKind& newcomer_kind);

#endif
