// When the bus is tried again.

#include "reconnect-delay.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

TEST(AReconnectDelay, IsShortForABusThatHasJustGone)
{
    EXPECT_EQ(milliseconds(50), ReconnectDelayAfter(milliseconds(0)));
    EXPECT_EQ(milliseconds(50), ReconnectDelayAfter(milliseconds(49)));
}

TEST(AReconnectDelay, GrowsWithTheAbsence)
{
    EXPECT_EQ(milliseconds(51), ReconnectDelayAfter(milliseconds(51)));
    EXPECT_EQ(milliseconds(400), ReconnectDelayAfter(milliseconds(400)));
}

TEST(AReconnectDelay, IsNeverMoreThanASecond)
{
    EXPECT_EQ(milliseconds(1000), ReconnectDelayAfter(milliseconds(1001)));
    EXPECT_EQ(milliseconds(1000), ReconnectDelayAfter(std::chrono::hours(1000)));
}

}  // namespace
