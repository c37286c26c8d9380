// When so much is sent that it is collected.

#include "send-rate.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::microseconds;

class ASendRate : public testing::Test {
protected:
    // So many messages, one each time.
    void Send(int messages, microseconds apart)
    {
        for (int i = 0; i < messages; ++i) {
            m_now += apart;
            m_rate.Count(m_now, 1);
        }
    }
    bool IsHigh() const { return m_rate.IsHigh(m_now); }

    SendRate m_rate;
    SendRate::TimePoint m_now{std::chrono::hours(1)};
};

TEST_F(ASendRate, IsNotHighForWhatIsSentAtOnceNowAndThen)
{
    EXPECT_FALSE(IsHigh());
    for (int i = 0; i < 10; ++i) {
        m_rate.Count(m_now, SendRate::AT_ONCE);
        EXPECT_FALSE(IsHigh());
        m_now += SendRate::AT_ONCE * SendRate::INTERVAL;
    }
}

TEST_F(ASendRate, IsHighForMoreAtOnce)
{
    m_rate.Count(m_now, SendRate::AT_ONCE + 1);
    EXPECT_TRUE(IsHigh());
}

TEST_F(ASendRate, IsNotHighForAStreamThatIsSlowEnough)
{
    Send(10000, SendRate::INTERVAL);
    EXPECT_FALSE(IsHigh());
}

TEST_F(ASendRate, IsHighForAFasterStreamAfterAWhile)
{
    Send(SendRate::AT_ONCE, microseconds(10));
    EXPECT_FALSE(IsHigh());
    Send(SendRate::AT_ONCE, microseconds(10));
    EXPECT_TRUE(IsHigh());
}

TEST_F(ASendRate, IsSoonLowAgainHoweverMuchWasSent)
{
    Send(100000, microseconds(1));
    EXPECT_TRUE(IsHigh());
    m_now += SendRate::AT_ONCE * SendRate::INTERVAL - microseconds(1);
    EXPECT_TRUE(IsHigh());
    m_now += microseconds(1);
    EXPECT_FALSE(IsHigh());
}

TEST_F(ASendRate, IsNotHighForWhoTalksToAndFro)
{
    for (int i = 0; i < 1000; ++i) {
        Send(1, microseconds(5));
        EXPECT_FALSE(IsHigh());
        m_rate.Count(m_now, -1);
    }
}

TEST_F(ASendRate, KeepsNoRoomOfWhatCame)
{
    m_rate.Count(m_now, -1000);
    m_rate.Count(m_now, SendRate::AT_ONCE + 1);
    EXPECT_TRUE(IsHigh());
}

}  // namespace
