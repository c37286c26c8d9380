// What is sent as soon as a partner is ready arrives: from all sides, at start and restart, on both
// bus daemons. PELMAR_STORM_CLIENTS sets how many clients there are.

#include <filesystem>
#include <fstream>
#include <optional>

#include <sys/stat.h>

#include "endpoint-fixture.h"
#include "stock-bus.h"

namespace {

using Daemon = StockBus::Daemon;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::size_t Clients(int in_the_suite)
{
    return static_cast<std::size_t>(Scale("PELMAR_STORM_CLIENTS", in_the_suite));
}

// One end that sends its numbered messages to each partner in OnReady, and looks at what it is
// told.
class Greeter {
public:
    static constexpr int NOTIFICATIONS = 3;

    explicit Greeter(Role role, milliseconds handling = milliseconds(0))
        : m_handling(handling), m_endpoint(role, CHANNEL)
    {
        m_endpoint.OnReady([this](const Partner& partner) { Greet(partner); });
        m_endpoint.OnLost([this](const Partner& partner) { Lost(partner); });
        m_endpoint.OnNotification([this](Message& message) { Take(message); });
        m_endpoint.OnMessage([this](Message& message) {
            Take(message);
            return std::move(message.data);
        });
    }

    void Start() { m_endpoint.Start(); }
    void Stop() { m_endpoint.Stop(); }

    // Of `count` partners everything has come, and everything to them is answered.
    bool IsComplete(std::size_t count) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_complete == count && m_answered == count;
    }
    void Forget()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_complete = m_answered = 0;
    }

    std::vector<std::string> Faults() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_faults;
    }

private:
    void Greet(const Partner& partner)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_next.emplace(partner, 0).second)
                m_faults.push_back(partner.Name() + " is ready twice");
        }
        for (char number = 0; number < NOTIFICATIONS; ++number) {
            if (m_endpoint.Notify(partner, {number}) != Status::ok)
                Fault("a notification was refused");
        }
        m_endpoint.Request(partner, {NOTIFICATIONS}, seconds(50), [this](const Response& response) {
            if (response.status != Status::ok)
                Fault(response.error);
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_answered;
            WakeTest();
        });
    }

    void Take(const Message& message)
    {
        std::this_thread::sleep_for(m_handling);
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto next = m_next.find(message.from);
        if (next == m_next.end())
            m_faults.push_back("a message before ready");
        else if (message.data.at(0) != next->second++)
            m_faults.push_back("a message out of order or missing");
        else if (next->second == NOTIFICATIONS + 1)
            ++m_complete;
        WakeTest();
    }

    void Lost(const Partner& partner)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_next.erase(partner) == 0)
            m_faults.push_back("lost without ready");
    }

    void Fault(const std::string& text)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_faults.push_back(text);
        WakeTest();
    }

    const milliseconds m_handling;
    mutable std::mutex m_mutex;
    std::map<Partner, int> m_next;
    std::size_t m_complete = 0;
    std::size_t m_answered = 0;
    std::vector<std::string> m_faults;
    PelmarEndpoint m_endpoint;  // last: its handlers use the others
};

class ADelivery : public testing::TestWithParam<Daemon> {
protected:
    void SetUp() override
    {
        if (GetParam() == Daemon::dbus_daemon) {
            m_bus.emplace();
            return;
        }
        if (!StockBus::Exists(Daemon::dbus_broker))
            GTEST_SKIP() << "dbus-broker-launch and systemd-socket-activate are not installed";
        ASSERT_NE(nullptr, mkdtemp(m_folder.data()));
        chmod(m_folder.c_str(), 0755);
        std::filesystem::create_directory(m_folder + "/system.d");
        std::ofstream(m_folder + "/system.d/open.conf")
            << "<busconfig><policy context='default'><allow own_prefix='org.vaska.Pelmar'/>"
               "<allow send_type='method_call'/></policy></busconfig>";
        try {
            const PrivateAccounts accounts(m_folder, {});
            m_broker.emplace(Daemon::dbus_broker, m_folder);
        } catch (const PrivateAccounts::Unavailable& unavailable) {
            GTEST_SKIP() << unavailable.reason;
        }
    }
    ~ADelivery() override
    {
        m_clients.clear();
        m_service.reset();
        m_broker.reset();
        std::filesystem::remove_all(m_folder);
    }

    void MakeClients(std::size_t count)
    {
        while (m_clients.size() < count)
            m_clients.push_back(std::make_unique<Greeter>(Role::client));
    }
    void StartClients()
    {
        std::vector<std::thread> starts;
        for (const auto& client : m_clients)
            starts.emplace_back([&client] { client->Start(); });
        for (std::thread& start : starts)
            start.join();
    }
    void StartService(milliseconds handling = milliseconds(0))
    {
        m_service = std::make_unique<Greeter>(Role::service, handling);
        m_service->Start();
    }

    void ExpectAllToArrive()
    {
        const auto is_complete = [this] {
            return m_service->IsComplete(m_clients.size()) &&
                   std::all_of(m_clients.begin(), m_clients.end(),
                               [](const auto& client) { return client->IsComplete(1); });
        };
        IterateUntil(is_complete, "everything that was sent at ready to arrive");
        EXPECT_THAT(m_service->Faults(), testing::IsEmpty());
        for (const auto& client : m_clients)
            EXPECT_THAT(client->Faults(), testing::IsEmpty());
    }

    std::string m_folder =
        (std::filesystem::temp_directory_path() / "pelmar-delivery-XXXXXX").string();
    std::optional<TestBus> m_bus;
    std::optional<StockBus> m_broker;
    std::unique_ptr<Greeter> m_service;
    std::vector<std::unique_ptr<Greeter>> m_clients;
};

TEST_P(ADelivery, IsCompleteWhenAServiceStartsUnderWaitingClients)
{
    MakeClients(Clients(40));
    StartClients();
    StartService();
    ExpectAllToArrive();
}

TEST_P(ADelivery, IsCompleteWhenClientsStartAtOneMoment)
{
    MakeClients(Clients(40));
    StartService();
    StartClients();
    ExpectAllToArrive();
}

TEST_P(ADelivery, IsCompleteWhenAllStartAtOneMoment)
{
    MakeClients(Clients(40));
    std::thread service([this] { StartService(); });
    StartClients();
    service.join();
    ExpectAllToArrive();
}

TEST_P(ADelivery, IsCompleteWhenTheServicesHandlersAreSlow)
{
    MakeClients(20);
    StartClients();
    StartService(milliseconds(20));
    ExpectAllToArrive();
}

TEST_P(ADelivery, IsCompleteAfterEachRestartOfTheService)
{
    MakeClients(Clients(20));
    StartClients();
    StartService();
    ExpectAllToArrive();
    for (int life = 0; life < 3; ++life) {
        for (const auto& client : m_clients)
            client->Forget();
        m_service.reset();
        StartService();
        ExpectAllToArrive();
    }
}

INSTANTIATE_TEST_SUITE_P(, ADelivery, testing::Values(Daemon::dbus_daemon, Daemon::dbus_broker),
                         [](const auto& daemon) {
                             return daemon.param == Daemon::dbus_daemon ? "OnDbusDaemon"
                                                                        : "OnDbusBroker";
                         });

}  // namespace
