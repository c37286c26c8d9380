// The direct path between two endpoints: when there is one, that it keeps the contract of the bus,
// and that nobody gets anything by it but his own partner's attention.

#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <future>

#include "bus-monitor.h"
#include "captured-log.h"
#include "channel-names.h"
#include "direct-socket.h"
#include "endpoint-fixture.h"
#include "endpoint-process.h"
#include "frame-bytes.h"
#include "passed-descriptors.h"
#include "process-memory.h"
#include "process-resources.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Problem = PelmarEndpoint::Problem;

Bytes Numbered(int number)
{
    return BytesOf(std::to_string(number));
}

// GIO closes those of a message when it has done with it.
void AwaitDescriptors(std::size_t count)
{
    const auto deadline = In(TEST_DEADLINE);
    while (CountOf("fd") != count && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_EQ(count, CountOf("fd"));
}

// ---- Two endpoints -------------------------------------------------------------------------

class TwoEndpoints : public testing::Test {
protected:
    explicit TwoEndpoints(const std::string& configuration = "") : m_bus(configuration) {}

    void Start()
    {
        m_service.endpoint.Start();
        m_client.endpoint.Start();
        m_to_client = m_service.AwaitPartner();
        m_to_service = m_client.AwaitPartner();
    }
    void AwaitDirectPath() const { AwaitDirect({m_to_client, m_to_service}); }
    // Long enough for a path that must not come.
    void ExpectNoDirectPath() const
    {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Status::ok, Request(m_client, m_to_service, {}).status);
            EXPECT_EQ(Status::ok, Request(m_service, m_to_client, {}).status);
        }
        EXPECT_FALSE(m_to_client.IsDirect());
        EXPECT_FALSE(m_to_service.IsDirect());
    }
    static Response Request(const End& from, const Partner& to, Bytes data)
    {
        return const_cast<End&>(from).endpoint.Request(to, std::move(data), seconds(30));
    }

    TestBus m_bus;
    End m_service{Role::service};
    End m_client{Role::client};
    Partner m_to_client;
    Partner m_to_service;
};

TEST_F(TwoEndpoints, GoPastTheBusByThemselves)
{
    BusMonitor monitor(m_bus);
    Start();
    AwaitDirectPath();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(BytesOf("cba"), Request(m_client, m_to_service, BytesOf("abc")).data);
        EXPECT_EQ(BytesOf("fed"), Request(m_service, m_to_client, BytesOf("def")).data);
        EXPECT_EQ(Status::ok, m_service.endpoint.Notify(m_to_client, Numbered(i)));
        EXPECT_EQ(Status::ok, m_client.endpoint.Notify(m_to_service, Numbered(i)));
    }
    m_client.news.Await("notification 2");
    m_service.news.Await("notification 2");
    BusActor actor(m_bus);
    monitor.CatchUp(actor.Connection());
    EXPECT_THAT(monitor.Messages([](const BusMonitor::Message& message) {
        return message.member == "Send" || message.member == "SendSignal";
    }),
                IsEmpty());
    EXPECT_EQ(1U, m_client.news.Count("ready "));
    EXPECT_EQ(1U, m_service.news.Count("ready "));
}

TEST_F(TwoEndpoints, StayOnTheBusWhenTheServiceWantsIt)
{
    m_service.endpoint.SetDirectPath(false);
    Start();
    ExpectNoDirectPath();
}

TEST_F(TwoEndpoints, StayOnTheBusWhenTheClientWantsIt)
{
    m_client.endpoint.SetDirectPath(false);
    Start();
    ExpectNoDirectPath();
}

TEST_F(TwoEndpoints, StayOnTheBusWhenTheEnvironmentWantsIt)
{
    setenv("PELMAR_DIRECT", "0", 1);
    Start();
    unsetenv("PELMAR_DIRECT");
    ExpectNoDirectPath();
}

class TwoEndpointsOnABusThatForbidsIt : public TwoEndpoints {
protected:
    TwoEndpointsOnABusThatForbidsIt()
        : TwoEndpoints(
              "<policy context=\"mandatory\">"
              "<deny send_interface=\"org.vaska.pelmar.DirectPath1\"/></policy>")
    {
    }
};

TEST_F(TwoEndpointsOnABusThatForbidsIt, StayOnIt)
{
    Start();
    ExpectNoDirectPath();
    EXPECT_THAT(m_client.news.Of("problem "), IsEmpty());
    EXPECT_THAT(m_service.news.Of("problem "), IsEmpty());
}

// Such a bus drops what is for a connection that has more descriptors to read.
class ABusThatHoldsFewDescriptors : public testing::Test {
protected:
    const TestBus m_bus{"<limit name=\"max_outgoing_unix_fds\">20</limit>"};
};

