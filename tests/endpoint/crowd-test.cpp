// Many endpoints at once: they come through, quietly, and within the limits of a bus as it is
// shipped. PELMAR_CROWD sets how many there are; from 100 on the limit of rules is the stock one.

#include "captured-log.h"
#include "endpoint-fixture.h"
#include "endpoint-process.h"

namespace {

using testing::IsEmpty;

// ---- Processes -----------------------------------------------------------------------------

class ACrowdOfProcesses : public EndpointTest {};

TEST_F(ACrowdOfProcesses, StartsAtOneMomentWithoutAnythingThatGlibFindsCritical)
{
    constexpr std::size_t count = 8;
    setenv("G_DEBUG", "fatal-criticals", 1);
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (std::size_t i = 0; i < count; ++i)
        clients.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{PELMAR_ENDPOINT_PEER, "client", CHANNEL}));
    EndpointProcess service("service", CHANNEL);
    for (const auto& client : clients)
        client->WaitForLine("ready ");
    for (std::size_t i = 0; i < count; ++i)
        service.WaitForLine("ready ");
    service.WriteLine("notify 6e");
    EXPECT_EQ("ok", service.WaitForLine("status "));
    for (const auto& client : clients) {
        client->WaitForLine("notification 6e");
        client->WriteLine("quit");
        EXPECT_EQ(0, client->WaitForEnd());
        service.WaitForLine("lost ");
    }
    service.WriteLine("quit");
    EXPECT_EQ(0, service.WaitForEnd());
}

// ---- The log -------------------------------------------------------------------------------

class AStormInOneProcess : public EndpointTest {};

TEST_F(AStormInOneProcess, LogsNoError)
{
    constexpr std::size_t count = 20;
    std::vector<std::unique_ptr<End>> clients;
    std::vector<std::thread> starts;
    for (std::size_t i = 0; i < count; ++i)
        clients.push_back(std::make_unique<End>(Role::client));
    for (const auto& client : clients)
        starts.emplace_back([&client] { client->endpoint.Start(); });
    Start(Role::service);
    for (std::thread& start : starts)
        start.join();
    m_news.Await("ready ", count);
    for (const auto& client : clients)
        client->news.Await("ready ");
    clients.clear();
    m_news.Await("lost ", count);
    EXPECT_EQ(0U, m_news.Count("problem"));
    EXPECT_THAT(CapturedLog(), IsEmpty());
}

// ---- The limit of match rules --------------------------------------------------------------

std::size_t CrowdSize()
{
    return static_cast<std::size_t>(Scale("PELMAR_CROWD", 30));
}

class ACrowdOfClients : public EndpointTest {
protected:
    static constexpr std::size_t PER_PROCESS = 10;

    ACrowdOfClients()
        : EndpointTest("<limit name=\"max_match_rules_per_connection\">" +
                       std::string(CrowdSize() < 100 ? "40" : "512") +
                       "</limit><limit name=\"max_connections_per_user\">2000</limit>"
                       "<limit name=\"max_completed_connections\">2000</limit>")
    {
    }

    std::vector<std::unique_ptr<ChildProcess>> m_processes;
};

TEST_F(ACrowdOfClients, FitsIntoTheLimitOfMatchRulesAndEachLossIsTold)
{
    const std::size_t count = CrowdSize() / PER_PROCESS * PER_PROCESS;
    Start(Role::service);
    while (m_processes.size() * PER_PROCESS < count)
        m_processes.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{
            PELMAR_ENDPOINT_CROWD, "client", CHANNEL, std::to_string(PER_PROCESS)}));
    for (const auto& process : m_processes) {
        for (std::size_t i = 0; i < PER_PROCESS; ++i)
            process->WaitForLine("ready ");
    }
    m_news.Await("ready ", count);
    EXPECT_EQ(count, m_endpoint->Partners().size());
    // Some leave the channel, and the processes of others end.
    m_processes.front()->WriteLine("stop 0");
    m_processes.front()->WaitForLine("stopped 0");
    m_news.Await("lost ");
    EXPECT_EQ(count - 1, m_endpoint->Partners().size());
    for (std::size_t i = 1; i < m_processes.size(); ++i)
        m_processes[i]->Kill();
    m_news.Await("lost ", 1 + count - PER_PROCESS);
    m_processes.front()->Kill();
    m_news.Await("lost ", count);
    EXPECT_THAT(m_endpoint->Partners(), IsEmpty());
    EXPECT_EQ(count, m_news.Count("ready "));
    EXPECT_THAT(m_news.Problems(), IsEmpty());
}

}  // namespace
