// Descriptors that came from somebody else are closed, and nobody waits for it.

#include "foreign-descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <utility>

#include "lingering-socket.h"
#include "passed-descriptors.h"

namespace {

bool IsOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) >= 0;
}

std::pair<int, int> Pair()
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error("no pair of sockets");
    return {ends[0], ends[1]};
}

TEST(AForeignDescriptor, IsClosedWithoutWaiting)
{
    LingeringSocket socket;
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { CloseElsewhere(socket.Release()); }));
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { socket.AwaitItsEnd(); }));
}

TEST(AForeignDescriptor, IsClosedWhenTheOneBeforeIsToo)
{
    std::array<LingeringSocket, 20> sockets;
    EXPECT_TRUE(LingeringSocket::IsQuick([&] {
        for (LingeringSocket& socket : sockets)
            CloseElsewhere(socket.Release());
    }));
    for (const LingeringSocket& socket : sockets)
        socket.AwaitItsEnd();
}

TEST(AForeignDescriptor, OfMemoryIsClosedAtOnce)
{
    const int memory = memfd_create("test", MFD_CLOEXEC);
    CloseElsewhere(memory);
    EXPECT_FALSE(IsOpen(memory));
}

TEST(ASocketEnd, IsClosedAtOnceAndTheOtherSideSeesIt)
{
    const auto [own, other] = Pair();
    const int copy = dup(own);
    CloseSocketEnd(own);
    EXPECT_FALSE(IsOpen(own));
    char byte = 0;
    EXPECT_EQ(0, recv(other, &byte, 1, 0)) << "though somebody holds it";
    close(copy);
    close(other);
}

TEST(ASocketEnd, DoesNotWaitForWhatCameAndWasNotRead)
{
    const auto [own, other] = Pair();
    LingeringSocket socket;
    ASSERT_EQ(1, SendWith(other, {'x'}, {socket.Number()}));
    close(socket.Release());
    EXPECT_TRUE(LingeringSocket::IsQuick([own = own] { CloseSocketEnd(own); }));
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { socket.AwaitItsEnd(); }));
    close(other);
}

}  // namespace
