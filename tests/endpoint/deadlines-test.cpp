// What is to happen when.

#include "deadlines.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::chrono::milliseconds;

class SomeDeadlines : public testing::Test {
protected:
    Deadlines::Id Add(int at, const std::string& name)
    {
        return m_deadlines.Add(m_start + milliseconds(at), [this, name] { m_done += name; });
    }

    // What was done up to that time, in order.
    std::string RunTo(int time)
    {
        m_done.clear();
        while (const Deadlines::Task task = m_deadlines.TakeDue(m_start + milliseconds(time)))
            task();
        return m_done;
    }

    const Deadlines::TimePoint m_start;
    Deadlines m_deadlines;
    std::string m_done;
};

TEST_F(SomeDeadlines, ComeInTheOrderOfTheirTimes)
{
    Add(30, "c");
    Add(10, "a");
    Add(20, "b");
    EXPECT_EQ("abc", RunTo(30));
}

TEST_F(SomeDeadlines, OfOneTimeComeInTheOrderInWhichTheyWereMade)
{
    Add(10, "a");
    Add(10, "b");
    EXPECT_EQ("ab", RunTo(10));
}

TEST_F(SomeDeadlines, DoNotComeBeforeTheirTime)
{
    Add(10, "a");
    EXPECT_EQ("", RunTo(9));
    EXPECT_EQ("a", RunTo(10));
    EXPECT_EQ("", RunTo(11));
}

TEST_F(SomeDeadlines, DoNotComeWhenTheyWereRemoved)
{
    const Deadlines::Id removed = Add(10, "a");
    Add(10, "b");
    m_deadlines.Remove(removed);
    m_deadlines.Remove(removed);
    m_deadlines.Remove(0);
    EXPECT_EQ("b", RunTo(10));
}

TEST_F(SomeDeadlines, TellTheNextOne)
{
    EXPECT_FALSE(m_deadlines.Next());
    Add(20, "b");
    const Deadlines::Id first = Add(10, "a");
    EXPECT_EQ(m_start + milliseconds(10), m_deadlines.Next());
    m_deadlines.Remove(first);
    EXPECT_EQ(m_start + milliseconds(20), m_deadlines.Next());
    m_deadlines.Clear();
    EXPECT_FALSE(m_deadlines.Next());
}

}  // namespace
