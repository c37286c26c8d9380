// Long life under traffic: a service, two clients that stay, one that comes and goes, one that is
// killed again and again, about a thousand sendings a second among them. Every sending has to
// arrive or to have been refused, and nobody's memory or descriptors may grow. All go past the bus,
// or none with PELMAR_DIRECT=0.
//
//   soak MINUTES

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child-process.h"
#include "test-bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using Counts = std::map<std::string, std::uint64_t>;

// How often the one partner leaves and the other one is killed.
constexpr int STAY_SECONDS = 2;

// What a process grows by in its first seconds is no leak.
constexpr int SHORTEST_JUDGED = 60;

bool MayGoDirect()
{
    const char* direct = std::getenv("PELMAR_DIRECT");
    return direct == nullptr || std::string(direct) != "0";
}

class Peer {
public:
    Peer(const std::string& role, int rate)
        : m_process({PELMAR_SOAK_PEER, role, std::to_string(rate)})
    {
        m_process.WaitForLine("ready");
    }

    ChildProcess& Process() { return m_process; }

    // Ends it; what it has counted is added.
    bool Leave(Counts& counts)
    {
        m_process.WriteLine("leave");
        std::istringstream report(m_process.WaitForLine("report "));
        std::string name;
        std::uint64_t number = 0;
        while (report >> name >> number)
            counts[name] += number;
        return m_process.WaitForEnd() == 0;
    }

private:
    ChildProcess m_process;
};

// A process's memory and descriptors, second by second.
class Gauge {
public:
    Gauge(std::string name, pid_t pid)
        : m_name(std::move(name)), m_folder("/proc/" + std::to_string(pid))
    {
    }

    void Sample()
    {
        std::ifstream statm(m_folder + "/statm");
        double pages = 0;
        statm >> pages >> pages;
        m_kibibytes.push_back(pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024);
        const std::filesystem::directory_iterator entries(m_folder + "/fd");
        m_descriptors.push_back(static_cast<double>(std::distance(begin(entries), end(entries))));
    }

    // The memory may breathe a little; a descriptor or two may be open for a moment.
    bool IsFlat() const
    {
        return Last(m_kibibytes) <= First(m_kibibytes) * 1.05 + 512 &&
               Last(m_descriptors) <= First(m_descriptors) + 2;
    }

    void Print() const
    {
        std::printf("%-8s memory %.0f to %.0f KiB, descriptors %.1f to %.1f: %s\n", m_name.c_str(),
                    First(m_kibibytes), Last(m_kibibytes), First(m_descriptors),
                    Last(m_descriptors), IsFlat() ? "flat" : "NOT FLAT");
    }

private:
    using Samples = std::vector<double>;

    static std::ptrdiff_t Tenth(const Samples& samples)
    {
        return static_cast<std::ptrdiff_t>(samples.size() / 10 + 1);
    }
    static double Mean(Samples::const_iterator from, Samples::const_iterator to)
    {
        return std::accumulate(from, to, 0.0) / static_cast<double>(to - from);
    }
    static double First(const Samples& samples)
    {
        return Mean(samples.begin(), samples.begin() + Tenth(samples));
    }
    static double Last(const Samples& samples)
    {
        return Mean(samples.end() - Tenth(samples), samples.end());
    }

    std::string m_name;
    std::string m_folder;
    Samples m_kibibytes;
    Samples m_descriptors;
};

class Soak {
public:
    // False when something is not as it has to be.
    bool Run(int seconds)
    {
        std::vector<Gauge> gauges{{"daemon", m_bus.Daemon().Pid()},
                                  {"service", m_service.Process().Pid()},
                                  {"client", m_first.Process().Pid()},
                                  {"client", m_second.Process().Pid()}};
        auto next = Clock::now();
        for (int second = 1; second <= seconds; ++second) {
            std::this_thread::sleep_until(next += std::chrono::seconds(1));
            for (Gauge& gauge : gauges)
                gauge.Sample();
            if (second % STAY_SECONDS == 0)
                Exchange();
        }
        bool flat = true;
        for (const Gauge& gauge : gauges) {
            gauge.Print();
            flat = flat && gauge.IsFlat();
        }
        return CountUp() && (flat || seconds < SHORTEST_JUDGED);
    }

private:
    void Exchange()
    {
        ++m_stays;
        m_orderly = m_passing->Leave(m_clients) && m_orderly;
        m_passing = std::make_unique<Peer>("client", 200);
        m_doomed = std::make_unique<Peer>("client", 0);  // kills the one before it
        ++m_exchanges;
    }

    bool CountUp()
    {
        m_doomed.reset();
        for (Peer* client : {m_passing.get(), &m_first, &m_second}) {
            ++m_stays;
            m_orderly = client->Leave(m_clients) && m_orderly;
        }
        m_orderly = m_service.Leave(m_at_service) && m_orderly;
        const std::uint64_t sent = m_clients["messages_sent"] + m_clients["notifications_sent"];
        const std::uint64_t received =
            m_at_service["messages_received"] + m_at_service["notifications_received"];
        std::printf("partners exchanged %d times; %ju of %ju clients went past the bus\n",
                    m_exchanges, static_cast<std::uintmax_t>(m_clients["direct"]),
                    static_cast<std::uintmax_t>(m_stays));
        std::printf("clients sent %ju, refused %ju; service received %ju\n",
                    static_cast<std::uintmax_t>(sent),
                    static_cast<std::uintmax_t>(m_clients["refused"]),
                    static_cast<std::uintmax_t>(received));
        std::printf("service broadcast %ju, refused %ju; clients received %ju and missed %ju\n",
                    static_cast<std::uintmax_t>(m_at_service["notifications_sent"]),
                    static_cast<std::uintmax_t>(m_at_service["refused"]),
                    static_cast<std::uintmax_t>(m_clients["notifications_received"]),
                    static_cast<std::uintmax_t>(m_clients["missed"]));
        return m_orderly && sent == received && m_clients["missed"] == 0 &&
               m_clients["direct"] == (MayGoDirect() ? m_stays : 0);
    }

    TestBus m_bus;
    Peer m_service{"service", 100};
    Peer m_first{"client", 350};
    Peer m_second{"client", 350};
    std::unique_ptr<Peer> m_passing = std::make_unique<Peer>("client", 200);
    std::unique_ptr<Peer> m_doomed = std::make_unique<Peer>("client", 0);
    Counts m_clients;
    Counts m_at_service;
    bool m_orderly = true;
    int m_exchanges = 0;
    std::uint64_t m_stays = 0;  // of clients that left
};

}  // namespace

int main(int argc, char** argv)
{
    const int seconds = argc == 2 ? static_cast<int>(std::atof(argv[1]) * 60) : 0;
    if (seconds < 1) {
        std::fprintf(stderr, "usage: soak MINUTES\n");
        return 2;
    }
    const bool well = Soak().Run(seconds);
    std::printf("%s\n", well ? "Nothing was lost and nobody grew" : "FAILED");
    return well ? 0 : 1;
}
