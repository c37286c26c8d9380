// How many copies of a large message there are at one time, at both ends.

#include "endpoint-fixture.h"
#include "process-memory.h"

namespace {

constexpr std::size_t LARGE = 31 * MIB;

// What else a process comes to need meanwhile.
constexpr std::size_t SLACK = 12 * MIB;

class ALargeRequest : public EndpointTest, public testing::WithParamInterface<std::string> {
protected:
    void SetUp() override
    {
        if (!MEMORY_IS_MEASURED)
            GTEST_SKIP() << "a sanitizer has memory of its own";
    }
};
INSTANTIATE_TEST_SUITE_P(, ALargeRequest, testing::Values("request", "request-later"),
                         [](const auto& how) {
                             return how.param == "request" ? "ThatIsWaitedFor" : "InTheBackground";
                         });

TEST_P(ALargeRequest, IsThereTwiceAtTheSenderAndThriceAtTheReceiver)
{
    ChildProcess service({PELMAR_ENDPOINT_CROWD, "service", CHANNEL, "1"});
    ChildProcess client({PELMAR_ENDPOINT_CROWD, "client", CHANNEL, "1"});
    service.WaitForLine("ready ");
    client.WaitForLine("ready ");
    const ProcessMemory at_sender(client.Pid());
    const ProcessMemory at_receiver(service.Pid());
    const std::size_t sender_before = at_sender.Resident();
    const std::size_t receiver_before = at_receiver.Resident();
    client.WriteLine(GetParam() + " " + std::to_string(LARGE));
    EXPECT_EQ(std::to_string(LARGE), service.WaitForLine("taken "));
    EXPECT_EQ("ok", client.WaitForLine("status "));
    EXPECT_LE((at_sender.Peak() - sender_before) / MIB, (2 * LARGE + SLACK) / MIB);
    EXPECT_LE((at_receiver.Peak() - receiver_before) / MIB, (3 * LARGE + SLACK) / MIB);
    EXPECT_GE(at_receiver.Peak() - receiver_before, LARGE - MIB) << "nothing was measured";
}

}  // namespace
