// A link that is cut: nobody is told, so it has to be noticed. The two machines have networks of
// their own where that is allowed; otherwise what is behind the cut is stopped.

#include <gtest/gtest.h>

#include <chrono>

#include "across-machines.h"

namespace {

using std::chrono::steady_clock;

constexpr const char* KEEP_ALIVE = "9";
constexpr std::chrono::milliseconds PROMISED{13500};  // 1.5 keep-alives

// A machine with a network of its own, at 10.9.N.2; the broker's is at 10.9.N.1.
class Network {
public:
    explicit Network(int number)
        : m_link("pelmar" + std::to_string(number)),
          m_holder({"unshare", "--net", "sh", "-c", "echo up; exec cat"})
    {
        const std::string subnet = "10.9." + std::to_string(number) + ".";
        const std::string peer = m_link + "p";
        m_holder.WaitForLine("up");
        RunToEnd(
            {"ip", "link", "add", m_link, "type", "veth", "peer", "name", peer, "netns", Pid()});
        RunToEnd({"ip", "address", "add", subnet + "1/24", "dev", m_link});
        RunToEnd({"ip", "link", "set", m_link, "up"});
        RunInside({"ip", "address", "add", subnet + "2/24", "dev", peer});
        RunInside({"ip", "link", "set", peer, "up"});
    }

    // The kernel takes its time to remove a network whose last process has ended, and the next test
    // wants a link of the same name.
    ~Network() { ChildProcess({"ip", "link", "delete", m_link}).WaitForEnd(); }
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    std::vector<std::string> Launcher() const { return {"nsenter", "--net", "-t", Pid()}; }
    void Cut() { RunToEnd({"ip", "link", "set", m_link, "down"}); }
    void Mend() { RunToEnd({"ip", "link", "set", m_link, "up"}); }

private:
    std::string Pid() const { return std::to_string(m_holder.Pid()); }
    void RunInside(const std::vector<std::string>& argv)
    {
        std::vector<std::string> command = Launcher();
        command.insert(command.end(), argv.begin(), argv.end());
        RunToEnd(command);
    }

    std::string m_link;
    ChildProcess m_holder;
};

class ALink : public AcrossMachines {
protected:
    ALink() : AcrossMachines("allow_anonymous true\n", "0.0.0.0") {}

    // What the bridges need to reach the broker, besides what is common.
    void Connect(const std::vector<std::string>& launcher_a, const std::string& host_a,
                 const std::vector<std::string>& launcher_b, const std::string& host_b)
    {
        m_attached = Start(m_bus_a, "--attach", launcher_a, host_a);
        m_offering = Start(m_bus_b, "--offer", launcher_b, host_b);
        m_client = std::make_unique<Peer>(m_bus_b, "client");
        WaitUntilWhole(*m_client);
    }

    void ExpectLostInTime()
    {
        const auto start = steady_clock::now();
        m_client->WaitUntilLost();
        EXPECT_LT(steady_clock::now() - start, PROMISED);
    }

    std::unique_ptr<Bridge> Start(const TestBus& bus, const std::string& side,
                                  const std::vector<std::string>& launcher, const std::string& host)
    {
        const std::vector<std::string> options{side,     "demo", "--keep-alive", KEEP_ALIVE,
                                               "--host", host,   "--allow-plain"};
        return std::make_unique<Bridge>(bus, m_broker, options, launcher);
    }

    Peer m_service{m_bus_a, "service"};
    std::unique_ptr<Bridge> m_attached;
    std::unique_ptr<Bridge> m_offering;
    std::unique_ptr<Peer> m_client;
};

TEST_F(ALink, IsFoundDeadWhenTheBrokerDoesNotAnswer)
{
    Connect({}, "127.0.0.1", {}, "127.0.0.1");
    m_broker.Process().Signal(SIGSTOP);
    ExpectLostInTime();
    m_broker.Process().Signal(SIGCONT);
    WaitUntilWhole(*m_client);
}

TEST_F(ALink, IsFoundDeadWhenTheServicesMachineIsCutOff)
{
    if (!HaveOwnNetwork())
        GTEST_SKIP() << "no network namespaces here";
    Network network_a(1);
    Network network_b(2);
    Connect(network_a.Launcher(), "10.9.1.1", network_b.Launcher(), "10.9.2.1");
    network_a.Cut();
    ExpectLostInTime();
    network_a.Mend();
    WaitUntilWhole(*m_client);
}

TEST_F(ALink, IsFoundDeadWhenTheClientsMachineIsCutOff)
{
    if (!HaveOwnNetwork())
        GTEST_SKIP() << "no network namespaces here";
    Network network_a(1);
    Network network_b(2);
    Connect(network_a.Launcher(), "10.9.1.1", network_b.Launcher(), "10.9.2.1");
    network_b.Cut();
    ExpectLostInTime();
    network_b.Mend();
    WaitUntilWhole(*m_client);
}

}  // namespace
