// A bus that is reached over TCP, by its address.

#include <filesystem>
#include <fstream>

#include "endpoint-fixture.h"

namespace {

// Lets everybody in, as nobody in particular.
class TcpBus {
public:
    TcpBus()
    {
        if (mkdtemp(m_folder.data()) == nullptr)
            throw std::runtime_error("mkdtemp");
        Start();
    }
    ~TcpBus()
    {
        m_daemon.reset();
        std::filesystem::remove_all(m_folder);
    }
    TcpBus(const TcpBus&) = delete;
    TcpBus& operator=(const TcpBus&) = delete;

    std::string Address() const { return "tcp:host=127.0.0.1,port=" + m_port; }

    void Kill() { m_daemon->Kill(); }

    // The second time at the same port.
    void Start()
    {
        const std::string file = m_folder + "/bus.conf";
        std::ofstream(file) << "<busconfig><type>custom</type><listen>" << Listened()
                            << "</listen><auth>ANONYMOUS</auth><allow_anonymous/>"
                               "<policy context='default'><allow user='*'/><allow own='*'/>"
                               "<allow send_destination='*' eavesdrop='true'/>"
                               "<allow eavesdrop='true'/></policy></busconfig>";
        m_daemon = std::make_unique<ChildProcess>(
            std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
                                     "--config-file=" + file});
        const std::string rest = m_daemon->WaitForLine("tcp:");
        const std::string key = "port=";
        const std::size_t begin = rest.find(key) + key.size();
        m_port = rest.substr(begin, rest.find(',', begin) - begin);
    }

private:
    std::string Listened() const
    {
        return "tcp:host=127.0.0.1" + (m_port.empty() ? "" : ",port=" + m_port);
    }

    std::string m_folder = (std::filesystem::temp_directory_path() / "pelmar-tcp-XXXXXX").string();
    std::string m_port;
    std::unique_ptr<ChildProcess> m_daemon;
};

class ABusOverTcp : public testing::Test {
protected:
    ABusOverTcp()
    {
        for (End* end : {&m_service, &m_client}) {
            end->endpoint.SetBusAddress(m_bus.Address());
            end->endpoint.Start();
        }
    }

    void ExpectTraffic()
    {
        const Partner service = m_client.AwaitPartner();
        const Response response =
            m_client.endpoint.Request(service, BytesOf("ab"), std::chrono::seconds(15));
        EXPECT_EQ(Status::ok, response.status) << response.error;
        EXPECT_EQ(BytesOf("ba"), response.data);
        EXPECT_EQ(Status::ok, m_service.endpoint.Notify(m_service.AwaitPartner(), BytesOf("n")));
        m_client.news.Await("notification n", ++m_notified);
    }

    TcpBus m_bus;
    End m_service{Role::service};
    End m_client{Role::client};

private:
    std::size_t m_notified = 0;
};

TEST_F(ABusOverTcp, CarriesTheTrafficAndSaysOfNobodyWhoItIs)
{
    ExpectTraffic();
    EXPECT_FALSE(m_client.AwaitPartner().Uid());
}

TEST_F(ABusOverTcp, IsNoticedWhenItEndsAndWhenItIsBack)
{
    ExpectTraffic();
    m_bus.Kill();
    for (End* end : {&m_service, &m_client}) {
        end->news.Await("lost ");
        EXPECT_EQ(1U, end->news.Count("bus_lost"));
        EXPECT_FALSE(end->endpoint.IsOnBus());
    }
    m_bus.Start();
    for (End* end : {&m_service, &m_client}) {
        end->news.Await("bus_back");
        end->news.Await("ready ", 2);
    }
    ExpectTraffic();
}

}  // namespace
