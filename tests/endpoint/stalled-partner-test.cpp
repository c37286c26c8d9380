// Partners that stop to read or to answer: what they cost, and that the others notice nothing.

#include "endpoint-fixture.h"
#include "endpoint-process.h"
#include "process-memory.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t WINDOW = 8 * MIB;

// Longer than anything takes that nobody holds up, also on a busy machine.
constexpr seconds PROMPT{20};

class AStalledPartner : public EndpointTest {
protected:
    AStalledPartner()
    {
        Start();
        m_healthy.endpoint.OnMessage([](Message& message) { return std::move(message.data); });
        m_healthy.endpoint.OnNotification([this](Message& message) {
            m_healthy.news.Add("notification of " + std::to_string(message.data.size()));
        });
        m_healthy.endpoint.Start();
        m_to_healthy = AwaitReady(m_healthy.endpoint.Name());
        m_from_healthy = m_healthy.AwaitPartner();
    }
    ~AStalledPartner() override
    {
        for (const auto& process : m_stalled)
            process->Signal(SIGCONT);
    }

    Partner AwaitReady(const std::string& name) const
    {
        m_news.Await("ready " + name);
        return m_news.PartnerNamed(name);
    }

    // A process that became ready and was stopped then.
    Partner Stall()
    {
        const std::size_t known = m_endpoint->Partners().size();
        auto process = std::make_unique<EndpointProcess>("client", CHANNEL);
        process->WaitForLine("ready ");
        IterateUntil([&] { return m_endpoint->Partners().size() == known + 1; }, "the partner");
        AwaitItsWay(m_endpoint->Partners().back());
        process->Signal(SIGSTOP);
        process->WaitUntilStopped();
        m_stalled.push_back(std::move(process));
        return m_endpoint->Partners().back();
    }

    // A full window has room again when the partner has said that it has dealt with what it was
    // sent.
    Response RequestOfHealthy(const Bytes& data)
    {
        const auto start = std::chrono::steady_clock::now();
        Response response;
        do
            response = m_endpoint->Request(m_to_healthy, data, PROMPT);
        while (response.status == Status::queue_full &&
               std::chrono::steady_clock::now() - start < PROMPT);
        return response;
    }

    void ExpectHealthyTrafficToBePrompt(std::size_t size = 100)
    {
        const Bytes data(size, 'x');
        const Response there = RequestOfHealthy(data);
        EXPECT_EQ(Status::ok, there.status) << there.error;
        EXPECT_EQ(size, there.data.size());
        const Response back = m_healthy.endpoint.Request(m_from_healthy, data, PROMPT);
        EXPECT_EQ(Status::ok, back.status) << back.error;
        EXPECT_EQ(Status::ok, m_endpoint->Notify(m_to_healthy, {}));
        m_healthy.news.Await("notification of 0", ++m_notified);
    }

    std::size_t Fill(const Partner& partner, std::size_t size)
    {
        std::size_t taken = 0;
        while (taken < 100000 && m_endpoint->Notify(partner, Bytes(size, 'x')) == Status::ok)
            ++taken;
        return taken;
    }

    static void ExpectGrowthOf(const ProcessMemory& memory, std::size_t before, std::size_t most)
    {
        if (MEMORY_IS_MEASURED) {
            EXPECT_LE(memory.Peak() / MIB, (before + most) / MIB) << "MiB";
        }
    }

    ProcessMemory m_memory;
    End m_healthy{Role::client};
    Partner m_to_healthy;
    Partner m_from_healthy;
    std::vector<std::unique_ptr<EndpointProcess>> m_stalled;

private:
    std::size_t m_notified = 0;
};

TEST_F(AStalledPartner, HasItsWindowFilledAndNoMore)
{
    const Partner stalled = Stall();
    const std::size_t before = m_memory.Resident();
    m_memory.ForgetPeak();
    const std::size_t taken = Fill(stalled, 100000);
    EXPECT_LE(taken * 100000, WINDOW + OF_THE_SOCKET);
    EXPECT_GT(taken * 100000, WINDOW / 2);
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(Status::queue_full, m_endpoint->Notify(stalled, Bytes(100000)));
    ExpectHealthyTrafficToBePrompt();
    ExpectGrowthOf(m_memory, before, WINDOW + 8 * MIB);
}