TEST_F(ABusThatHoldsFewDescriptors, BringsAllPastItAlsoWhereTheServiceHardlyReads)
{
    EndpointProcess service("service", CHANNEL);
    std::vector<std::unique_ptr<EndpointProcess>> clients;
    for (int i = 0; i < 40; ++i)
        clients.push_back(std::make_unique<EndpointProcess>("client", CHANNEL));
    std::atomic<bool> is_over{false};
    std::thread hindrance([&] {
        while (!is_over) {
            service.Signal(SIGSTOP);
            std::this_thread::sleep_for(milliseconds(15));
            service.Signal(SIGCONT);
            std::this_thread::sleep_for(milliseconds(2));
        }
    });
    for (const auto& client : clients)
        EXPECT_NO_THROW(client->WaitForLine("ready "));
    for (const auto& client : clients) {
        std::string way;
        for (const auto deadline = In(TEST_DEADLINE);
             way != "direct" && std::chrono::steady_clock::now() < deadline;) {
            client->WriteLine("way");
            way = client->WaitForLine("way ");
        }
        EXPECT_EQ("direct", way);
    }
    is_over = true;
    hindrance.join();
}

TEST_F(TwoEndpoints, MayBeToldAnythingElseInTheEnvironment)
{
    setenv("PELMAR_DIRECT", "1", 1);
    Start();
    unsetenv("PELMAR_DIRECT");
    AwaitDirectPath();
}

TEST_F(TwoEndpoints, SendWhatFitsTheReceiversIntake)
{
    constexpr std::size_t large = 34UL * 1024 * 1024;
    m_service.endpoint.SetIntake(large);
    m_client.endpoint.SetIntake(1);
    Start();
    AwaitDirectPath();
    EXPECT_EQ(Status::too_large, Request(m_client, m_to_service, Bytes(large + 1)).status);
    EXPECT_EQ(Status::too_large, m_client.endpoint.Notify(m_to_service, Bytes(large + 1)));
    // The answer is larger than what the client takes.
    const Response response = Request(m_client, m_to_service, Bytes(large, 'x'));
    EXPECT_EQ(Status::remote_error, response.status);
    EXPECT_THAT(response.error, HasSubstr("too large"));
    m_client.endpoint.Notify(m_to_service, Bytes(large, 'n'));
    m_service.news.Await("notification nnn");
    m_service.news.Clear();
}

// Mappings of memory for large messages in this process.
std::size_t SlotsMapped()
{
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/memfd:pelmar") != std::string::npos ? 1 : 0;
    return count;
}

TEST_F(TwoEndpoints, HaveMemoryForLargeMessagesAsLongAsThereAreSome)
{
    Start();
    AwaitDirectPath();
    Request(m_client, m_to_service, Bytes(16000));
    EXPECT_EQ(0U, SlotsMapped());
    for (int i = 0; i < 5; ++i) {
        const Bytes data(1000000 + static_cast<std::size_t>(i), static_cast<char>('a' + i));
        EXPECT_EQ(data, Request(m_client, m_to_service, data).data);
    }
    EXPECT_EQ(4U, SlotsMapped()) << "one each way, at both ends";
    const auto deadline = In(TEST_DEADLINE);
    while (SlotsMapped() != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(10));
    EXPECT_EQ(0U, SlotsMapped());
    const Bytes data(2000000, 'z');
    EXPECT_EQ(data, Request(m_client, m_to_service, data).data);
}

TEST_F(TwoEndpoints, HaveNoMemoryOfAPartnerThatIsGone)
{
    Start();
    AwaitDirectPath();
    for (int i = 0; i < 5; ++i)
        Request(m_client, m_to_service, Bytes(1000000));
    m_client.endpoint.Stop();
    m_service.news.Await("lost ");
    EXPECT_EQ(0U, SlotsMapped());
}

TEST_F(TwoEndpoints, KeepLargeAndSmallMessagesInOrder)
{
    m_client.endpoint.SetWindow(64UL * 1024 * 1024);
    Start();
    AwaitDirectPath();
    constexpr int count = 300;
    for (int i = 0; i < count; ++i) {
        const std::size_t size = i % 3 == 0 ? 100000 : i % 7 == 0 ? 17000 : 10;
        Bytes data(size, '.');
        const std::string number = std::to_string(i) + " ";
        std::copy(number.begin(), number.end(), data.begin());
        ASSERT_EQ(Status::ok, m_client.endpoint.Notify(m_to_service, std::move(data)));
    }
    Request(m_client, m_to_service, {});
    const std::vector<std::string> heard = m_service.news.Of("notification ");
    ASSERT_THAT(heard, SizeIs(count));
    for (int i = 0; i < count; ++i) {
        const std::string& one = heard[static_cast<std::size_t>(i)];
        EXPECT_EQ(std::to_string(i), one.substr(0, one.find(' ')));
    }
    m_service.news.Clear();
}

