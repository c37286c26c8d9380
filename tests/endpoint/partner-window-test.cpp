// The window of one partner: order, room and what is under way.

#include "partner-window.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Kind = Outgoing::Kind;
using Item = PartnerWindow::Item;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
constexpr bool MAY_CALL = true;

// Of that cost, overhead included.
Item Of(Kind kind, std::size_t cost)
{
    return std::make_shared<Outgoing>(kind, cost - MESSAGE_OVERHEAD);
}
Item Notification(std::size_t cost)
{
    return Of(Kind::notification, cost);
}
Item Request(std::size_t cost)
{
    return Of(Kind::request, cost);
}
Item Answer(std::size_t cost)
{
    return Of(Kind::answer, cost);
}

class APartnerWindow : public testing::Test {
protected:
    // Everything that may leave, in order.
    std::vector<Item> LetLeave()
    {
        std::vector<Item> left;
        while (Item item = m_window.Next(MAY_CALL))
            left.push_back(item);
        return left;
    }

    // Takes until there is no room, and says how many were taken.
    int Fill(std::size_t cost)
    {
        int taken = 0;
        while (m_window.Take(Notification(cost)))
            ++taken;
        return taken;
    }

    const std::shared_ptr<Transit> m_all = std::make_shared<Transit>();
    PartnerWindow m_window{8 * MIB, 4 * MIB, m_all};
};

TEST_F(APartnerWindow, TakesWhatFitsAndRefusesTheRest)
{
    EXPECT_EQ(8, Fill(MIB));
    EXPECT_FALSE(m_window.Take(Request(MIB)));
}

TEST_F(APartnerWindow, TakesAMessageOfAnySizeWhileLessThanASixteenthIsInUse)
{
    EXPECT_TRUE(m_window.Take(Notification(512 * KIB)));
    EXPECT_TRUE(m_window.Take(Notification(32 * MIB)));
    EXPECT_FALSE(m_window.Take(Notification(KIB)));
}

TEST_F(APartnerWindow, RefusesALargeMessageWhileMoreThanASixteenthIsInUse)
{
    EXPECT_TRUE(m_window.Take(Notification(513 * KIB)));
    EXPECT_FALSE(m_window.Take(Notification(32 * MIB)));
}

TEST_F(APartnerWindow, LetsANotificationPassWhenNothingWaits)
{
    EXPECT_TRUE(m_window.Pass(KIB));
    EXPECT_EQ(KIB, m_window.Position());
    EXPECT_EQ(KIB, m_all->bytes);
    EXPECT_FALSE(m_window.HasWaiting());
    ASSERT_TRUE(m_window.Take(Request(KIB)));
    EXPECT_FALSE(m_window.Pass(KIB));
    EXPECT_EQ(KIB, m_window.Position());
}
TEST_F(APartnerWindow, LetsNothingPassThatHasNoRoom)
{
    EXPECT_TRUE(m_window.Pass(5 * MIB));
    EXPECT_FALSE(m_window.Pass(4 * MIB));
    EXPECT_TRUE(m_window.Pass(3 * MIB));
    m_window.DealtWith(5 * MIB);
    EXPECT_TRUE(m_window.Pass(4 * MIB));
    m_window.DealtWith(m_window.Position());
    EXPECT_EQ(0U, m_all->bytes);
    EXPECT_EQ(8, Fill(MIB));
}
TEST_F(APartnerWindow, LetsMessagesLeaveInTheirOrder)
{
    const std::vector<Item> all = {Notification(KIB), Request(KIB), Answer(KIB), Notification(KIB)};
    for (const Item& item : all)
        ASSERT_TRUE(m_window.Take(item));
    EXPECT_EQ(all, LetLeave());
}

TEST_F(APartnerWindow, LetsNoMoreThanTheTransitBeUnderWay)
{
    Fill(128 * KIB);
    EXPECT_EQ(4U, LetLeave().size());
    EXPECT_TRUE(m_window.HasWaiting());
}

TEST_F(APartnerWindow, LetsOneMessageLeaveThatIsLargerThanTheTransit)
{
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    ASSERT_TRUE(m_window.Take(Notification(KIB)));
    EXPECT_EQ(1U, LetLeave().size());
}

TEST_F(APartnerWindow, GoesOnWhenThePartnerHasDealtWithWhatIsUnderWay)
{
    Fill(128 * KIB);
    LetLeave();
    m_window.DealtWith(m_window.Position());
    EXPECT_EQ(4U, LetLeave().size());
}

TEST_F(APartnerWindow, GivesTheRoomOfNotificationsBackWhenTheyAreDealtWith)
{
    EXPECT_EQ(16, Fill(512 * KIB));
    LetLeave();
    EXPECT_EQ(0, Fill(512 * KIB));
    m_window.DealtWith(m_window.Position());
    EXPECT_EQ(1, Fill(512 * KIB));
}

