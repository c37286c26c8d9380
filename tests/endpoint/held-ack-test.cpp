// Somebody holds the name of the client's ACK, which therefore never shows: two endpoints become
// ready all the same, and say so before they send and receive.

#include "endpoint-fixture.h"

namespace {

using testing::ElementsAre;

class TwoEndpointsWithoutAnAck : public EitherEndpointTest {
protected:
    // Sends as soon as it may.
    static void GreetWhenReady(End& end)
    {
        end.endpoint.OnReady([&end](const Partner& partner) {
            end.news.AddReady(partner);
            EXPECT_EQ(Status::ok, end.endpoint.Notify(partner, BytesOf("first")));
            end.endpoint.Request(partner, BytesOf("second"), std::chrono::seconds(15),
                                 [&end](const Response& response) {
                                     end.news.Add("answer " + TextOf(response.data));
                                 });
        });
    }
    static std::vector<std::string> TheirNewsAre(const End& end)
    {
        end.news.Await("answer ");
        end.news.Await("message ");
        std::vector<std::string> lines = end.news.All();
        lines.erase(std::remove(lines.begin(), lines.end(), "answer dnoces"), lines.end());
        return lines;
    }
};
INSTANTIATE_TEST_SUITE_P(OfWhichTheFirstIsThe, TwoEndpointsWithoutAnAck, BOTH_ROLES, RoleSuffix);

TEST_P(TwoEndpointsWithoutAnAck, BecomeReadyAllTheSameAndBeforeTheirTraffic)
{
    BusActor squatter(m_bus);
    ASSERT_EQ(1U, squatter.Acquire(StageName(Role::client, names::ACK)));
    End first(GetParam());
    End second(Opposite(GetParam()));
    GreetWhenReady(first);
    GreetWhenReady(second);
    first.endpoint.Start();
    second.endpoint.Start();
    EXPECT_THAT(TheirNewsAre(first), ElementsAre("ready " + second.endpoint.Name(),
                                                 "notification first", "message second"));
    EXPECT_THAT(TheirNewsAre(second), ElementsAre("ready " + first.endpoint.Name(),
                                                  "notification first", "message second"));
}

}  // namespace
