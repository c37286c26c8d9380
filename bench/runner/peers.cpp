#include "peers.h"

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <sstream>
#include <stdexcept>

#include "precedence.h"
#include "processors.h"
#include "server-process.h"
#include "statistics.h"

namespace {

constexpr unsigned LEAST_CALLS = 3;

std::string PathOf(const PeerKind& kind)
{
    return std::string(PELMAR_BENCH_PEERS) + "/" + kind.program;
}

std::vector<std::string> Command(const PeerKind& kind, const std::string& role,
                                 const std::string& address,
                                 const std::vector<std::string>& wrapper)
{
    std::vector<std::string> command = wrapper;
    command.insert(command.end(), {PathOf(kind), role, address});
    if (!kind.option.empty())
        command.push_back(kind.option);
    return command;
}

std::string RequestOrder(std::size_t size, double seconds, unsigned calls)
{
    return "request " + std::to_string(size) + " " + std::to_string(seconds) + " " +
           std::to_string(calls);
}

double SumOfProcessorSeconds(const std::vector<pid_t>& processes)
{
    return std::accumulate(processes.begin(), processes.end(), 0.0, [](double sum, pid_t process) {
        return sum + ProcessorSeconds(process);
    });
}

// Returned as it is made: a process is not copied.
PeerProcess ClientOn(std::optional<int> processor, const PeerKind& kind, const std::string& address)
{
    if (!processor)
        return PeerProcess(kind, "client", address);
    const OnProcessor there(*processor);
    return PeerProcess(kind, "client", address);
}

}  // namespace

std::vector<PeerKind> PeersNamed(const std::vector<std::string>& names)
{
    const std::vector<PeerKind> all = {
        EndpointPeer(),
        {"endpoint on the bus", "peer-endpoint", "bus", true},
        {"bare socket", "peer-socket", "", false},
        {"ZeroMQ", "peer-zeromq", "", false},
        {"nng", "peer-nng", "", false},
        {"sd-bus", "peer-sd-bus", "", true},
        {"GDBus", "peer-gdbus", "", true},
    };
    std::vector<PeerKind> wanted;
    std::copy_if(all.begin(), all.end(), std::back_inserter(wanted), [&](const PeerKind& kind) {
        const bool is_named =
            names.empty() || std::find(names.begin(), names.end(), kind.name) != names.end();
        return is_named && std::filesystem::exists(PathOf(kind));
    });
    return wanted;
}

PeerKind EndpointPeer(const std::string& option)
{
    return {"endpoint", "peer-endpoint", option, true};
}

std::string AddressOf(const BenchBus& bus, const PeerKind& kind, const std::string& name)
{
    return kind.on_the_bus ? name : bus.Folder() + "/" + name;
}

PeerProcess::PeerProcess(const PeerKind& kind, const std::string& role, const std::string& address,
                         const std::vector<std::string>& wrapper)
    : ChildProcess(Command(kind, role, address, wrapper))
{
    WaitForLine("ready");
    GivePrecedenceTo(Pid());
}

PeerPair::PeerPair(BenchBus& bus, const PeerKind& kind, const std::string& name,
                   std::optional<int> processor_of_client)
    : m_name(kind.name),
      m_server(kind, "server", AddressOf(bus, kind, name)),
      m_client(ClientOn(processor_of_client, kind, AddressOf(bus, kind, name))),
      m_daemon(bus.Daemon().Pid())
{
}

Sample PeerPair::RequestFor(double seconds, std::size_t size)
{
    const double client_started = ProcessorSeconds(m_client.Pid());
    const double daemon_started = ProcessorSeconds(m_daemon);
    Sample sample = ::RequestFor(seconds, m_client, {m_server.Pid()}, size);
    const auto count = static_cast<double>(sample.calls.size());
    sample.others["client"] = (ProcessorSeconds(m_client.Pid()) - client_started) / count;
    sample.others["daemon"] = (ProcessorSeconds(m_daemon) - daemon_started) / count;
    return sample;
}

Sample RequestFor(double seconds, PeerProcess& client, const std::vector<pid_t>& servers,
                  std::size_t size)
{
    Sample sample;
    const double processor_started = SumOfProcessorSeconds(servers);
    client.WriteLine(RequestOrder(size, seconds, LEAST_CALLS));
    std::istringstream took(client.WaitForLine("took"));
    for (double nanoseconds = 0; took >> nanoseconds;)
        sample.calls.push_back(nanoseconds * 1e-9);
    sample.seconds = statistics::Median(sample.calls);
    sample.processor_seconds = (SumOfProcessorSeconds(servers) - processor_started) /
                               static_cast<double>(sample.calls.size());
    return sample;
}

void Request(PeerProcess& client, std::size_t size, unsigned calls)
{
    client.WriteLine(RequestOrder(size, 0, calls));
    client.WaitForLine("took");
}

nlohmann::json RunRequests(const std::vector<std::unique_ptr<PeerPair>>& pairs, std::size_t size,
                           const Effort& effort)
{
    std::vector<Contender> contenders;
    contenders.reserve(pairs.size());
    for (const auto& pair : pairs) {
        contenders.push_back({pair->Name(), [&effort, &pair, size] {
                                  return pair->RequestFor(effort.sample_seconds, size);
                              }});
    }
    return RunRounds(contenders, effort.peer_rounds);
}
