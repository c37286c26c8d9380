// What is read from messages of the bus, whatever is in them.

#include "bus-messages.h"

#include <gtest/gtest.h>

namespace {

MessagePtr SignalWith(GVariant* body)
{
    return bus_message::Signal(":1.5", "/path", body);
}

TEST(AnOwnerChange, IsReadFromItsBody)
{
    const MessagePtr signal = SignalWith(g_variant_new("(sss)", "name", "", ":1.7"));
    const auto change = bus_message::ReadOwnerChange(signal.get());
    ASSERT_TRUE(change);
    EXPECT_EQ("name", change->name);
    EXPECT_EQ("", change->old_owner);
    EXPECT_EQ(":1.7", change->new_owner);
}

TEST(AnOwnerChange, IsNotReadFromAnythingElse)
{
    for (GVariant* body :
         {g_variant_new("()"), g_variant_new("(ss)", "name", ""),
          g_variant_new("(ssu)", "name", "", 7U), g_variant_new("(ssss)", "name", "", ":1.7", "")})
        EXPECT_FALSE(bus_message::ReadOwnerChange(SignalWith(body).get()));
}

TEST(ANumber, IsReadFromABodyOfOneAlone)
{
    EXPECT_EQ(7U, bus_message::Number(SignalWith(g_variant_new("(u)", 7U)).get()));
    EXPECT_FALSE(bus_message::Number(SignalWith(g_variant_new("(uu)", 7U, 7U)).get()));
    EXPECT_FALSE(bus_message::Number(SignalWith(g_variant_new("(i)", 7)).get()));
    EXPECT_FALSE(bus_message::Number(SignalWith(g_variant_new("()")).get()));
}

TEST(TheFirstString, IsEmptyWhereThereIsNone)
{
    EXPECT_EQ("a", bus_message::FirstString(SignalWith(g_variant_new("(su)", "a", 1U)).get()));
    EXPECT_EQ("", bus_message::FirstString(SignalWith(g_variant_new("(us)", 1U, "a")).get()));
    EXPECT_EQ("", bus_message::FirstString(SignalWith(g_variant_new("()")).get()));
}

}  // namespace