TEST_F(APartnerWindow, GivesNothingBackForWhatLeftAfterThePartnersWord)
{
    PartnerWindow small(MIB, MIB, m_all);
    ASSERT_TRUE(small.Take(Notification(100 * KIB)));
    ASSERT_NE(nullptr, small.Next(MAY_CALL));
    const std::uint64_t asked_at = small.Position();
    ASSERT_TRUE(small.Take(Notification(300 * KIB)));
    ASSERT_NE(nullptr, small.Next(MAY_CALL));
    small.DealtWith(asked_at);
    EXPECT_FALSE(small.Take(Notification(800 * KIB)));
    EXPECT_TRUE(small.Take(Notification(700 * KIB)));
}

TEST_F(APartnerWindow, GivesTheRoomOfARequestBackWhenItIsAnsweredOnly)
{
    const Item request = Request(8 * MIB);
    ASSERT_TRUE(m_window.Take(request));
    LetLeave();
    m_window.DealtWith(m_window.Position());
    EXPECT_FALSE(m_window.Take(Notification(MIB)));
    m_window.End(*request, true);
    EXPECT_TRUE(m_window.Take(Notification(MIB)));
}

TEST_F(APartnerWindow, TakesAnAnswerAsWordOfAllThatLeftBeforeTheRequest)
{
    ASSERT_TRUE(m_window.Take(Notification(400 * KIB)));
    const Item request = Request(KIB);
    ASSERT_TRUE(m_window.Take(request));
    ASSERT_TRUE(m_window.Take(Notification(400 * KIB)));
    EXPECT_EQ(2U, LetLeave().size());
    m_window.End(*request, true);
    EXPECT_EQ(1U, LetLeave().size());
}

TEST_F(APartnerWindow, TakesARefusalOfTheBusAsNoWordOfThePartner)
{
    ASSERT_TRUE(m_window.Take(Notification(400 * KIB)));
    const Item request = Request(KIB);
    ASSERT_TRUE(m_window.Take(request));
    ASSERT_TRUE(m_window.Take(Notification(400 * KIB)));
    LetLeave();
    m_window.End(*request, false);
    EXPECT_TRUE(LetLeave().empty());
}

TEST_F(APartnerWindow, HoldsRequestsBackWhileThereIsNoCallForThem)
{
    ASSERT_TRUE(m_window.Take(Request(KIB)));
    ASSERT_TRUE(m_window.Take(Notification(KIB)));
    EXPECT_EQ(nullptr, m_window.Next(!MAY_CALL));
    EXPECT_EQ(2U, LetLeave().size());
}

TEST_F(APartnerWindow, ForgetsARequestThatIsDropped)
{
    const Item request = Request(8 * MIB);
    ASSERT_TRUE(m_window.Take(request));
    m_window.Drop(*request);
    EXPECT_FALSE(m_window.HasWaiting());
    EXPECT_EQ(8, Fill(MIB));
}

// Whoever waits for an answer may look at nothing else.
TEST_F(APartnerWindow, LetsEverythingLeaveThatIsAheadOfAnAnswer)
{
    Fill(128 * KIB);
    LetLeave();
    ASSERT_TRUE(m_window.Take(Answer(KIB)));
    const std::vector<Item> left = LetLeave();
    ASSERT_FALSE(left.empty());
    EXPECT_EQ(Kind::answer, left.back()->kind);
    EXPECT_FALSE(m_window.HasWaiting());
}

TEST_F(APartnerWindow, LetsNoMoreLeaveAheadOfAnAnswerThanThePartnerHasRoomFor)
{
    PartnerWindow large(100 * MIB, MIB, m_all);
    for (int i = 0; i < 6; ++i)
        ASSERT_TRUE(large.Take(Notification(10 * MIB)));
    ASSERT_TRUE(large.Take(Answer(KIB)));
    int left = 0;
    while (large.Next(MAY_CALL) != nullptr)
        ++left;
    EXPECT_EQ(3, left);
}

TEST_F(APartnerWindow, HoldsAnswersBackThatAreNotRead)
{
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(m_window.Take(Answer(256 * KIB)));
    EXPECT_EQ(4U, LetLeave().size());
    m_window.AnswersTaken();
    EXPECT_EQ(4U, LetLeave().size());
}

TEST_F(APartnerWindow, RefusesAnswersOverTheirBound)
{
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(m_window.Take(Answer(MIB)));
    EXPECT_FALSE(m_window.Take(Answer(MIB)));
}

TEST_F(APartnerWindow, TakesOneAnswerOfAnySize)
{
    EXPECT_TRUE(m_window.Take(Answer(32 * MIB)));
}

TEST_F(APartnerWindow, KeepsAnswersApartFromTheRoomOfTheOthers)
{
    Fill(MIB);
    EXPECT_TRUE(m_window.Take(Answer(MIB)));
}

TEST_F(APartnerWindow, WantsThePartnersWordWhenMuchIsUnderWay)
{
    ASSERT_TRUE(m_window.Take(Notification(200 * KIB)));
    LetLeave();
    EXPECT_FALSE(m_window.WantsWord());
    ASSERT_TRUE(m_window.Take(Notification(200 * KIB)));
    LetLeave();
    EXPECT_TRUE(m_window.WantsWord());
    m_window.DealtWith(m_window.Position());
    EXPECT_FALSE(m_window.WantsWord());
}

