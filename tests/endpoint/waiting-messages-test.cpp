// Messages that wait for the handlers: how many may, and what their sender can take from the answer
// to its question.

#include <condition_variable>
#include <cstring>

#include "captured-log.h"
#include "endpoint-fixture.h"

namespace {

using std::chrono::seconds;
using testing::ElementsAre;

constexpr std::size_t KIB = 1024;

class MessagesThatWait : public EndpointTest {
protected:
    MessagesThatWait() { Make(Role::service); }
    ~MessagesThatWait() override
    {
        Release();
        m_endpoint.reset();
    }

    // The first handler that runs is left only after Release.
    void StartWithBlockedHandlers()
    {
        const auto handle = [this] {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_released.wait(lock, [this] { return m_may_run; });
            ++m_handled;
            WakeTest();
        };
        m_endpoint->OnNotification([handle](Message&) { handle(); });
        m_endpoint->OnMessage([handle](Message&) {
            handle();
            return Bytes();
        });
        m_endpoint->Start();
    }
    void Release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_may_run = true;
        m_released.notify_all();
    }

    std::atomic<int> m_handled{0};

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_may_run = false;
};

TEST_F(MessagesThatWait, AreRefusedAboveTheIntakeAndThatIsReportedOnce)
{
    constexpr std::size_t count = 30;
    constexpr std::size_t size = 100 * KIB;
    m_endpoint->SetIntake(1024 * KIB);
    StartWithBlockedHandlers();
    // It heeds no window.
    BusActor plain(m_bus);
    MakeReady(plain);
    std::vector<std::shared_ptr<BusActor::Call>> calls;
    for (std::size_t i = 0; i < count; ++i)
        calls.push_back(plain.Send(OwnName(), CHANNEL, Bytes(size)));
    const auto refused = [&] {
        return std::count_if(calls.begin(), calls.end(),
                             [](const auto& call) { return !call->error.empty(); });
    };
    IterateUntil([&] { return !calls.back()->error.empty(); }, "the last call to be refused");
    // Ten wait, and one is being handled.
    EXPECT_EQ(19, refused());
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded", calls.back()->error);
    EXPECT_EQ(0, m_handled);
    Release();
    IterateUntil([&] { return m_handled == 11; }, "the handlers of the others");
    const auto is_done = [](const auto& call) { return call->Done(); };
    IterateUntil([&] { return std::all_of(calls.begin(), calls.end(), is_done); }, "all answers");
    EXPECT_EQ(19, refused());
    m_news.Await("problem ");
    EXPECT_THAT(m_news.Problems(), ElementsAre(PelmarEndpoint::Problem::intake_full));
    EXPECT_EQ(1U, ErrorsWith("messages come in faster"));
}

// Each knows to find room, also where others take more than there is.
TEST_F(MessagesThatWait, OfEndpointsAreNeverRefusedHoweverSmallTheIntakeIs)
{
    constexpr int count = 12;
    m_endpoint->SetIntake(1);
    StartWithBlockedHandlers();
    std::vector<std::unique_ptr<End>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<End>(Role::client));
        clients.back()->endpoint.Start();
    }
    m_news.Await("ready ", clients.size());
    std::atomic<int> answered{0};
    for (const auto& client : clients) {
        const Partner service = client->AwaitPartner();
        for (int i = 0; i < count; ++i)
            client->endpoint.Request(service, Bytes(100 * KIB), seconds(15),
                                     [&](const Response& response) {
                                         EXPECT_EQ(Status::ok, response.status) << response.error;
                                         ++answered;
                                         WakeTest();
                                     });
    }
    BusActor stranger(m_bus);
    ASSERT_TRUE(AskForProperties(stranger, OwnName()));
    EXPECT_EQ(0, answered);
    Release();
    IterateUntil([&] { return answered == 3 * count; }, "all answers");
    EXPECT_EQ(3 * count, m_handled);
}

TEST_F(MessagesThatWait, AreDealtWithBeforeAQuestionOfTheirSenderIsAnswered)
{
    StartWithBlockedHandlers();
    BusActor partner(m_bus);
    MakeReady(partner);
    for (int i = 0; i < 2; ++i)
        partner.Emit(OwnName(), names::Path(CHANNEL), "SendSignal", BusActor::Body({}));
    const auto call = partner.Send(OwnName(), CHANNEL, {});
    struct Answer {
        const std::atomic<int>& handled;
        int handled_before = -1;
    } answer{m_handled};
    const auto note = [](GObject* connection, GAsyncResult* result, gpointer held) {
        GVariant* reply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr);
        auto& told = *static_cast<Answer*>(held);
        told.handled_before = told.handled;
        ASSERT_NE(nullptr, reply);
        g_variant_unref(reply);
    };
    g_dbus_connection_call(partner.Connection(), OwnName().c_str(), names::Path(CHANNEL).c_str(),
                           "org.freedesktop.DBus.Properties", "GetAll",
                           g_variant_new("(s)", names::INTERFACE.c_str()), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, note, &answer);
    partner.Settle();
    // Others are not concerned.
    const BusActor stranger(m_bus);
    ASSERT_TRUE(AskForProperties(stranger, OwnName()));
    partner.Settle();
    DispatchPending();
    EXPECT_EQ(-1, answer.handled_before);
    Release();
    IterateUntil([&] { return answer.handled_before != -1; }, "the answer to the question");
    EXPECT_EQ(3, answer.handled_before);
    IterateUntil([&] { return call->Done(); }, "the answer to the call");
}

// An answer leaves together with what is ahead of it, and who is answered may send at once.
TEST_F(EndpointTest, LosesNoNotificationsOfAPartnerThatItAsksMeanwhile)
{
    constexpr int count = 200;
    Make(Role::service);
    m_endpoint->SetIntake(1000 * KIB);
    std::atomic<int> next{0};
    m_endpoint->OnNotification([&](Message& message) {
        int number = 0;
        std::memcpy(&number, message.data.data(), sizeof(number));
        EXPECT_EQ(next, number);
        next = number + 1;
        WakeTest();
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    std::thread asks([&] {
        while (next < count)
            EXPECT_EQ(Status::ok, m_endpoint->Request(partner, {}, seconds(20)).status);
    });
    for (int number = 0; number < count; ++number) {
        Bytes data(600 * KIB);
        std::memcpy(data.data(), &number, sizeof(number));
        while (client.endpoint.Notify(service, data) == Status::queue_full)
            std::this_thread::yield();
    }
    IterateUntil([&] { return next == count; }, "all notifications");
    asks.join();
    EXPECT_THAT(m_news.Problems(), testing::IsEmpty());
}

}  // namespace
