// Stop takes no longer than what it was given and the handler that runs, whatever bus, daemon and
// partners do; and everybody who waits is told.

#include <future>

#include "endpoint-fixture.h"
#include "endpoint-process.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr milliseconds FLUSH{200};

// What else a stop costs, also on a busy machine.
constexpr milliseconds SLACK{2500};

class ABoundedStop : public EndpointTest {
protected:
    void ExpectStopIn(milliseconds most)
    {
        const auto start = Clock::now();
        EXPECT_TRUE(m_endpoint->Stop(FLUSH));
        EXPECT_LT(Clock::now() - start, most + SLACK);
    }
};

TEST_F(ABoundedStop, WaitsForOneSlowHandlerAndNotForThoseThatFollow)
{
    constexpr milliseconds handling{300};
    Make(Role::service);
    std::atomic<int> handled{0};
    m_endpoint->OnMessage([&](Message&) {
        ++handled;
        WakeTest();
        std::this_thread::sleep_for(handling);
        return Bytes();
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    std::map<Status, int> told;
    std::mutex mutex;
    for (int i = 0; i < 20; ++i)
        client.endpoint.Request(service, {}, seconds(20), [&](const Response& response) {
            const std::lock_guard<std::mutex> lock(mutex);
            ++told[response.status];
            WakeTest();
        });
    IterateUntil([&] { return handled != 0; }, "the first handler");
    ExpectStopIn(handling + FLUSH);
    EXPECT_LE(handled, 2);
    const auto count = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return told[Status::ok] + told[Status::partner_lost];
    };
    IterateUntil([&] { return count() == 20; }, "all requests to be told that they are lost");
    EXPECT_LE(told[Status::ok], handled);
}

TEST_F(ABoundedStop, TellsTheDoneOfEveryOpenRequestOnceInTheCallersThread)
{
    Start();
    EndpointProcess process("client", CHANNEL);
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    process.Signal(SIGSTOP);
    std::vector<int> told(50, 0);
    for (std::size_t i = 0; i < told.size(); ++i)
        m_endpoint->Request(partner, {}, seconds(20),
                            [&, i, caller = std::this_thread::get_id()](const Response& response) {
                                EXPECT_EQ(Status::stopped, response.status);
                                EXPECT_EQ(caller, std::this_thread::get_id());
                                ++told[i];
                            });
    auto waiting = std::async(std::launch::async,
                              [&] { return m_endpoint->Request(partner, {}, seconds(20)).status; });
    ExpectStopIn(FLUSH);
    EXPECT_EQ(std::vector<int>(50, 1), told);
    EXPECT_EQ(Status::stopped, waiting.get());
    process.Signal(SIGCONT);
}

TEST_F(ABoundedStop, IsNotHeldUpByAStalledPartner)
{
    Start();
    EndpointProcess process("client", CHANNEL);
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    process.Signal(SIGSTOP);
    while (m_endpoint->Notify(partner, Bytes(100000)) == Status::ok) {
    }
    ExpectStopIn(FLUSH);
    process.Signal(SIGCONT);
}

TEST_F(ABoundedStop, EndsWithAStoppedDaemonWhateverIsUnderWay)
{
    Start();
    End client(Role::client);
    client.endpoint.Start();
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    m_bus.Daemon().Signal(SIGSTOP);
    while (m_endpoint->Notify(partner, Bytes(100000)) == Status::ok) {
    }
    int told = 0;
    for (int i = 0; i < 10; ++i)
        client.endpoint.Request(client.endpoint.Partners().front(), {}, seconds(20),
                                [&](const Response&) { ++told; });
    ExpectStopIn(FLUSH);
    const auto start = Clock::now();
    EXPECT_TRUE(client.endpoint.Stop(FLUSH));
    EXPECT_LT(Clock::now() - start, FLUSH + SLACK);
    EXPECT_EQ(10, told);
    m_bus.Daemon().Signal(SIGCONT);
}

TEST_F(ABoundedStop, EndsInTheMiddleOfAHandshake)
{
    Start();
    BusActor partner(m_bus);
    ServeAnything(partner);
    partner.Pulse(Peers(names::SYN));
    m_bus.Daemon().Signal(SIGSTOP);
    ExpectStopIn(FLUSH);
    m_bus.Daemon().Signal(SIGCONT);
}

TEST_F(ABoundedStop, EndsAStartThatADaemonDoesNotAnswer)
{
    m_bus.Daemon().Signal(SIGSTOP);
    Make(Role::service);
    auto start = std::async(std::launch::async, [&] {
        try {
            m_endpoint->Start();
        } catch (const std::logic_error&) {
            m_news.Add("stopped before");
        }
    });
    EXPECT_EQ(std::future_status::timeout, start.wait_for(milliseconds(200)));
    ExpectStopIn(FLUSH);
    start.get();
    EXPECT_FALSE(m_endpoint->IsOnBus());
    m_bus.Daemon().Signal(SIGCONT);
}

TEST_F(ABoundedStop, MayComeAtAnyMomentOfAStart)
{
    for (int round = 0; round < 50; ++round) {
        Make(round % 2 == 0 ? Role::service : Role::client);
        std::thread start([&] {
            try {
                m_endpoint->Start();
            } catch (const std::logic_error&) {  // stopped before
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
        ExpectStopIn(FLUSH);
        start.join();
    }
}

TEST_F(ABoundedStop, LetsWhatWasNotifiedJustBeforeArrive)
{
    for (int round = 0; round < 20; ++round) {
        Start();
        End client(Role::client);
        client.endpoint.Start();
        const Partner service = client.AwaitPartner();
        const std::string name = client.endpoint.Name();
        m_news.Await("ready " + name);
        m_news.Clear();
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(Status::ok, client.endpoint.Notify(service, Bytes(10000, 'x')));
        EXPECT_TRUE(client.endpoint.Stop());
        m_news.Await("lost " + name);
        EXPECT_EQ(100U, m_news.Count("notification "));
        m_endpoint.reset();
        m_news.Clear();
    }
}

TEST_F(ABoundedStop, TellsTheCallersOfDeferredMessagesThatItLeft)
{
    Make(Role::service);
    std::vector<PelmarEndpoint::Reply> replies;
    m_endpoint->OnDeferredMessage([&](Message&, PelmarEndpoint::Reply reply) {
        replies.push_back(std::move(reply));
        m_news.Add("deferred");
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    for (int i = 0; i < 5; ++i)
        client.endpoint.Request(service, {}, seconds(20), [&](const Response& response) {
            client.news.Add(std::string("done ") + PelmarEndpoint::ToString(response.status));
        });
    m_news.Await("deferred", 5);
    EXPECT_TRUE(replies.front().IsWanted());
    ExpectStopIn(FLUSH);
    EXPECT_FALSE(replies.front().IsWanted());
    client.news.Await("done " + std::string(PelmarEndpoint::ToString(Status::partner_lost)), 5);
    m_endpoint.reset();
    replies.front().Send({});
    EXPECT_FALSE(replies.front().IsWanted());
}

// What is sent to a stopped daemon cannot leave.
TEST_F(ABoundedStop, IsAsPatientAsTheLeastPatientOfTwo)
{
    Start();
    BusActor partner(m_bus);
    MakeReady(partner);
    m_bus.Daemon().Signal(SIGSTOP);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(partner), {}));
    auto patient = std::async(std::launch::async, [this] { return m_endpoint->Stop(seconds(50)); });
    IterateUntil([this] { return m_endpoint->Name().empty(); }, "the first of them");
    ExpectStopIn(FLUSH);
    EXPECT_TRUE(patient.get());
    m_bus.Daemon().Signal(SIGCONT);
}

}  // namespace