TEST_F(APartnerWindow, WantsThePartnersWordWhenSomethingWasRefused)
{
    ASSERT_TRUE(m_window.Take(Notification(8 * MIB)));
    LetLeave();
    m_window.DealtWith(m_window.Position());
    ASSERT_TRUE(m_window.Take(Notification(100 * KIB)));
    ASSERT_TRUE(m_window.Take(Notification(7 * MIB)));
    ASSERT_FALSE(m_window.Take(Notification(2 * MIB)));
    EXPECT_EQ(1U, LetLeave().size());
    EXPECT_TRUE(m_window.WantsWord());
}

TEST_F(APartnerWindow, WantsNoWordOfWhatHasNotLeft)
{
    ASSERT_TRUE(m_window.Take(Request(KIB)));
    EXPECT_FALSE(m_window.WantsWord());
}

TEST_F(APartnerWindow, HasRoomAgainOnceWhenWhatWasRefusedFits)
{
    Fill(512 * KIB);
    LetLeave();
    EXPECT_FALSE(m_window.HasRoomAgain());
    int rounds = 0;
    while (!m_window.HasRoomAgain()) {
        ASSERT_LT(++rounds, 20);
        m_window.DealtWith(m_window.Position());
        LetLeave();
    }
    EXPECT_FALSE(m_window.HasRoomAgain());
    EXPECT_TRUE(m_window.Take(Notification(512 * KIB)));
    EXPECT_EQ(8, rounds);  // half of it is free
}

TEST_F(APartnerWindow, HasNoRoomAgainWhereNothingWasRefused)
{
    ASSERT_TRUE(m_window.Take(Notification(KIB)));
    LetLeave();
    m_window.DealtWith(m_window.Position());
    EXPECT_FALSE(m_window.HasRoomAgain());
}

TEST_F(APartnerWindow, HasRoomAgainForTheSmallestThatWasRefused)
{
    ASSERT_TRUE(m_window.Take(Notification(4 * MIB)));
    ASSERT_TRUE(m_window.Take(Notification(3 * MIB)));
    ASSERT_FALSE(m_window.Take(Notification(2 * MIB)));
    ASSERT_FALSE(m_window.Take(Notification(7 * MIB)));
    LetLeave();
    m_window.DealtWith(m_window.Position());
    EXPECT_TRUE(m_window.HasRoomAgain());
}

TEST_F(APartnerWindow, LeavesRoomUnderWayForSmallMessagesToOthers)
{
    m_all->bytes = Transit::MOST_BYTES_FOR_LARGE;
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    m_window.WordCame(m_window.Ask());
    EXPECT_TRUE(LetLeave().empty());
    PartnerWindow other(8 * MIB, 4 * MIB, m_all);
    ASSERT_TRUE(other.Take(Notification(KIB)));
    EXPECT_NE(nullptr, other.Next(MAY_CALL));
}

TEST_F(APartnerWindow, LetsALargeMessageLeaveForAPartnerThatHasJustAnsweredWhenMuchIsUnderWay)
{
    m_all->bytes = Transit::CAREFREE_BYTES + 1;
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    EXPECT_TRUE(LetLeave().empty());
    EXPECT_TRUE(m_window.WantsWord());
    m_window.WordCame(m_window.Ask());
    EXPECT_EQ(1U, LetLeave().size());
    m_window.DealtWith(m_window.Position());
    EXPECT_TRUE(LetLeave().empty());
}

TEST_F(APartnerWindow, TakesNoWordForALargeMessageThatWasAskedForBeforeIt)
{
    m_all->bytes = Transit::CAREFREE_BYTES + 1;
    const std::uint64_t asked_at = m_window.Ask();
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    m_window.WordCame(asked_at);
    EXPECT_TRUE(LetLeave().empty());
}

TEST_F(APartnerWindow, LetsALargeMessageLeaveAheadOfAnAnswerWhenMuchIsUnderWay)
{
    m_all->bytes = Transit::CAREFREE_BYTES + 1;
    ASSERT_TRUE(m_window.Take(Notification(2 * MIB)));
    ASSERT_TRUE(m_window.Take(Answer(KIB)));
    EXPECT_EQ(2U, LetLeave().size());
}

TEST_F(APartnerWindow, LetsNothingLeaveWhenTooMuchIsUnderWayToAll)
{
    m_all->bytes = Transit::MOST_BYTES;
    ASSERT_TRUE(m_window.Take(Notification(KIB)));
    EXPECT_TRUE(LetLeave().empty());
}

TEST_F(APartnerWindow, CountsForAllWhatIsUnderWayUntilItIsDealtWith)
{
    PartnerWindow other(8 * MIB, 4 * MIB, m_all);
    ASSERT_TRUE(other.Take(Notification(MIB)));
    ASSERT_NE(nullptr, other.Next(MAY_CALL));
    EXPECT_EQ(MIB, m_all->bytes);
    other.DealtWith(other.Position());
    EXPECT_EQ(0U, m_all->bytes);
}

}  // namespace