TEST_F(AStalledPartner, HasItsOpenRequestsCountedAgainstItsWindow)
{
    const Partner stalled = Stall();
    std::map<Status, int> told;
    std::mutex mutex;
    const auto count = [&](Status status) {
        const std::lock_guard<std::mutex> lock(mutex);
        return told[status];
    };
    for (int i = 0; i < 20; ++i)
        m_endpoint->Request(stalled, Bytes(MIB), seconds(2), [&](const Response& response) {
            const std::lock_guard<std::mutex> lock(mutex);
            ++told[response.status];
            WakeTest();
        });
    EXPECT_EQ(Status::queue_full, m_endpoint->Notify(stalled, Bytes(MIB)));
    ExpectHealthyTrafficToBePrompt();
    IterateUntil([&] { return count(Status::timeout) + count(Status::queue_full) == 20; },
                 "the end of the requests");
    EXPECT_EQ(7, count(Status::timeout));
    // What has not left leaves no more; what has is counted until it is answered.
    EXPECT_EQ(Status::ok, m_endpoint->Notify(stalled, Bytes(6 * MIB)));
    EXPECT_EQ(Status::queue_full, m_endpoint->Notify(stalled, Bytes(MIB)));
    ExpectHealthyTrafficToBePrompt();
}

TEST_F(AStalledPartner, DoesNotHaveLargeRequestsPileUpInMemory)
{
    const Partner stalled = Stall();
    const std::size_t before = m_memory.Resident();
    m_memory.ForgetPeak();
    std::atomic<int> told{0};
    for (int i = 0; i < 40; ++i) {
        m_endpoint->Request(stalled, Bytes(WINDOW, 'x'), milliseconds(100), [&](const Response&) {
            ++told;
            WakeTest();
        });
        ExpectHealthyTrafficToBePrompt();
    }
    IterateUntil([&] { return told == 40; }, "the end of all requests");
    ExpectGrowthOf(m_memory, before, WINDOW + WINDOW + 8 * MIB);
}

TEST_F(AStalledPartner, TakesNoCallsFromTheOthersByRequestsThatTimeOut)
{
    const Partner stalled = Stall();
    std::atomic<int> told{0};
    for (int i = 0; i < 300; ++i)
        m_endpoint->Request(stalled, {}, milliseconds(100), [&](const Response& response) {
            EXPECT_EQ(Status::timeout, response.status);
            ++told;
            WakeTest();
        });
    ExpectHealthyTrafficToBePrompt();
    IterateUntil([&] { return told == 300; }, "the end of all requests");
    ExpectHealthyTrafficToBePrompt();
}

TEST_F(AStalledPartner, LeavesCallsToTheOthersAlsoWhereManyHaveRequestsThatTimeOut)
{
    std::atomic<int> told{0};
    for (int i = 0; i < 24; ++i) {
        const Partner stalled = Stall();
        for (int j = 0; j < 30; ++j)
            m_endpoint->Request(stalled, {}, milliseconds(100), [&](const Response&) {
                ++told;
                WakeTest();
            });
    }
    IterateUntil([&] { return told == 24 * 30; }, "the end of all requests");
    ExpectHealthyTrafficToBePrompt();
}

TEST_F(AStalledPartner, IsToldOfRoomAndGetsEverythingInOrderWhenItGoesOn)
{
    const Partner stalled = Stall();
    int taken = 0;
    while (m_endpoint->Notify(stalled, Bytes(10000, static_cast<char>(taken))) == Status::ok)
        ++taken;
    EXPECT_GT(taken, 500);
    EXPECT_EQ(0U, m_news.Count("room"));
    ChildProcess& process = *m_stalled.front();
    process.Signal(SIGCONT);
    char digits[3];
    for (int i = 0; i < taken; ++i) {
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(i) & 0xffU);
        ASSERT_EQ(digits, process.WaitForLine("notification ").substr(0, 2)) << "at " << i;
    }
    m_news.Await("room " + stalled.Name());
    EXPECT_EQ(Status::ok, m_endpoint->Notify(stalled, BytesOf("more")));
    EXPECT_EQ("", process.WaitForLine("notification 6d6f7265"));
    EXPECT_EQ(1U, m_news.Count("room"));
}

