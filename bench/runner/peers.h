/// @file
/// The technologies under comparison, each at both ends: processes of bench/peers.
#ifndef PELMAR_BENCH_PEERS_H
#define PELMAR_BENCH_PEERS_H

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "child-process.h"
#include "rounds.h"
#include "workloads.h"

/// One technology: the program and how it is called.
struct PeerKind {
    std::string name;
    std::string program;
    std::string option;
    bool on_the_bus;  ///< or on a socket of its own
};

/// Those of these names whose program was built; all of them when there are no names.
std::vector<PeerKind> PeersNamed(const std::vector<std::string>& names);

/// The endpoint, with an option of its own.
PeerKind EndpointPeer(const std::string& option = "");

/// Where the peers of that kind meet: a channel, or a socket beside the bus.
std::string AddressOf(const BenchBus& bus, const PeerKind& kind, const std::string& name);

/// A running one that is ready. `wrapper` is put before its command.
class PeerProcess : public ChildProcess {
public:
    PeerProcess(const PeerKind& kind, const std::string& role, const std::string& address,
                const std::vector<std::string>& wrapper = {});
};

/// A server and its client.
class PeerPair {
public:
    /// The client runs on that processor, or where this process does.
    PeerPair(BenchBus& bus, const PeerKind& kind, const std::string& name,
             std::optional<int> processor_of_client = {});

    const std::string& Name() const { return m_name; }
    PeerProcess& Server() { return m_server; }

    Sample RequestFor(double seconds, std::size_t size);

private:
    std::string m_name;
    PeerProcess m_server;
    PeerProcess m_client;
    pid_t m_daemon;
};

/// Round trips of a client for so many seconds, each timed by itself. Processor time is that of the
/// servers together.
Sample RequestFor(double seconds, PeerProcess& client, const std::vector<pid_t>& servers,
                  std::size_t size);

/// The same for exactly so many calls, of which nothing is measured.
void Request(PeerProcess& client, std::size_t size, unsigned calls);

/// A sample of each pair in each round.
nlohmann::json RunRequests(const std::vector<std::unique_ptr<PeerPair>>& pairs, std::size_t size,
                           const Effort& effort);

#endif
