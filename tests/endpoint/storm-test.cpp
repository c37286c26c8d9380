// Handshake storms: many clients that start at the same moment, and a service that is killed and
// started again under all of them. PELMAR_STORM_CLIENTS sets how many clients; the times are shown.

#include <cstdio>

#include "channel-end.h"
#include "endpoint-fixture.h"

namespace {

using Kind = ChannelEnd::Kind;

class AStorm : public testing::Test {
protected:
    void Run(Kind service, Kind clients)
    {
        Storm storm(service, std::vector<Kind>(m_count, clients));
        ExpectAllReady("start", storm.Start());
        ExpectAllReady("restart", storm.RestartService());
    }

    void ExpectAllReady(const char* what, const Storm::Result& result) const
    {
        std::printf("%s: %zu of %zu ready at the service, %zu at the clients, after %.2f s\n", what,
                    result.at_service, m_count, result.at_clients, result.seconds);
        EXPECT_EQ(m_count, result.at_service);
        EXPECT_EQ(m_count, result.at_clients);
    }

    const std::size_t m_count = static_cast<std::size_t>(Scale("PELMAR_STORM_CLIENTS", 20));
    TestBus m_bus;
};

TEST_F(AStorm, OfEndpointsEndsWithAllReadyAtBothEnds)
{
    Run(Kind::endpoint, Kind::endpoint);
}

TEST_F(AStorm, OfEndpointsOnAPlainServiceEndsWithAllReadyAtBothEnds)
{
    Run(Kind::plain, Kind::endpoint);
}

// Of the plain clients among them the service may never see a pulse; they cannot repair that.
TEST_F(AStorm, OfPlainClientsAndEndpointsEndsWithEveryEndpointReadyAtBothEnds)
{
    std::vector<Kind> kinds;
    for (std::size_t i = 0; i < m_count; ++i)
        kinds.push_back(i % 2 == 0 ? Kind::endpoint : Kind::plain);
    Storm storm(Kind::endpoint, kinds);
    storm.Service().Go();
    for (std::size_t i = 0; i < m_count; ++i)
        storm.Client(i).Go();

    // The service's notification reaches those that are ready at the service.
    std::size_t ready = 0;
    std::size_t heard = 0;
    const auto all_heard = [&] {
        if (std::exchange(ready, storm.Service().Ready()) != ready)
            storm.Service().Tell("notify 2a");
        heard = 0;
        for (std::size_t i = 0; i < m_count; i += 2)
            heard += storm.Client(i).Ready() != 0 && !storm.Client(i).Notifications().empty();
        return heard == (m_count + 1) / 2;
    };
    EXPECT_TRUE(storm.Await(all_heard)) << heard << " endpoints came through";
}

}  // namespace
