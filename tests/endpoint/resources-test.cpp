// What an endpoint takes of its process: descriptors and threads, which it gives back, and what
// becomes of it when there are none.

#include <gio/gunixfdlist.h>

#include <condition_variable>
#include <system_error>

#include "endpoint-fixture.h"
#include "endpoint-process.h"
#include "process-memory.h"
#include "process-resources.h"

namespace {

using std::chrono::seconds;
using testing::HasSubstr;

constexpr seconds LONG{15};

// A condition that nobody tells of.
void PollUntil(const std::function<bool()>& condition, const std::string& awaited)
{
    const auto deadline = In(TEST_DEADLINE);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("waited in vain for " + awaited);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// ---- Given back ----------------------------------------------------------------------------

class TheEndOfAnEndpoint : public EndpointTest {
protected:
    static void ExpectNothingLeftBy(const std::function<void()>& life)
    {
        // What GLib keeps for the process is there after these.
        for (int i = 0; i < 5; ++i)
            life();
        const std::size_t descriptors = CountOf("fd");
        const std::size_t threads = CountOf("task");
        for (int i = 0; i < 100; ++i)
            life();
        PollUntil([&] { return CountOf("fd") <= descriptors; },
                  "descriptors to be closed: " + std::to_string(CountOf("fd")) + " instead of " +
                      std::to_string(descriptors));
        // GLib has up to two threads in waiting.
        PollUntil([&] { return CountOf("task") <= threads + 2; }, "threads to end");
    }
};

TEST_F(TheEndOfAnEndpoint, LeavesNoDescriptorAndNoThreadBehind)
{
    ExpectNothingLeftBy([] {
        PelmarEndpoint service(Role::service, CHANNEL);
        service.Start();
        service.Stop(std::chrono::milliseconds(0));
    });
}

TEST_F(TheEndOfAnEndpoint, WithAPartnerLeavesNoDescriptorAndNoThreadBehind)
{
    ExpectNothingLeftBy([] {
        PelmarEndpoint service(Role::service, CHANNEL);
        PelmarEndpoint client(Role::client, CHANNEL);
        service.Start();
        client.Start();
        ASSERT_TRUE(client.WaitForPartner(In(TEST_DEADLINE)));
    });
}

// ---- Descriptors of others -------------------------------------------------------------------

class AMessageWithDescriptors : public EndpointTest {
protected:
    ~AMessageWithDescriptors() override
    {
        Release();
        m_endpoint.reset();
    }

    void SendWithDescriptors(BusActor& stranger)
    {
        GDBusMessage* call = g_dbus_message_new_method_call(
            OwnName().c_str(), names::Path(CHANNEL).c_str(), names::INTERFACE.c_str(), "Send");
        // The daemon has room for few open calls.
        g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_message_set_body(call, BusActor::Body(BytesOf("abc")));
        GUnixFDList* list = g_unix_fd_list_new();
        for (int i = 0; i < 16; ++i)
            g_unix_fd_list_append(list, STDERR_FILENO, nullptr);
        g_dbus_message_set_unix_fd_list(call, list);
        g_object_unref(list);
        g_dbus_connection_send_message(stranger.Connection(), call, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr);
        g_object_unref(call);
        g_dbus_connection_flush_sync(stranger.Connection(), nullptr, nullptr);
    }

    // The handler waits until they may all run.
    void Release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_may_run = true;
        m_released.notify_all();
    }

    std::atomic<int> m_handled{0};
    std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_may_run = false;
};

TEST_F(AMessageWithDescriptors, KeepsNoneOfThemOpenWhileItWaitsForTheHandler)
{
    constexpr int count = 300;
    Make(Role::service);
    m_endpoint->OnMessage([&](Message&) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_released.wait(lock, [&] { return m_may_run; });
        ++m_handled;
        WakeTest();
        return Bytes();
    });
    m_endpoint->Start();
    BusActor stranger(m_bus);
    const BusActor another(m_bus);
    SendWithDescriptors(stranger);
    stranger.Settle();
    ASSERT_TRUE(AskForProperties(another, OwnName()));
    const std::size_t before = CountOf("fd");
    for (int i = 1; i < count; ++i)
        SendWithDescriptors(stranger);
    stranger.Settle();
    ASSERT_TRUE(AskForProperties(another, OwnName()));
    // GIO takes a few for a moment.
    PollUntil([&] { return CountOf("fd") <= before; }, "descriptors to be closed");
    EXPECT_EQ(0, m_handled);
    Release();
    IterateUntil([&] { return m_handled == count; }, "all handlers");
}

// ---- None left -----------------------------------------------------------------------------

class AProcessWithoutDescriptors : public EndpointTest {
protected:
    void SetUp() override
    {
        if (!MEMORY_IS_MEASURED)
            GTEST_SKIP() << "a sanitizer needs a descriptor to look at an object's type";
    }
};

TEST_F(AProcessWithoutDescriptors, CannotStartAnEndpointUntilItHasSome)
{
    Make(Role::service);
    {
        const NoDescriptors none;
        EXPECT_THROW(m_endpoint->Start(), std::system_error);
        EXPECT_THROW(m_endpoint->Start(), std::system_error);
    }
    m_endpoint->Start();
    BusActor partner(m_bus);
    MakeReady(partner);
}

TEST_F(AProcessWithoutDescriptors, SendsAndAnswersAllTheSame)
{
    EndpointProcess process("client", CHANNEL);
    Start();
    const std::string client = process.WaitForLine("ready ");
    m_news.Await("ready ");
    const Partner partner = m_endpoint->Partners().front();
    {
        const NoDescriptors none;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Status::ok, m_endpoint->Request(partner, BytesOf("ab"), LONG).status);
            EXPECT_EQ(Status::ok, m_endpoint->Notify(partner, BytesOf("n")));
        }
    }
    for (int i = 0; i < 3; ++i)
        process.WaitForLine("notification 6e");
    const NoDescriptors none(process.Pid());
    process.WriteLine("send " + client + " 6162");
    EXPECT_EQ("6261", process.WaitForLine("reply "));
    process.WriteLine("notify 6162");
    EXPECT_EQ("ok", process.WaitForLine("status "));
    m_news.Await("notification ab");
}

TEST_F(AProcessWithoutDescriptors, ComesBackToANewDaemonWhenItHasSomeAgain)
{
    EndpointProcess process("client", CHANNEL);
    Start();
    process.WaitForLine("ready ");
    m_news.Await("ready ");
    {
        const NoDescriptors none(process.Pid());
        m_bus.Kill();
        process.WaitForLine("bus_lost");
        process.WaitForLine("lost ");
        m_bus.Start();
        m_news.Await("bus_back");
        EXPECT_THAT(process.WaitForLine("problem "), HasSubstr("descriptors"));
    }
    process.WaitForLine("bus_back");
    process.WaitForLine("ready ");
    m_news.Await("ready ", 2);
}

}  // namespace