TEST_F(TwoEndpoints, AreNotHeldUpByAMessageToAPartnerThatDoesNotRead)
{
    Start();
    AwaitDirectPath();
    EndpointProcess stopped("client", CHANNEL);
    m_service.news.Await("ready ", 2);
    const Partner partner = m_service.endpoint.Partners().back();
    AwaitDirect({partner});
    stopped.Signal(SIGSTOP);
    EXPECT_EQ(Status::ok, m_service.endpoint.Notify(partner, Bytes(6000000)));
    EXPECT_EQ(Status::queue_full, m_service.endpoint.Notify(partner, Bytes(6000000)));
    EXPECT_EQ(BytesOf("ba"), Request(m_client, m_to_service, BytesOf("ab")).data);
    stopped.Signal(SIGCONT);
    m_service.news.Await("room " + partner.Name());
}

TEST_F(TwoEndpoints, ThatBothSendALotAtOnceDoNotWaitForEachOther)
{
    Start();
    AwaitDirectPath();
    const auto ask = [](End& from, const Partner& to) {
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(Status::ok, from.endpoint.Request(to, Bytes(5000000), seconds(30)).status);
    };
    std::thread other([&] { ask(m_service, m_to_client); });
    ask(m_client, m_to_service);
    other.join();
}

// Who waits for an answer must hear of it, whoever was about to read the socket.
TEST_F(TwoEndpoints, AnswerEveryRequestWhileOtherThingsCome)
{
    Start();
    AwaitDirectPath();
    std::atomic<bool> is_over{false};
    std::thread other([&] {
        // One after another, and not as many as fit.
        while (!is_over) {
            m_service.endpoint.Notify(m_to_client, {});
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        const Response response = m_client.endpoint.Request(m_to_service, {}, seconds(5));
        ASSERT_EQ(Status::ok, response.status) << i;
    }
    is_over = true;
    other.join();
}

TEST_F(TwoEndpoints, CountOneDescriptorAtEachEnd)
{
    Start();
    AwaitDirectPath();
    const std::size_t before = CountOf("fd");
    {
        EndpointProcess one("client", CHANNEL);
        EndpointProcess two("client", CHANNEL);
        m_service.news.Await("ready ", 3);
        AwaitDirect(m_service.endpoint.Partners());
        // Beside the pipes to the two processes.
        AwaitDescriptors(before + 2 + 2 * 2);
    }
    m_service.news.Await("lost ", 2);
    m_service.endpoint.Stop();
    m_client.endpoint.Stop();
    EXPECT_LT(CountOf("fd"), before);
}

TEST_F(TwoEndpoints, AreDirectAgainAfterTheBusCameBack)
{
    Start();
    AwaitDirectPath();
    m_bus.Kill();
    m_client.news.Await("lost ");
    m_service.news.Await("lost ");
    EXPECT_FALSE(m_to_client.IsDirect());
    EXPECT_EQ(Status::bus_gone, Request(m_client, m_to_service, {}).status);
    m_bus.Start();
    m_client.news.Await("ready ", 2);
    m_service.news.Await("ready ", 2);
    m_to_client = m_service.AwaitPartner();
    m_to_service = m_client.AwaitPartner();
    AwaitDirectPath();
    EXPECT_EQ(Status::ok, Request(m_client, m_to_service, {}).status);
    EXPECT_THAT(m_client.news.Of("problem "), IsEmpty());
}

TEST_F(TwoEndpoints, HaveEverythingArriveThatWasSentBeforeAStop)
{
    Start();
    AwaitDirectPath();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Status::ok, m_client.endpoint.Notify(m_to_service, Numbered(i)));
    m_client.endpoint.Stop();
    m_service.news.Await("lost ");
    const std::vector<std::string> heard = m_service.news.Of("notification ");
    ASSERT_THAT(heard, SizeIs(1000));
    EXPECT_EQ("999", heard.back());
    EXPECT_THAT(m_service.news.Of("problem "), IsEmpty());
}

TEST_F(TwoEndpoints, TellACallerThatThePartnerHasStopped)
{
    m_service.endpoint.OnDeferredMessage([](Message& /*message*/, PelmarEndpoint::Reply reply) {
        static std::vector<PelmarEndpoint::Reply> kept;
        kept.push_back(std::move(reply));
        WakeTest();
    });
    Start();
    AwaitDirectPath();
    std::atomic<int> told{0};
    m_client.endpoint.Request(m_to_service, {}, seconds(30), [&](const Response& response) {
        EXPECT_EQ(Status::partner_lost, response.status);
        ++told;
        WakeTest();
    });
    m_service.endpoint.Stop();
    IterateUntil([&] { return told == 1; }, "the word of the end");
}

// The handler waits for an answer that comes behind more than the intake.
TEST_F(TwoEndpoints, BringAnAnswerAlsoWhereTheIntakeIsFull)
{
    m_service.endpoint.SetIntake(100000);
    std::atomic<bool> go_on{false};
    m_service.endpoint.OnNotification([&](Message& message) {
        if (TextOf(message.data) != "ask")
            return;
        while (!go_on)
            std::this_thread::sleep_for(milliseconds(1));
        const Response response =
            m_service.endpoint.Request(message.from, BytesOf("ab"), seconds(5));
        m_service.news.Add("answer " + TextOf(response.data));
    });
    Start();
    AwaitDirectPath();
    EXPECT_EQ(Status::ok, m_client.endpoint.Notify(m_to_service, BytesOf("ask")));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Status::ok, m_client.endpoint.Notify(m_to_service, Bytes(100000)));
    go_on = true;
    m_service.news.Await("answer ba");
}

