// What is read from messages of the bus, whatever is in them.

#include "bus-messages.h"

#include <gio/gunixfdlist.h>
#include <gtest/gtest.h>

#include "lingering-socket.h"

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

// The message is the last to hold them.
MessagePtr MessageWith(std::array<LingeringSocket, 2>& sockets, GVariant* body)
{
    MessagePtr message = SignalWith(body);
    const std::array<int, 2> numbers = {sockets[0].Release(), sockets[1].Release()};
    GUnixFDList* list = g_unix_fd_list_new_from_array(numbers.data(), 2);
    g_dbus_message_set_unix_fd_list(message.get(), list);
    g_object_unref(list);
    return message;
}

TEST(DescriptorsOfAMessage, AreDroppedWithoutWaiting)
{
    std::array<LingeringSocket, 2> sockets;
    const MessagePtr message = MessageWith(sockets, g_variant_new("()"));
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { bus_message::DropDescriptors(message.get()); }));
    for (const LingeringSocket& socket : sockets)
        socket.AwaitItsEnd();
}

TEST(DescriptorsOfAMessage, AreTheCallersWhereTheyAreAskedFor)
{
    std::array<LingeringSocket, 2> sockets;
    const int second = sockets[1].Number();
    const MessagePtr message = MessageWith(sockets, g_variant_new("(uh)", 1U, 1));
    ForeignDescriptor taken;
    EXPECT_TRUE(LingeringSocket::IsQuick([&] {
        taken = bus_message::TakeDescriptor(message.get());
        bus_message::DropDescriptors(message.get());
    }));
    EXPECT_EQ(second, taken.Number());
    sockets[0].AwaitItsEnd();
}

TEST(DescriptorsOfAMessage, AreNotTakenFromAnythingElse)
{
    for (GVariant* body :
         {g_variant_new("()"), g_variant_new("(uh)", 0U, 0), g_variant_new("(uh)", 1U, 2),
          g_variant_new("(uh)", 1U, -1), g_variant_new("(hu)", 0, 1U)}) {
        std::array<LingeringSocket, 2> sockets;
        EXPECT_FALSE(bus_message::TakeDescriptor(MessageWith(sockets, body).get()).IsOpen());
        for (const LingeringSocket& socket : sockets)
            socket.AwaitItsEnd();
    }
}

}  // namespace
