// Handlers: where they run, in which order, and what they may and may not do.

#include <dirent.h>

#include <csignal>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <unordered_set>

#include "captured-log.h"
#include "endpoint-fixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr seconds LONG{20};

// ---- When they are set ---------------------------------------------------------------------

class AStartedEndpoint : public EndpointTest {};

TEST_F(AStartedEndpoint, TakesNoHandlersAndSettingsAnyMore)
{
    Start();
    EXPECT_THROW(m_endpoint->OnMessage(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnDeferredMessage(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnNotification(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnReady(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnLost(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnRoom(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnBusLost(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnBusBack(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->OnProblem(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->RunHandlersIn(nullptr), std::logic_error);
    EXPECT_THROW(m_endpoint->RunHandlersIn([](const std::function<void()>&) {}), std::logic_error);
    EXPECT_THROW(m_endpoint->SetWindow(1), std::logic_error);
    EXPECT_THROW(m_endpoint->SetIntake(1), std::logic_error);
    EXPECT_THROW(m_endpoint->SetDirectPath(false), std::logic_error);
    EXPECT_THROW(m_endpoint->SetBusAddress(""), std::logic_error);
    EXPECT_THROW(m_endpoint->ExitWhenBusDies(true), std::logic_error);
}

TEST_F(AStartedEndpoint, IsStartedOnceAndNotAfterItsEnd)
{
    Start();
    EXPECT_THROW(m_endpoint->Start(), std::logic_error);
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_THROW(m_endpoint->Start(), std::logic_error);
    Make(Role::client);
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_THROW(m_endpoint->Start(), std::logic_error);
}

// The signals that each of those threads blocks, as far as they are found: a thread that ends
// meanwhile may hide others.
std::map<std::string, std::uint64_t> SignalsBlockedBy(const std::set<std::string>& names)
{
    std::map<std::string, std::uint64_t> blocked;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = readdir(tasks)) {
        std::ifstream status("/proc/self/task/" + std::string(task->d_name) + "/status");
        std::string word;
        std::string name;
        while (status >> word) {
            if (word == "Name:")
                status >> name;
            if (word == "SigBlk:" && names.count(name) != 0)
                status >> std::hex >> blocked[name];
        }
    }
    closedir(tasks);
    return blocked;
}

TEST_F(AStartedEndpoint, HasThreadsWithNamesThatLeaveTheSignalsToTheApplication)
{
    Start();
    std::map<std::string, std::uint64_t> blocked;
    IterateUntil(
        [&] {
            blocked = SignalsBlockedBy({"pelmar-io", "pelmar-handler"});
            WakeTest();
            return blocked.size() == 2;
        },
        "both threads");
    for (const auto& [name, mask] : blocked) {
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM})
            EXPECT_NE(0U, mask & (std::uint64_t{1} << (signal - 1))) << name << " " << signal;
        for (const int signal : {SIGSEGV, SIGBUS, SIGABRT})
            EXPECT_EQ(0U, mask & (std::uint64_t{1} << (signal - 1))) << name << " " << signal;
    }
}

TEST_F(AStartedEndpoint, LeavesTheCallersSignalMaskAlone)
{
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    Start();
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMIN; ++signal)
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
}

class AnEndpointBeforeStart : public EndpointTest {};

TEST_F(AnEndpointBeforeStart, IsNotOnTheBusAndTellsNothing)
{
    Make(Role::service);
    EXPECT_FALSE(m_endpoint->IsOnBus());
    EXPECT_EQ("", m_endpoint->Name());
    EXPECT_EQ(Status::bus_gone, m_endpoint->Notify({}, {}));
    EXPECT_EQ(Status::bus_gone, m_endpoint->Request({}, {}, LONG).status);
    m_endpoint->Request({}, {}, LONG, [this](const Response& response) {
        m_news.Add(PelmarEndpoint::ToString(response.status));
    });
    EXPECT_EQ(std::nullopt, m_endpoint->WaitForPartner(In(milliseconds(10))));
    DispatchPending();
    EXPECT_THAT(m_news.All(), IsEmpty()) << "no handler runs before Start";
    m_endpoint->Start();
    m_news.Await(PelmarEndpoint::ToString(Status::bus_gone));
}

TEST_F(AnEndpointBeforeStart, MayBeStoppedAndTellsWhatItOwes)
{
    Make(Role::service);
    int told = 0;
    m_endpoint->Request({}, {}, LONG, [&](const Response&) { ++told; });
    EXPECT_TRUE(m_endpoint->Stop());
    EXPECT_EQ(1, told);
}

// ---- Partners ------------------------------------------------------------------------------

class APartner : public EndpointTest {};

TEST_F(APartner, IsAValueThatIsComparedSortedAndHashed)
{
    Start();
    std::vector<std::unique_ptr<BusActor>> actors;
    std::vector<Partner> partners;
    for (int i = 0; i < 12; ++i) {
        actors.push_back(std::make_unique<BusActor>(m_bus));
        MakeReady(*actors.back());
        partners.push_back(PartnerOf(*actors.back()));
    }
    EXPECT_EQ(partners, m_endpoint->Partners());
    EXPECT_TRUE(std::is_sorted(partners.begin(), partners.end())) << "in the order of meeting";
    const std::unordered_set<Partner> hashed(partners.begin(), partners.end());
    EXPECT_EQ(partners.size(), hashed.size());
    const Partner copy = m_endpoint->Partners()[3];
    EXPECT_EQ(1U, hashed.count(copy));
    EXPECT_EQ(partners[3], copy);
    EXPECT_NE(partners[4], copy);
    EXPECT_FALSE(copy < partners[3]);
    EXPECT_FALSE(copy.IsDirect());
    m_endpoint.reset();
    EXPECT_EQ(actors[3]->UniqueName(), copy.Name());
    EXPECT_FALSE(copy.IsReady());
}

TEST_F(APartner, IsNobodyWhenItIsMadeOfNothing)
{
    const Partner nobody;
    EXPECT_EQ(nobody, Partner());
    EXPECT_EQ("", nobody.Name());
    EXPECT_FALSE(nobody.IsReady());
    EXPECT_FALSE(nobody.IsDirect());
    EXPECT_EQ(std::nullopt, nobody.Uid());
    EXPECT_EQ(std::nullopt, nobody.Pid());
    EXPECT_FALSE(nobody < Partner());
    EXPECT_EQ(nobody.Hash(), Partner().Hash());
    Start();
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify(nobody, {}));
}

TEST_F(APartner, IsKnownByUserAndProcessInOnReadyAndInEveryMessage)
{
    Make(Role::service);
    const auto note = [this](const std::string& what, const Partner& partner) {
        EXPECT_EQ(getuid(), partner.Uid()) << what;
        EXPECT_EQ(getpid(), partner.Pid()) << what;
        m_news.Add(what);
    };
    m_endpoint->OnReady([&](const Partner& partner) {
        EXPECT_TRUE(partner.IsReady());
        note("ready", partner);
    });
    m_endpoint->OnMessage([&](Message& message) {
        note(message.from.IsReady() ? "message" : "message of a stranger", message.from);
        return Bytes();
    });
    m_endpoint->OnNotification([&](Message& message) { note("notification", message.from); });
    m_endpoint->Start();
    BusActor stranger(m_bus);
    const auto call = stranger.Send(OwnName(), CHANNEL, {});
    IterateUntil([&] { return call->Done(); }, "the answer to a stranger");
    m_news.Await("message of a stranger");
    End client(Role::client);
    client.endpoint.OnReady([&](const Partner& partner) {
        client.endpoint.Notify(partner, {});
        client.endpoint.Request(partner, {}, LONG, nullptr);
    });
    client.endpoint.Start();
    m_news.Await("message", 2);
    EXPECT_THAT(m_news.All(),
                ElementsAre("message of a stranger", "ready", "notification", "message"));
}

// ---- Where they run ------------------------------------------------------------------------

class AHandlersPlace : public EndpointTest {
protected:
    void ExpectOrderOfALife(End& client)
    {
        m_news.Await("ready ");
        client.news.Await("ready ");
        const Partner service = client.endpoint.Partners().front();
        EXPECT_EQ(Status::ok, client.endpoint.Notify(service, BytesOf("1")));
        EXPECT_EQ(Status::ok, client.endpoint.Notify(service, BytesOf("2")));
        client.endpoint.Request(service, BytesOf("3"), LONG, nullptr);
        EXPECT_EQ(Status::ok, client.endpoint.Notify(service, BytesOf("4")));
        const std::string name = client.endpoint.Name();
        m_news.Await("notification 4");
        client.endpoint.Stop();
        m_news.Await("lost ");
        m_bus.Kill();
        m_news.Await("bus_lost");
        EXPECT_THAT(m_news.All(),
                    ElementsAre("ready " + name, "notification 1", "notification 2", "message 3",
                                "notification 4", "lost " + name, "bus_lost"));
    }
};

TEST_F(AHandlersPlace, IsAContextWhenThatIsWanted)
{
    Make(Role::service);
    m_endpoint->RunHandlersIn(nullptr);
    const auto test = std::this_thread::get_id();
    m_endpoint->OnReady([&](const Partner& partner) {
        EXPECT_EQ(test, std::this_thread::get_id());
        EXPECT_FALSE(m_endpoint->Stop());
        m_news.AddReady(partner);
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    client.AwaitPartner();
    EXPECT_THAT(m_news.All(), IsEmpty()) << "nobody has iterated the context";
    ExpectOrderOfALife(client);
}

TEST_F(AHandlersPlace, IsAContextOfAThreadOfTheApplication)
{
    GMainContext* context = g_main_context_new();
    std::atomic<bool> over{false};
    std::promise<std::thread::id> id;
    std::thread thread([&] {
        id.set_value(std::this_thread::get_id());
        while (!over)
            g_main_context_iteration(context, TRUE);
    });
    const auto expected = id.get_future().get();
    Make(Role::service);
    m_endpoint->RunHandlersIn(context);
    m_endpoint->OnReady([&](const Partner& partner) {
        EXPECT_EQ(expected, std::this_thread::get_id());
        m_news.AddReady(partner);
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    ExpectOrderOfALife(client);
    m_endpoint.reset();
    over = true;
    g_main_context_wakeup(context);
    thread.join();
    g_main_context_unref(context);
}

// Hands each function to a new thread, as a pool would do it.
TEST_F(AHandlersPlace, IsAnExecutorWhenThatIsWanted)
{
    std::mutex mutex;
    std::vector<std::thread> threads;
    Make(Role::service);
    m_endpoint->RunHandlersIn([&](std::function<void()> function) {
        const std::lock_guard<std::mutex> lock(mutex);
        threads.emplace_back(std::move(function));
    });
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    m_endpoint->OnNotification([&](Message& message) {
        if (++running != 1)
            overlapped = true;
        std::this_thread::sleep_for(milliseconds(5));
        m_news.Add("notification " + TextOf(message.data));
        --running;
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    ExpectOrderOfALife(client);
    EXPECT_FALSE(overlapped);
    m_endpoint.reset();
    const std::lock_guard<std::mutex> lock(mutex);
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(AHandlersPlace, MayDropTheFunctionAndTheEndpointEndsAllTheSame)
{
    std::atomic<int> dropped{0};
    Make(Role::service);
    m_endpoint->RunHandlersIn([&](const std::function<void()>&) {
        ++dropped;
        WakeTest();
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    IterateUntil([&] { return dropped != 0; }, "a handler to be handed over");
    int told = 0;
    m_endpoint->Request(m_endpoint->Partners().front(), {}, LONG, [&](const Response&) { ++told; });
    EXPECT_EQ(Status::timeout, client.endpoint.Request(service, {}, milliseconds(200)).status);
    EXPECT_TRUE(m_endpoint->Stop(milliseconds(200)));
    EXPECT_EQ(1, told);
    EXPECT_EQ(1, dropped);
}

// ---- What holds others up ------------------------------------------------------------------

class ASlowHandler : public EndpointTest {};

TEST_F(ASlowHandler, DoesNotHoldUpWhatItsEndpointSends)
{
    Make(Role::service);
    std::promise<void> let_go;
    std::shared_future<void> gate = let_go.get_future();
    m_endpoint->OnNotification([&](Message&) {
        m_news.Add("held");
        gate.wait();
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    EXPECT_EQ(Status::ok, client.endpoint.Notify(service, {}));
    m_news.Await("held");
    EXPECT_EQ(Status::ok, m_endpoint->Request(partner, BytesOf("ab"), LONG).status);
    EXPECT_EQ(Status::ok, m_endpoint->Notify(partner, BytesOf("cd")));
    client.news.Await("notification cd");
    let_go.set_value();
}

TEST_F(ASlowHandler, DoesNotHoldUpTheTimeOfARequestOrItsSending)
{
    constexpr milliseconds busy{1000};
    constexpr milliseconds timeout{200};
    Make(Role::service);
    std::atomic<Clock::time_point> told{Clock::time_point{}};
    std::atomic<Clock::time_point> handled{Clock::time_point{}};
    std::atomic<Clock::time_point> came{Clock::time_point{}};
    std::promise<void> never;
    std::atomic<bool> is_over{false};
    std::atomic<Status> status{Status::ok};
    std::vector<PelmarEndpoint::Reply> replies;
    End client(Role::client);
    client.endpoint.OnDeferredMessage([&](Message&, PelmarEndpoint::Reply reply) {
        came = Clock::now();
        replies.push_back(std::move(reply));
    });
    m_endpoint->OnReady([&](const Partner& partner) {
        m_endpoint->Request(partner, {}, timeout, [&](const Response& response) {
            told = Clock::now();
            status = response.status;
            is_over = true;
            WakeTest();
        });
        std::this_thread::sleep_for(busy);
        handled = Clock::now();
    });
    m_endpoint->Start();
    client.endpoint.Start();
    IterateUntil([&] { return is_over.load(); }, "the end of the request");
    EXPECT_EQ(Status::timeout, status);
    EXPECT_LT(came.load(), handled.load() - busy / 2) << "it was sent at once";
    EXPECT_GE(told.load(), handled.load()) << "one handler at a time";
}

// ---- Order ---------------------------------------------------------------------------------

class AnOrder : public EndpointTest {};

TEST_F(AnOrder, OfOneThreadsRequestsAndNotificationsIsKept)
{
    Make(Role::service);
    std::vector<std::string> came;
    m_endpoint->OnMessage([&](Message& message) {
        came.push_back(TextOf(message.data));
        return Bytes();
    });
    m_endpoint->OnNotification([&](Message& message) {
        came.push_back(TextOf(message.data));
        if (came.back() == "last")
            m_news.Add("last");
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    std::vector<std::string> sent;
    std::atomic<int> answered{0};
    for (int i = 0; i < 1000; ++i) {
        sent.push_back(std::to_string(i) + std::string(i % 10 == 0 ? 20000 : 0, ' '));
        if (i % 3 == 0)
            ASSERT_EQ(Status::ok, client.endpoint.Notify(service, BytesOf(sent.back())));
        else
            client.endpoint.Request(service, BytesOf(sent.back()), LONG, [&](const Response& end) {
                EXPECT_EQ(Status::ok, end.status);
                ++answered;
                WakeTest();
            });
    }
    sent.push_back("last");
    ASSERT_EQ(Status::ok, client.endpoint.Notify(service, BytesOf("last")));
    m_news.Await("last");
    EXPECT_EQ(sent, came);
    IterateUntil([&] { return answered == 666; }, "all answers");
}

// ---- Errors --------------------------------------------------------------------------------

class AFailure : public EndpointTest {
protected:
    void ExpectBoundedError(const Response& response)
    {
        EXPECT_EQ(Status::remote_error, response.status);
        EXPECT_LE(response.error.size(), 4096U);
        EXPECT_FALSE(response.error.empty());
        EXPECT_TRUE(g_utf8_validate(response.error.data(),
                                    static_cast<gssize>(response.error.size()), nullptr));
    }
};

TEST_F(AFailure, OfAnyTextReachesTheCallerAsShortValidText)
{
    const std::string long_and_wrong(12UL * 1024 * 1024, '\xff');
    Make(Role::service);
    m_endpoint->OnDeferredMessage([&](Message& message, const PelmarEndpoint::Reply& reply) {
        const std::string which = TextOf(message.data);
        if (which == "no utf-8")
            reply.Fail(long_and_wrong);
        else if (which == "nul")
            reply.Fail(std::string("a\0b", 3));
        else if (which == "cut")
            reply.Fail(std::string(4095, 'a') + "\xc3\xa4\xc3\xa4");
        else
            reply.Fail("");
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    const std::string name = OwnName();
    const auto ask = [&](const std::string& which) {
        const Response response = client.endpoint.Request(service, BytesOf(which), LONG);
        ExpectBoundedError(response);
        return response.error;
    };
    ask("no utf-8");
    EXPECT_EQ(0U, ask("nul").find('a'));
    EXPECT_EQ(std::string(4095, 'a'), ask("cut"));
    ask("empty");
    EXPECT_EQ(name, OwnName());
    EXPECT_EQ(0U, m_news.Count("bus_lost"));
}

TEST_F(AFailure, OfAHandlerThatThrowsAnyTextReachesTheCallerAsShortValidText)
{
    Make(Role::service);
    m_endpoint->OnMessage([&](Message&) -> Bytes {
        throw std::runtime_error(std::string(12UL * 1024 * 1024, '\xff'));
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    ExpectBoundedError(client.endpoint.Request(client.AwaitPartner(), {}, LONG));
    EXPECT_EQ(0U, m_news.Count("bus_lost"));
}

TEST_F(AFailure, OfAReplyThatIsDroppedAndOfAMissingHandlerHasAText)
{
    Make(Role::service);
    m_endpoint->OnDeferredMessage([](Message&, const PelmarEndpoint::Reply&) {});
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.OnMessage(nullptr);
    client.endpoint.Start();
    ExpectBoundedError(client.endpoint.Request(client.AwaitPartner(), {}, LONG));
    m_news.Await("ready ");
    ExpectBoundedError(m_endpoint->Request(m_endpoint->Partners().front(), {}, LONG));
}

// ---- Cancelling ----------------------------------------------------------------------------

class ACall : public EndpointTest {};

TEST_F(ACall, ThatIsCancelledIsToldSoOnce)
{
    Make(Role::service);
    std::vector<PelmarEndpoint::Reply> replies;
    m_endpoint->OnDeferredMessage([&](Message&, PelmarEndpoint::Reply reply) {
        replies.push_back(std::move(reply));
        m_news.Add("message");
    });
    m_endpoint->Start();
    End client(Role::client);
    client.endpoint.Start();
    const Partner service = client.AwaitPartner();
    PelmarEndpoint::Call call =
        client.endpoint.Request(service, {}, LONG, [&](const Response& response) {
            client.news.Add(std::string("done ") + PelmarEndpoint::ToString(response.status));
        });
    m_news.Await("message");
    call.Cancel();
    call.Cancel();
    PelmarEndpoint::Call copy = call;
    copy.Cancel();
    client.news.Await("done ");
    replies.front().Send({});
    EXPECT_EQ(Status::timeout, client.endpoint.Request(service, {}, milliseconds(100)).status);
    EXPECT_THAT(client.news.Of("done "), ElementsAre(PelmarEndpoint::ToString(Status::cancelled)));
    m_news.Await("message", 2);
    PelmarEndpoint::Call().Cancel();
    client.endpoint.Stop();
    call.Cancel();
}

TEST_F(ACall, ThatIsOverIsNotCancelledAnyMore)
{
    Start();
    End client(Role::client);
    client.endpoint.Start();
    PelmarEndpoint::Call call =
        client.endpoint.Request(client.AwaitPartner(), {}, LONG, [&](const Response& response) {
            client.news.Add(std::string("done ") + PelmarEndpoint::ToString(response.status));
        });
    client.news.Await("done ");
    call.Cancel();
    client.endpoint.Stop();
    EXPECT_THAT(client.news.Of("done "), ElementsAre("ok"));
}

TEST_F(ACall, ThatIsDroppedGoesOn)
{
    Start();
    End client(Role::client);
    client.endpoint.Start();
    client.endpoint.Request(client.AwaitPartner(), BytesOf("ab"), LONG, [&](Response response) {
        client.news.Add("done " + TextOf(response.data));
    });
    client.news.Await("done ba");
}

}  // namespace