TEST_F(AStalledPartner, DoesNotHoldUpTheOthersAlsoWhenThereAreManyOfThemWithLargeMessages)
{
    for (int i = 0; i < 12; ++i)
        Stall();
    const std::size_t before = m_memory.Resident();
    m_memory.ForgetPeak();
    const PelmarEndpoint::Broadcast first = m_endpoint->NotifyAll(Bytes(WINDOW, 'x'));
    EXPECT_EQ(13U, first.sent);
    EXPECT_THAT(first.missed, testing::IsEmpty());
    m_healthy.news.Await("notification of " + std::to_string(WINDOW));
    EXPECT_EQ(Status::ok, RequestOfHealthy({}).status);
    const PelmarEndpoint::Broadcast second = m_endpoint->NotifyAll(Bytes(WINDOW, 'x'));
    EXPECT_EQ(12U, second.missed.size());
    for (const PelmarEndpoint::Missed& missed : second.missed)
        EXPECT_EQ(Status::queue_full, missed.status);
    // All of them hold the same bytes; what is on its way to the daemon is a copy.
    ExpectGrowthOf(m_memory, before, 10 * WINDOW);
    ExpectHealthyTrafficToBePrompt();
    ExpectHealthyTrafficToBePrompt(MIB);
    ExpectHealthyTrafficToBePrompt(PelmarEndpoint::MAX_BUS_MESSAGE_BYTES);
}

TEST_F(AStalledPartner, KeepsNobodyFromBecomingReady)
{
    // Their main loops stand after the SYN.
    std::vector<std::unique_ptr<BusActor>> hanging;
    for (int i = 0; i < 20; ++i) {
        hanging.push_back(std::make_unique<BusActor>(m_bus));
        ServeAnything(*hanging.back());
        hanging.back()->Pulse(Peers(names::SYN));
    }
    End late(Role::client);
    const auto start = std::chrono::steady_clock::now();
    late.endpoint.Start();
    late.AwaitPartner();
    while (m_endpoint->Partners().size() < 2)
        ASSERT_LT(std::chrono::steady_clock::now() - start, PROMPT);
    EXPECT_EQ(late.endpoint.Name(), m_endpoint->Partners().back().Name());
}

// ---- A slow receiver -----------------------------------------------------------------------

TEST_F(EndpointTest, LosesNothingOfManySendersThatWaitForRoom)
{
    constexpr int senders = 3;
    constexpr int count = 50;
    Make(Role::service);
    std::atomic<int> received{0};
    std::map<Partner, char> next;
    m_endpoint->OnNotification([&](Message& message) {
        std::this_thread::sleep_for(milliseconds(2));
        EXPECT_EQ(MIB, message.data.size());
        EXPECT_EQ(next[message.from]++, message.data.front());
        ++received;
        WakeTest();
    });
    m_endpoint->Start();
    std::vector<std::thread> threads;
    for (int i = 0; i < senders; ++i)
        threads.emplace_back([] {
            End sender(Role::client);
            sender.endpoint.Start();
            const Partner service = sender.AwaitPartner();
            for (std::size_t number = 0; number < count; ++number) {
                const Bytes data(MIB, static_cast<char>(number));
                while (true) {
                    const std::size_t rooms = sender.news.Count("room");
                    const Status status = sender.endpoint.Notify(service, data);
                    if (status == Status::ok)
                        break;
                    ASSERT_EQ(Status::queue_full, status);
                    while (sender.news.Count("room") == rooms)
                        std::this_thread::yield();
                }
            }
            EXPECT_TRUE(sender.endpoint.Stop(TEST_DEADLINE));
        });
    IterateUntil([&] { return received == senders * count; }, "all notifications");
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0U, m_news.Count("problem"));
}

}  // namespace
