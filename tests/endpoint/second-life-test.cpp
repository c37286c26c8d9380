// An endpoint ends and another one takes its place in the same process; its partners notice both.

#include "endpoint-fixture.h"
#include "endpoint-process.h"

namespace {

using testing::ElementsAre;

class ASecondLife : public EitherEndpointTest {
protected:
    // Each life is seen by a partner that stays, and greeted by it in its OnReady.
    void ExpectLives(int count)
    {
        End partner(Opposite(GetParam()));
        partner.endpoint.OnReady([&](const Partner& met) {
            EXPECT_EQ(Status::ok, partner.endpoint.Notify(met, BytesOf("hello")));
            partner.news.AddReady(met);
        });
        partner.endpoint.Start();
        std::vector<std::string> expected;
        for (int life = 0; life < count; ++life) {
            m_news.Clear();
            Start(GetParam());
            const std::string name = OwnName();
            m_news.Await("notification hello");
            EXPECT_THAT(m_news.All(),
                        ElementsAre("ready " + partner.endpoint.Name(), "notification hello"));
            partner.news.Await("ready " + name);
            if (life % 2 == 0)
                ASSERT_TRUE(m_endpoint->Stop());
            else
                m_endpoint.reset();
            partner.news.Await("lost " + name);
            expected.push_back("ready " + name);
            expected.push_back("lost " + name);
        }
        EXPECT_EQ(expected, partner.news.All());
    }
};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, ASecondLife, BOTH_ROLES, RoleSuffix);

TEST_P(ASecondLife, IsAsGoodAsTheFirst)
{
    ExpectLives(Scale("PELMAR_LIVES", 100));
}

TEST_P(ASecondLife, IsAsGoodAsTheFirstWhileSomebodyElseHoldsTheSharedConnection)
{
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    End other(GetParam(), "other");
    other.endpoint.Start();
    ExpectLives(10);
    g_object_unref(shared);
}

TEST_P(ASecondLife, FindsThePartnerInAnotherProcess)
{
    EndpointProcess partner(NameOf(Opposite(GetParam())), CHANNEL);
    for (int life = 0; life < 10; ++life) {
        Start(GetParam());
        const std::string name = OwnName();
        partner.WaitForLine("ready " + name);
        m_news.Await("ready ", static_cast<std::size_t>(life) + 1);
        m_endpoint.reset();
        partner.WaitForLine("lost " + name);
    }
}

// The bus may give the new daemon's first guest the name that the old one's had.
TEST_P(ASecondLife, OfABusNameIsNotReachedByWhatIsSentToTheFirst)
{
    Start(GetParam());
    auto first = std::make_unique<BusActor>(m_bus);
    MakeReady(*first);
    const Partner old = PartnerOf(*first);
    const std::string name = first->UniqueName();
    m_bus.Kill();
    m_news.Await("lost");
    first.reset();
    m_bus.Start();
    m_news.Await("bus_back");
    std::vector<std::unique_ptr<BusActor>> guests;
    do {
        guests.push_back(std::make_unique<BusActor>(m_bus));
        ASSERT_LT(guests.size(), 20U) << name << " was not given away again";
    } while (guests.back()->UniqueName() != name);
    m_news.Clear();
    BusActor& second = *guests.back();
    second.Listen(CHANNEL);
    MakeReady(second);
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify(old, BytesOf("for the first")));
    EXPECT_EQ(Status::no_such_partner,
              m_endpoint->Request(old, {}, std::chrono::seconds(1)).status);
    EXPECT_NE(old, PartnerOf(second));
    EXPECT_EQ(old.Name(), PartnerOf(second).Name());
    EXPECT_FALSE(old.IsReady());
    EXPECT_EQ(Status::ok, m_endpoint->Notify(PartnerOf(second), BytesOf("for the second")));
    IterateUntil([&] { return !second.Heard().empty(); }, "the notification");
    EXPECT_THAT(second.Heard(), ElementsAre(BytesOf("for the second")));
}

}  // namespace