// What is sent meanwhile writes what waits, so that nobody else finds the socket ready for more.
TEST_F(TwoEndpoints, TellOfRoomAlsoWhereASendingMadeIt)
{
    m_service.endpoint.SetIntake(100000);
    m_client.endpoint.SetWindow(200000);
    std::mutex handling;
    m_service.endpoint.OnNotification(
        [&](Message& /*message*/) { const std::lock_guard<std::mutex> lock(handling); });
    Start();
    AwaitDirectPath();
    for (std::size_t round = 1; round <= 20; ++round) {
        {
            const std::lock_guard<std::mutex> lock(handling);
            while (m_client.endpoint.Notify(m_to_service, Bytes(50000)) == Status::ok) {
            }
        }
        for (int i = 0; i < 20; ++i) {
            m_client.endpoint.Notify(m_to_service, {});
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        m_client.news.Await("room ", round);
    }
    m_service.endpoint.Stop();  // its handler uses what is here
}

// ---- The switch-over -----------------------------------------------------------------------

// Sends numbers from the moment it is ready, notifications and requests in turn, and looks at those
// that come.
class Counter {
public:
    explicit Counter(Role role) : m_endpoint(role, CHANNEL)
    {
        m_endpoint.OnReady([this](const Partner& partner) {
            m_sender = std::thread([this, partner] { Send(partner); });
        });
        m_endpoint.OnNotification([this](Message& message) { Take(message.data); });
        m_endpoint.OnMessage([this](Message& message) {
            Take(message.data);
            return std::move(message.data);
        });
    }
    ~Counter()
    {
        if (m_sender.joinable())
            m_sender.join();
        m_endpoint.Stop();
    }
    void Start() { m_endpoint.Start(); }
    bool IsDone() const { return m_next == COUNT && m_answered == COUNT / 4; }
    int Misplaced() const { return m_misplaced; }

private:
    static constexpr int COUNT = 80;

    void Send(const Partner& partner)
    {
        for (int i = 0; i < COUNT; ++i) {
            if (i % 4 != 0) {
                EXPECT_EQ(Status::ok, m_endpoint.Notify(partner, Numbered(i)));
                continue;
            }
            m_endpoint.Request(partner, Numbered(i), seconds(30),
                               [this, i](const Response& response) {
                                   if (response.data != Numbered(i) || i != 4 * m_answered)
                                       ++m_misplaced;
                                   ++m_answered;
                                   WakeTest();
                               });
        }
    }
    void Take(const Bytes& data)
    {
        if (data != Numbered(m_next))
            ++m_misplaced;
        ++m_next;
        WakeTest();
    }

    std::atomic<int> m_next{0};
    std::atomic<int> m_answered{0};
    std::atomic<int> m_misplaced{0};
    std::thread m_sender;
    PelmarEndpoint m_endpoint;
};

TEST(ASwitchOver, LosesAndMisplacesNothing)
{
    const TestBus bus;
    for (int round = 0; round < Scale("PELMAR_SWITCH_OVERS", 60); ++round) {
        Counter service(Role::service);
        Counter client(Role::client);
        service.Start();
        client.Start();
        IterateUntil([&] { return service.IsDone() && client.IsDone(); }, "all messages");
        ASSERT_EQ(0, service.Misplaced()) << "in round " << round;
        ASSERT_EQ(0, client.Misplaced()) << "in round " << round;
    }
}

// ---- A partner that is killed --------------------------------------------------------------

TEST_F(TwoEndpoints, HearEverythingThatAKilledPartnerHadSent)
{
    m_service.endpoint.Start();
    for (int round = 0; round < Scale("PELMAR_KILLS", 15); ++round) {
        m_service.news.Clear();
        EndpointProcess client("client", CHANNEL);
        m_service.news.Await("ready ");
        client.WaitForLine("ready ");
        const Partner partner = m_service.endpoint.Partners().front();
        AwaitDirect({partner});
        constexpr int count = 200;
        for (int i = 0; i < count; ++i)
            client.WriteLine("notify 78");
        client.WriteLine("send " + m_service.endpoint.Name() + " 79");
        client.WaitForLine("reply ");
        client.Signal(SIGKILL);
        m_service.news.Await("lost ");
        const std::vector<std::string> all = m_service.news.All();
        EXPECT_THAT(m_service.news.Of("notification "), SizeIs(count));
        EXPECT_EQ("lost ", all.back().substr(0, 5));
    }
    EXPECT_THAT(m_service.news.Of("problem "), IsEmpty());
}

// ---- Somebody who opens a path and does not keep to it -------------------------------------

class AService : public EndpointTest {
protected:
    AService()
    {
        Make(Role::service);
        m_endpoint->SetWindow(1000000);
        m_endpoint->Start();
    }

    // What the endpoint answers to Open, or 99 for an error.
    guint32 Open(const BusActor& actor, int descriptor, guint32 version = 1) const
    {
        GUnixFDList* list = g_unix_fd_list_new();
        if (descriptor >= 0)
            g_unix_fd_list_append(list, descriptor, nullptr);
        GVariant* answer = g_dbus_connection_call_with_unix_fd_list_sync(
            actor.Connection(), OwnName().c_str(), names::Path(CHANNEL).c_str(),
            DIRECT_PATH_INTERFACE, "Open", g_variant_new("(uh)", version, 0), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, 5000, list, nullptr, nullptr, nullptr);
        g_object_unref(list);
        if (answer == nullptr)
            return 99;
        guint32 result = 0;
        g_variant_get(answer, "(u)", &result);
        g_variant_unref(answer);
        return result;
    }
    void Switch(BusActor& actor) const
    {
        GDBusMessage* call = g_dbus_message_new_method_call(
            OwnName().c_str(), names::Path(CHANNEL).c_str(), DIRECT_PATH_INTERFACE, "Switch");
        g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_connection_send_message(actor.Connection(), call, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr);
        g_object_unref(call);
        actor.Settle();
    }

    void CountInvitations(const BusActor& actor)
    {
        g_dbus_connection_add_filter(actor.Connection(), cb_Filter, &m_invitations, nullptr);
    }
    static GDBusMessage* cb_Filter(GDBusConnection* /*connection*/, GDBusMessage* message,
                                   gboolean incoming, gpointer user_data)
    {
        if (incoming != FALSE && g_strcmp0(g_dbus_message_get_member(message), "Invite") == 0)
            ++*static_cast<std::atomic<std::size_t>*>(user_data);
        return message;
    }

    void AwaitInvitations(std::size_t count) const
    {
        const auto deadline = In(TEST_DEADLINE);
        while (m_invitations < count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(milliseconds(1));
        EXPECT_LE(count, m_invitations);
    }

    // What the endpoint answers to the question whether the actor is wired up.
    bool HasToWait(const BusActor& actor) const
    {
        GVariant* answer = g_dbus_connection_call_sync(
            actor.Connection(), OwnName().c_str(), names::Path(CHANNEL).c_str(),
            "org.freedesktop.DBus.Properties", "GetAll",
            g_variant_new("(s)", names::INTERFACE.c_str()), G_VARIANT_TYPE("(a{sv})"),
            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        GVariant* all = g_variant_get_child_value(answer, 0);
        gboolean waits = FALSE;
        g_variant_lookup(all, "Wait", "b", &waits);
        g_variant_unref(all);
        g_variant_unref(answer);
        return waits != FALSE;
    }

    std::atomic<std::size_t> m_invitations{0};

    // Its own end of a path that the endpoint has taken.
    SocketEnd OpenPath(BusActor& actor)
    {
        MakeReady(actor);
        auto [own, theirs] = ConnectedSockets();
        EXPECT_EQ(1U, Open(actor, theirs.Number()));
        Switch(actor);
        return std::move(own);
    }
    static void Write(const SocketEnd& socket, const Bytes& bytes)
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(socket.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    static Bytes FrameOf(FrameType type, std::uint32_t serial, const Bytes& payload)
    {
        FrameHead head;
        head.type = type;
        head.serial = serial;
        return ::FrameOf(head, payload);
    }
    static Bytes Greeting() { return FrameOf(FrameType::hello, 0, EncodeHello({1, 1000000})); }

    // The path of the actor fails, once, and it is a partner on the bus again.
    void ExpectFailure(BusActor& actor, const std::string& fault)
    {
        const std::string name = actor.UniqueName();
        m_news.Await("problem the direct path of " + name);
        EXPECT_THAT(m_news.Of("problem ").back(), HasSubstr(fault));
        m_news.Await("lost " + name);
        m_news.Await("ready " + name, 2);
        EXPECT_FALSE(PartnerOf(actor).IsDirect());
        EXPECT_EQ(Problem::direct_path, m_news.Problems().back());
        Settle(actor);
        EXPECT_EQ(1U, m_news.Count("problem the direct path of " + name));
    }
};

TEST_F(AService, TakesThePathOfAPartnerThatKeepsToTheProtocol)
{
    BusActor actor(m_bus);
    const SocketEnd socket = OpenPath(actor);
    EXPECT_FALSE(PartnerOf(actor).IsDirect());
    Write(socket, Greeting());
    AwaitDirect({PartnerOf(actor)});
    Write(socket, FrameOf(FrameType::notify, 0, BytesOf("hello")));
    m_news.Await("notification hello");
    Write(socket, FrameOf(FrameType::request, 5, BytesOf("abc")));
    const Bytes expected = FrameOf(FrameType::answer, 5, BytesOf("cba"));
    Bytes came(FrameHead::SIZE + 16 + expected.size());
    const auto deadline = In(TEST_DEADLINE);
    while (recv(socket.Number(), came.data(), came.size(), MSG_PEEK | MSG_DONTWAIT) !=
               static_cast<ssize_t>(came.size()) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(1));
    recv(socket.Number(), came.data(), came.size(), MSG_DONTWAIT);
    EXPECT_EQ(expected,
              Bytes(came.end() - static_cast<std::ptrdiff_t>(expected.size()), came.end()));
}

// The daemon drops what is for a service that has not read 64 descriptors.
TEST_F(AService, HasFewOpenAPathAtATime)
{
    constexpr std::size_t count = 30;
    std::vector<std::unique_ptr<BusActor>> actors;
    for (std::size_t i = 0; i < count; ++i) {
        actors.push_back(std::make_unique<BusActor>(m_bus));
        CountInvitations(*actors.back());
        MakeReady(*actors.back());
    }
    std::size_t waiting = 0;
    for (const auto& actor : actors)
        waiting += HasToWait(*actor) ? 1 : 0;
    EXPECT_GT(waiting, 0U);
    // Nobody opens a path; each gets his turn all the same, and once.
    AwaitInvitations(waiting);
    EXPECT_EQ(waiting, m_invitations);
}

TEST_F(AService, LetsTheNextOpenAPathWhenOneHasDoneSo)
{
    std::vector<std::unique_ptr<BusActor>> actors;
    for (int i = 0; i < 9; ++i) {
        actors.push_back(std::make_unique<BusActor>(m_bus));
        MakeReady(*actors.back());
    }
    CountInvitations(*actors.back());
    const auto before = std::chrono::steady_clock::now();
    std::vector<bool> waits;
    for (const auto& actor : actors)
        waits.push_back(HasToWait(*actor));
    auto [own, theirs] = ConnectedSockets();
    EXPECT_EQ(1U, Open(*actors.front(), theirs.Number()));
    AwaitInvitations(waits.back() ? 1 : 0);
    // Else the time of the first may have been over before.
    const bool was_quick = std::chrono::steady_clock::now() - before < milliseconds(150);
    const std::vector<bool> expected = {false, false, false, false, false,
                                        false, false, false, true};
    EXPECT_TRUE(!was_quick || waits == expected);
}

TEST_F(AService, TakesNoPathOfAStrangerOrASecondOne)
{
    BusActor stranger(m_bus);
    auto [own, theirs] = ConnectedSockets();
    EXPECT_EQ(0U, Open(stranger, theirs.Number()));
    BusActor partner(m_bus);
    MakeReady(partner);
    EXPECT_EQ(1U, Open(partner, theirs.Number()));
    EXPECT_EQ(0U, Open(partner, theirs.Number()));
    EXPECT_EQ(0U, Open(stranger, theirs.Number()));
}

TEST_F(AService, TakesNothingButAConnectedStream)
{
    BusActor partner(m_bus);
    MakeReady(partner);
    const std::size_t before = CountOf("fd");
    std::vector<Descriptor> odd;
    odd.emplace_back(open("/dev/zero", O_RDWR));
    odd.emplace_back(open("/", O_RDONLY | O_DIRECTORY));
    odd.emplace_back(open("/tmp", O_PATH));
    odd.emplace_back(eventfd(0, 0));
    odd.emplace_back(socket(AF_UNIX, SOCK_STREAM, 0));
    odd.emplace_back(socket(AF_INET, SOCK_STREAM, 0));
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, pair));
    odd.emplace_back(pair[0]);
    odd.emplace_back(pair[1]);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair));
    odd.emplace_back(pair[0]);
    odd.emplace_back(pair[1]);
    ASSERT_EQ(0, pipe(pair));
    odd.emplace_back(pair[0]);
    odd.emplace_back(pair[1]);
    for (const Descriptor& descriptor : odd)
        EXPECT_EQ(0U, Open(partner, descriptor.Number())) << descriptor.Number();
    EXPECT_EQ(0U, Open(partner, -1));
    odd.clear();
    AwaitDescriptors(before);
    EXPECT_THAT(m_news.Of("problem "), IsEmpty());
    auto [own, theirs] = ConnectedSockets();
    EXPECT_EQ(1U, Open(partner, theirs.Number()));
}

