// A partner that does not read and whose queue at the bus daemon somebody else has filled: nothing
// that the daemon refuses is missing without the partner being told lost.

#include <functional>
#include <numeric>

#include "endpoint-fixture.h"
#include "endpoint-process.h"

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;

class AFloodedPartner : public EitherEndpointTest {
protected:
    AFloodedPartner() : EitherEndpointTest("<limit name=\"max_outgoing_bytes\">16000000</limit>") {}

    static std::string Numbered(char life, int number)
    {
        return life + std::to_string(number) + ".";
    }

    static std::string HexOf(const std::string& text)
    {
        std::string hex;
        char digits[3];
        for (const char character : text) {
            std::snprintf(digits, sizeof(digits), "%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(character)));
            hex += digits;
        }
        return hex;
    }

    // Fails for what was not sent.
    static int NumberOf(char life, int end, const std::string& hex)
    {
        for (int number = 0; number < end; ++number) {
            if (HexOf(Numbered(life, number)) == hex)
                return number;
        }
        ADD_FAILURE() << hex;
        return -1;
    }

    static std::vector<int> Numbers(int begin, int end)
    {
        std::vector<int> numbers(static_cast<std::size_t>(end - begin));
        std::iota(numbers.begin(), numbers.end(), begin);
        return numbers;
    }

    void Flood(const std::string& victim) const
    {
        BusActor stranger(m_bus);
        for (int i = 0; i < 20; ++i)
            stranger.Emit(victim, names::Path(CHANNEL), "SendSignal",
                          BusActor::Body(Bytes(1000000)));
        stranger.Settle();
    }
};
INSTANTIATE_TEST_SUITE_P(OfEitherRole, AFloodedPartner, BOTH_ROLES, RoleSuffix);

TEST_P(AFloodedPartner, IsToldLostWhenTheDaemonRefusesWhatItIsSentAndIsReadyAgainLater)
{
    Start(GetParam());
    EndpointProcess process(NameOf(Opposite(GetParam())), CHANNEL);
    m_news.Await("ready ");
    const Partner first = m_endpoint->Partners().front();
    int number = 0;
    for (; number < 10; ++number)
        ASSERT_EQ(Status::ok, m_endpoint->Notify(first, BytesOf(Numbered('a', number))));
    process.WaitForLine("notification " + HexOf(Numbered('a', 9)));

    process.Signal(SIGSTOP);
    process.WaitUntilStopped();
    // These lie in its queue, before what is refused.
    for (; number < 20; ++number)
        ASSERT_EQ(Status::ok, m_endpoint->Notify(first, BytesOf(Numbered('a', number))));
    BusActor own_messages_have_left(m_bus);
    Settle(own_messages_have_left);
    Flood(first.Name());
    while (m_news.Count("lost ") == 0 && number < 1000000) {
        if (m_endpoint->Notify(first, BytesOf(Numbered('a', number))) == Status::ok)
            ++number;
        std::this_thread::yield();
    }
    m_news.Await("lost " + first.Name());
    EXPECT_FALSE(first.IsReady());
    EXPECT_EQ(1U, m_news.Count("ready "));

    process.Signal(SIGCONT);
    m_news.Await("ready ", 2);
    const Partner second = m_news.PartnerNamed(first.Name());
    EXPECT_NE(first, second);
    EXPECT_THAT(m_endpoint->Partners(), ElementsAre(second));
    EXPECT_EQ(Status::no_such_partner, m_endpoint->Notify(first, {}));
    constexpr int count = 100;
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(Status::ok, m_endpoint->Notify(second, BytesOf(Numbered('b', i))));

    // Of the first some are missing, which is why it was lost; of the second nothing is.
    std::vector<int> came;
    std::string text = process.WaitForLine("notification ");
    for (; text != HexOf(Numbered('b', 0)); text = process.WaitForLine("notification "))
        came.push_back(NumberOf('a', number, text));
    EXPECT_EQ(came.end(), std::adjacent_find(came.begin(), came.end(), std::greater_equal<>()));
    EXPECT_THAT(came, IsSupersetOf(Numbers(10, 20)));
    EXPECT_LT(came.size(), static_cast<std::size_t>(number) - 10) << "nothing was refused";
    for (int i = 1; i < count; ++i)
        ASSERT_EQ(HexOf(Numbered('b', i)), process.WaitForLine("notification "));
    EXPECT_EQ(1U, m_news.Count("lost "));
}

}  // namespace
