#include "server-process.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

#include "precedence.h"

namespace {

double SecondsOn(clockid_t clock)
{
    timespec time{};
    if (clock_gettime(clock, &time) != 0)
        throw std::runtime_error(std::string("clock_gettime: ") + std::strerror(errno));
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double SecondsOf(const std::string& nanoseconds)
{
    return static_cast<double>(std::stoll(nanoseconds)) * 1e-9;
}

std::string ProcPath(pid_t process, const std::string& file)
{
    return "/proc/" + std::to_string(process) + "/" + file;
}

// Of the numbers that follow these words in a file of /proc.
double SumOf(const std::string& path, const std::set<std::string>& words)
{
    std::ifstream file(path);
    double sum = 0;
    std::string word;
    while (file >> word) {
        double number = 0;
        if (words.count(word) != 0 && file >> number)
            sum += number;
    }
    return sum;
}

std::string PathOf(const std::string& program)
{
    return std::string(PELMAR_BENCH_SERVERS) + "/" + program;
}

std::vector<ServerKind> BuiltKinds()
{
    std::vector<ServerKind> kinds = {
        {"channel", "serve-channel", {}, true, true},
        {"endpoint", "serve-endpoint", {}, true, true},
        {"gdbus", "serve-gdbus", {}, true, false},
        {"gdbus-copy", "serve-gdbus", {"--copy"}, true, false},
        {"sd-bus", "serve-sd-bus", {}, true, false},
        {"libdbus", "serve-libdbus", {}, true, false},
        {"sdbus-c++", "serve-sdbus-cpp", {}, true, false},
        {"unix socket", "serve-unix-socket", {}, false, false},
    };
    kinds.erase(std::remove_if(kinds.begin(), kinds.end(),
                               [](const ServerKind& kind) {
                                   return !std::filesystem::exists(PathOf(kind.program));
                               }),
                kinds.end());
    return kinds;
}

std::vector<std::string> Command(const ServerKind& kind, const std::string& channel,
                                 const std::vector<std::string>& wrapper)
{
    std::vector<std::string> command = wrapper;
    command.push_back(PathOf(kind.program));
    command.push_back(channel);
    command.insert(command.end(), kind.options.begin(), kind.options.end());
    return command;
}

}  // namespace

double Now()
{
    return SecondsOn(CLOCK_MONOTONIC);
}

double ProcessorSeconds(pid_t process)
{
    clockid_t clock{};
    if (clock_getcpuclockid(process, &clock) != 0)
        throw std::runtime_error("no processor clock for process " + std::to_string(process));
    return SecondsOn(clock);
}

double Waits(pid_t process)
{
    double waits = 0;
    for (const auto& task : std::filesystem::directory_iterator(ProcPath(process, "task")))
        waits += SumOf(task.path() / "status", {"voluntary_ctxt_switches:"});
    return waits;
}

double PageFaults(pid_t process)
{
    // The tenth field; the second, in parentheses, is the name of a server, which has no spaces.
    std::ifstream stat(ProcPath(process, "stat"));
    std::string field;
    for (int i = 0; i < 10; ++i)
        stat >> field;
    return std::stod(field);
}

double PrivateBytes(pid_t process)
{
    constexpr double kib = 1024;
    return SumOf(ProcPath(process, "smaps_rollup"), {"Private_Clean:", "Private_Dirty:"}) * kib;
}

const std::vector<ServerKind>& ServerKinds()
{
    static const std::vector<ServerKind> kinds = BuiltKinds();
    return kinds;
}

const ServerKind& KindNamed(const std::string& name)
{
    for (const ServerKind& kind : ServerKinds()) {
        if (kind.name == name)
            return kind;
    }
    throw std::runtime_error("the server '" + name + "' was not built");
}

std::vector<ServerKind> KindsNamed(const std::vector<std::string>& names)
{
    if (names.empty())
        return ServerKinds();
    std::vector<ServerKind> kinds;
    kinds.reserve(names.size());
    for (const std::string& name : names)
        kinds.push_back(KindNamed(name));
    return kinds;
}

ServerProcess::ServerProcess(const ServerKind& kind, std::string channel,
                             const std::vector<std::string>& wrapper)
    : m_kind(kind), m_channel(std::move(channel)), m_process(Command(kind, m_channel, wrapper))
{
    if (kind.has_handshake)
        m_constructing = SecondsOf(m_process.WaitForLine("constructing "));
    m_name = m_process.WaitForLine("serving ");
    GivePrecedenceTo(m_process.Pid());
}

double ServerProcess::WaitForReady()
{
    const std::string line = m_process.WaitForLine("ready ");
    return SecondsOf(line.substr(0, line.find(' ')));
}

std::unique_ptr<EchoClient> ServerProcess::NewClient() const
{
    return m_kind.on_the_bus ? ClientOnTheBus(m_name, m_channel) : ClientOfSocket(m_channel);
}