TEST_F(AService, EndsThePathOfWhomItDoesNotUnderstand)
{
    const std::vector<std::pair<Bytes, std::string>> faults = {
        {Bytes(16, '\xff'), "unknown frame type 255"},
        {FrameOf(FrameType::notify, 0, {}), "before the greeting"},
        {FrameOf(FrameType::hello, 0, Bytes(16)), "a greeting that is none"},
        {FrameOf(FrameType::hello, 0, EncodeHello({2, 100})), "a greeting that is none"},
        {Greeting() + Greeting(), "a second greeting"},
        {Greeting() + FrameOf(FrameType::answer, 1, {}), "nobody asked"},
        {Greeting() + FrameOf(FrameType::error, 1, {'x'}), "nobody asked"},
        {Greeting() + FrameOf(static_cast<FrameType>(99), 0, {}), "unknown frame type 99"},
        {Greeting() + Bytes(16, '\x7f'), "unknown frame type 127"},
        {Greeting() + FrameOf(FrameType::taken, 0, {'x'}), "slot 0 of frame type 8"},
    };
    const std::size_t before = CountOf("fd");
    for (const auto& [bytes, fault] : faults) {
        BusActor actor(m_bus);
        const SocketEnd socket = OpenPath(actor);
        Write(socket, bytes);
        ExpectFailure(actor, fault);
        char byte = 0;
        while (recv(socket.Number(), &byte, 1, MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(0, recv(socket.Number(), &byte, 1, 0)) << "the other end is closed";
    }
    IterateUntil([&] { return m_endpoint->Partners().empty(); }, "all ends");
    AwaitDescriptors(before);
}

TEST_F(AService, EndsThePathOfWhomPassesItADescriptor)
{
    BusActor actor(m_bus);
    const SocketEnd socket = OpenPath(actor);
    Write(socket, Greeting());
    ASSERT_GT(SendWith(socket.Number(), FrameOf(FrameType::notify, 0, {}), {STDERR_FILENO}), 0);
    ExpectFailure(actor, "descriptor");
}

TEST_F(AService, EndsThePathWhoseOtherEndWasClosed)
{
    BusActor actor(m_bus);
    {
        const SocketEnd socket = OpenPath(actor);
        Write(socket, Greeting() + FrameOf(FrameType::notify, 0, BytesOf("last")));
        m_news.Await("notification last");
    }
    const std::clock_t before = std::clock();
    ExpectFailure(actor, "closed");
    // It waits for the bus's word for a second.
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);
}

TEST_F(AService, EndsThePathOfWhomReadsNoAnswers)
{
    BusActor actor(m_bus);
    const SocketEnd socket = OpenPath(actor);
    Write(socket, Greeting());
    const ProcessMemory memory(getpid());
    const std::size_t before = memory.Resident();
    Bytes requests;
    for (std::uint32_t i = 0; i < 1000; ++i)
        requests = requests + FrameOf(FrameType::request, i, {});
    std::size_t sent = 0;
    pollfd polled = {socket.Number(), POLLOUT, 0};
    while (sent < 10000 * requests.size() && poll(&polled, 1, 5000) == 1) {
        // Where it left off, so that the frames stay whole.
        const std::size_t at = sent % requests.size();
        const ssize_t size =
            send(socket.Number(), requests.data() + at, requests.size() - at, MSG_NOSIGNAL);
        if (size < 0 && errno != EAGAIN)
            break;
        sent += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    }
    m_news.Await("problem the direct path of " + actor.UniqueName());
    EXPECT_THAT(m_news.Of("problem ").back(), HasSubstr("reads no answers"));
    EXPECT_TRUE(!MEMORY_IS_MEASURED || memory.Resident() - before < 300 * MIB);
}

TEST_F(AService, DeliversNoHalfMessage)
{
    BusActor actor(m_bus);
    {
        const SocketEnd socket = OpenPath(actor);
        Bytes bytes = Greeting() + FrameOf(FrameType::notify, 0, BytesOf("whole")) +
                      FrameOf(FrameType::notify, 0, BytesOf("half"));
        bytes.pop_back();
        Write(socket, bytes);
        m_news.Await("notification whole");
    }
    actor.Leave();
    m_news.Await("lost ");
    EXPECT_EQ(1U, m_news.Count("notification "));
}

TEST_F(AService, IsNotMovedByAPathThatNobodyReadsFrom)
{
    BusActor actor(m_bus);
    const SocketEnd socket = OpenPath(actor);
    Write(socket, Greeting());
    const Partner partner = PartnerOf(actor);
    AwaitDirect({partner});
    std::size_t taken = 0;
    while (m_endpoint->Notify(partner, Bytes(10000)) == Status::ok)
        taken += 10000;
    EXPECT_LE(taken, 1000000 + OF_THE_SOCKET);
    End client(Role::client);
    client.endpoint.Start();
    EXPECT_EQ(Status::ok, client.endpoint.Request(client.AwaitPartner(), {}, seconds(10)).status);
}

// ---- A client and a service that is played --------------------------------------------------

// The service gets no call of Open, and no question after the first such call: the test has them.
class AClient : public EndpointTest {
protected:
    ~AClient() override
    {
        if (m_open != nullptr)
            g_object_unref(m_open);
    }
    void HoldCallsOf(const BusActor& service)
    {
        g_dbus_connection_add_filter(service.Connection(), cb_Hold, this, nullptr);
    }
    static GDBusMessage* cb_Hold(GDBusConnection* /*connection*/, GDBusMessage* message,
                                 gboolean incoming, gpointer user_data)
    {
        auto& test = *static_cast<AClient*>(user_data);
        const std::string member =
            incoming != FALSE && g_dbus_message_get_member(message) != nullptr
                ? g_dbus_message_get_member(message)
                : "";
        if (member == "Open") {
            test.m_open = message;
            test.m_is_opening = true;
            WakeTest();
            return nullptr;
        }
        if (member == "GetAll" && test.m_is_opening) {
            g_object_unref(message);
            return nullptr;
        }
        return message;
    }
    // Its end of the path.
    Descriptor TakePath(const BusActor& service)
    {
        GUnixFDList* list = g_dbus_message_get_unix_fd_list(m_open);
        Descriptor socket(g_unix_fd_list_get(list, 0, nullptr));
        GDBusMessage* answer = g_dbus_message_new_method_reply(m_open);
        g_dbus_message_set_body(answer, g_variant_new("(u)", 1U));
        g_dbus_connection_send_message(service.Connection(), answer, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr);
        g_object_unref(answer);
        return socket;
    }
    // All that comes, up to the end.
    static std::vector<FrameType> TypesOfFrames(const Descriptor& socket)
    {
        FrameReader reader(64 * MIB);
        std::vector<Frame> frames;
        Bytes buffer(65536);
        pollfd polled = {socket.Number(), POLLIN, 0};
        while (poll(&polled, 1, 30000) == 1) {
            const ssize_t size = recv(socket.Number(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size == 0)
                break;
            if (size > 0)
                reader.Take(buffer.data(), static_cast<std::size_t>(size), frames);
        }
        std::vector<FrameType> types;
        for (const Frame& frame : frames)
            types.push_back(frame.head.type);
        return types;
    }

    std::atomic<bool> m_is_opening{false};
    GDBusMessage* m_open = nullptr;
};

TEST_F(AClient, FinishesASwitchOverThatIsUnderWayWhenItIsStopped)
{
    constexpr std::size_t MESSAGES = 20;
    BusActor service(m_bus);
    service.Listen(CHANNEL);
    HoldCallsOf(service);
    Start(Role::client);
    MakeReady(service);
    IterateUntil([&] { return m_is_opening.load(); }, "the call of Open");
    for (std::size_t i = 0; i < MESSAGES; ++i)
        EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(service), Bytes(100000)));
    auto stop = std::async(std::launch::async, [&] { return m_endpoint->Stop(seconds(60)); });
    IterateUntil([&] { return m_endpoint->Partners().empty(); }, "the beginning of Stop");
    const Descriptor socket = TakePath(service);
    const std::vector<FrameType> types = TypesOfFrames(socket);
    EXPECT_TRUE(stop.get());
    ASSERT_THAT(types, testing::Not(IsEmpty()));
    EXPECT_EQ(FrameType::hello, types.front());
    EXPECT_EQ(FrameType::bye, types.back());
    const auto past_bus =
        static_cast<std::size_t>(std::count(types.begin(), types.end(), FrameType::notify));
    EXPECT_LT(0U, past_bus);
    IterateUntil([&] { return service.Heard().size() + past_bus == MESSAGES; },
                 "all that was sent");
}

}  // namespace
