// The two ends of a direct path, without a bus: what is written at one is read at the other, in
// order, also where it goes by memory that both have; and nothing but that.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "direct-socket.h"
#include "frame-bytes.h"
#include "lingering-socket.h"
#include "passed-descriptors.h"
#include "process-resources.h"

namespace {

using testing::HasSubstr;
using ReadResult = DirectSocket::ReadResult;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = KIB * KIB;
constexpr std::uint64_t LARGEST = 64 * MIB;

Payload Shared(Bytes bytes)
{
    return std::make_shared<const Bytes>(std::move(bytes));
}

FrameHead HeadOf(FrameType type, std::uint32_t serial = 0, std::uint16_t slot = 0,
                 std::uint64_t size = 0)
{
    FrameHead head;
    head.type = type;
    head.serial = serial;
    head.slot = slot;
    head.size = size;
    return head;
}

struct End {
    explicit End(int descriptor) : socket(SocketEnd(descriptor), LARGEST)
    {
        socket.Write(HeadOf(FrameType::hello), Shared(EncodeHello({1, LARGEST})), 0);
        Flush();
    }
    void Flush()
    {
        socket.HasRoom();
        EXPECT_TRUE(socket.Flush());
    }
    void Write(std::uint32_t serial, Bytes bytes)
    {
        socket.Write(HeadOf(FrameType::request, serial), Shared(std::move(bytes)), serial);
    }
    void Notify(std::uint32_t serial, Bytes bytes)
    {
        Write(serial, std::move(bytes));
        Flush();
    }
    // Everything that has come, but for the greeting; answers about slots leave.
    void Read()
    {
        std::vector<Frame> frames;
        do
            last = socket.Read(buffer, frames);
        while (last == ReadResult::some);
        for (Frame& frame : frames) {
            if (frame.head.type != FrameType::hello)
                came.push_back(std::move(frame));
        }
        Flush();
    }

    DirectSocket socket;
    Bytes buffer;
    std::vector<Frame> came;
    ReadResult last = ReadResult::drained;
};

class TwoEnds : public testing::Test {
protected:
    explicit TwoEnds(std::pair<SocketEnd, Descriptor> sockets = ConnectedSockets())
        : m_one(sockets.first.Release()), m_other(sockets.second.Release())
    {
    }

    // Until both have read and written everything.
    void Exchange()
    {
        for (int i = 0; i < 200; ++i) {
            m_one.Flush();
            m_other.Read();
            m_one.Read();
        }
    }
    void HaveASlot(std::size_t size)
    {
        m_one.Notify(0, Bytes(size));
        Exchange();
        m_other.came.clear();
    }
    // Of the messages that have come.
    std::vector<std::uint16_t> Slots() const
    {
        std::vector<std::uint16_t> slots;
        for (const Frame& frame : m_other.came)
            slots.push_back(frame.head.slot);
        return slots;
    }

    End m_one;
    End m_other;
};

TEST_F(TwoEnds, BringALargeMessageByASlotOnceThereIsOne)
{
    for (std::uint32_t i = 1; i <= 3; ++i) {
        m_one.Notify(i, Bytes(MIB, static_cast<char>(i)));
        Exchange();
    }
    EXPECT_THAT(Slots(), testing::ElementsAre(0, 1, 1));
    for (std::uint32_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(i, m_other.came[i - 1].head.serial);
        EXPECT_EQ(Bytes(MIB, static_cast<char>(i)), m_other.came[i - 1].payload);
    }
    EXPECT_EQ(0U, m_one.socket.Waiting());
    EXPECT_EQ(0U, m_one.socket.FramesWaiting());
    EXPECT_FALSE(m_one.socket.HasWordsWaiting());
    EXPECT_FALSE(m_other.socket.HasWordsWaiting());
}

TEST_F(TwoEnds, WriteSmallMessagesInline)
{
    HaveASlot(MIB);
    m_one.Notify(1, Bytes(16 * KIB - 1));
    m_one.Notify(2, Bytes(16 * KIB));
    m_one.Notify(3, {});
    Exchange();
    EXPECT_THAT(Slots(), testing::ElementsAre(0, 1, 0));
}

Bytes PatternOf(std::uint32_t serial)
{
    constexpr std::array<std::size_t, 8> SIZES = {0, 1, 64, 4095, 4096, 4097, 9000, 300};
    return Bytes(SIZES[serial % SIZES.size()] + serial % 3, static_cast<char>(serial));
}

TEST_F(TwoEnds, BringWhatIsCollectedInItsOrder)
{
    constexpr std::uint32_t COUNT = 2000;
    for (std::uint32_t i = 1; i <= COUNT; ++i)
        m_one.Write(i, PatternOf(i));
    EXPECT_EQ(COUNT, m_one.socket.FramesWaiting());
    EXPECT_EQ(0U, m_one.socket.Taken());
    Exchange();
    ASSERT_EQ(COUNT, m_other.came.size());
    for (std::uint32_t i = 1; i <= COUNT; ++i) {
        ASSERT_EQ(i, m_other.came[i - 1].head.serial);
        ASSERT_EQ(PatternOf(i), m_other.came[i - 1].payload) << i;
    }
    EXPECT_EQ(COUNT, m_one.socket.Taken());
    EXPECT_EQ(0U, m_one.socket.FramesWaiting());
    EXPECT_EQ(0U, m_one.socket.Waiting());
}

TEST_F(TwoEnds, TellUpToWhereASocketThatIsFullHasTakenAll)
{
    std::uint32_t last = 0;
    while (m_one.socket.Waiting() < MIB) {
        ++last;
        m_one.Notify(last, PatternOf(last));
    }
    const std::uint64_t taken = m_one.socket.Taken();
    EXPECT_LT(0U, taken);
    EXPECT_GT(last, taken);
    m_other.Read();
    EXPECT_LE(taken, m_other.came.size());
    EXPECT_TRUE(m_one.socket.Flush()) << "nobody has told that there is room";
    EXPECT_EQ(taken, m_one.socket.Taken());
    m_one.Flush();
    EXPECT_LT(taken, m_one.socket.Taken());
    Exchange();
    EXPECT_EQ(last, m_one.socket.Taken());
    EXPECT_EQ(last, m_other.came.size());
}

TEST_F(TwoEnds, FillNoSlotThatIsNotCopiedOut)
{
    HaveASlot(MIB);
    for (std::uint32_t i = 1; i <= 30; ++i) {
        m_one.Notify(i, Bytes(100 * KIB + i, static_cast<char>(i)));
        if (i % 7 == 0)
            Exchange();
    }
    Exchange();
    ASSERT_EQ(30U, m_other.came.size());
    for (std::uint32_t i = 1; i <= 30; ++i) {
        EXPECT_EQ(i, m_other.came[i - 1].head.serial);
        EXPECT_EQ(Bytes(100 * KIB + i, static_cast<char>(i)), m_other.came[i - 1].payload);
    }
    EXPECT_THAT(Slots(), testing::Contains(0));
    EXPECT_THAT(Slots(), testing::Contains(4));
}

TEST_F(TwoEnds, MakeALargerSlotForALargerMessage)
{
    for (int i = 0; i < 6; ++i)
        HaveASlot(MIB);
    for (const std::size_t size : {3 * MIB, 16 * MIB}) {
        HaveASlot(size);
        m_one.Notify(1, Bytes(size, 'x'));
        Exchange();
        ASSERT_EQ(1U, m_other.came.size());
        EXPECT_NE(0, m_other.came[0].head.slot);
        EXPECT_EQ(Bytes(size, 'x'), m_other.came[0].payload);
    }
    m_other.came.clear();
    m_one.Notify(1, Bytes(16 * MIB + 1, 'y'));
    Exchange();
    EXPECT_THAT(Slots(), testing::ElementsAre(0));
}

TEST_F(TwoEnds, ReplaceASmallSlotWhenThereAreFour)
{
    HaveASlot(MIB);
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 4; ++i)
            m_one.Notify(0, Bytes(20 * KIB));
        Exchange();
    }
    m_other.came.clear();
    HaveASlot(2 * MIB);
    m_one.Notify(7, Bytes(2 * MIB, 'z'));
    Exchange();
    ASSERT_EQ(1U, m_other.came.size());
    EXPECT_NE(0, m_other.came[0].head.slot);
    EXPECT_EQ(Bytes(2 * MIB, 'z'), m_other.came[0].payload);
}

TEST_F(TwoEnds, GiveUpSlotsThatAreNotUsed)
{
    EXPECT_FALSE(m_one.socket.GiveUpIdleSlots());
    HaveASlot(MIB);
    EXPECT_TRUE(m_one.socket.HasSlots());
    EXPECT_TRUE(m_one.socket.GiveUpIdleSlots());
    m_one.Notify(1, Bytes(MIB));
    EXPECT_TRUE(m_one.socket.GiveUpIdleSlots()) << "it is not copied out";
    EXPECT_TRUE(m_one.socket.GiveUpIdleSlots()) << "it is not copied out";
    Exchange();
    EXPECT_FALSE(m_one.socket.GiveUpIdleSlots());
    Exchange();
    EXPECT_FALSE(m_one.socket.HasSlots());
    EXPECT_THAT(Slots(), testing::ElementsAre(1));
    HaveASlot(MIB);
    m_one.Notify(2, Bytes(MIB));
    Exchange();
    EXPECT_THAT(Slots(), testing::ElementsAre(1));
}

// Both words may have come before the other end reads again.
TEST_F(TwoEnds, TakeANewSlotRightBehindTheEndOfAnOldOne)
{
    HaveASlot(MIB);
    EXPECT_TRUE(m_one.socket.GiveUpIdleSlots());
    EXPECT_FALSE(m_one.socket.GiveUpIdleSlots());
    m_one.Notify(1, Bytes(MIB, 'a'));
    Exchange();
    m_one.Notify(2, Bytes(MIB, 'b'));
    Exchange();
    EXPECT_EQ(ReadResult::drained, m_other.last);
    EXPECT_THAT(Slots(), testing::ElementsAre(0, 1));
    EXPECT_EQ(Bytes(MIB, 'b'), m_other.came.back().payload);
}

TEST_F(TwoEnds, HaveNoDescriptorsOfTheirSlots)
{
    const std::size_t before = CountOf("fd");
    HaveASlot(MIB);
    HaveASlot(2 * MIB);
    EXPECT_EQ(before, CountOf("fd"));
}

TEST_F(TwoEnds, WriteInlineWhereTheSenderHasNoDescriptorLeft)
{
    Exchange();  // once: a sanitizer needs descriptors to look at a class for the first time
    {
        const NoDescriptors none;
        m_one.Notify(1, Bytes(MIB, 'a'));
        Exchange();
    }
    m_one.Notify(2, Bytes(MIB, 'b'));
    Exchange();
    EXPECT_THAT(Slots(), testing::ElementsAre(0, 0));
    EXPECT_EQ(Bytes(MIB, 'b'), m_other.came.back().payload);
}

TEST_F(TwoEnds, WriteInlineWhereTheReceiverHasNoDescriptorLeft)
{
    Exchange();
    m_one.Notify(1, Bytes(20 * KIB, 'a'));
    {
        const NoDescriptors none;
        Exchange();
    }
    m_one.Notify(2, Bytes(20 * KIB, 'b'));
    Exchange();
    EXPECT_THAT(Slots(), testing::ElementsAre(0, 0));
    EXPECT_EQ(ReadResult::drained, m_other.last);
    EXPECT_EQ(ReadResult::drained, m_one.last);
    EXPECT_FALSE(m_one.socket.HasSlots());
}

// ---- An end that keeps to nothing ----------------------------------------------------------

class AHostileEnd : public testing::Test {
protected:
    explicit AHostileEnd(std::pair<SocketEnd, Descriptor> sockets = ConnectedSockets())
        : m_end(sockets.first.Release()), m_socket(sockets.second.Release())
    {
        Send(FrameOf(HeadOf(FrameType::hello), EncodeHello({1, LARGEST})));
    }

    void Send(const Bytes& bytes, const std::vector<int>& descriptors = {})
    {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  SendWith(m_socket.Number(), bytes, descriptors));
    }
    static Bytes SlotFrame(std::uint16_t number, std::uint64_t capacity)
    {
        return FrameOf(HeadOf(FrameType::slot, 0, number), EncodeCapacity(capacity));
    }
    static Descriptor Memory(std::size_t size, int seals = F_SEAL_SHRINK)
    {
        Descriptor memory(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        EXPECT_EQ(0, ftruncate(memory.Number(), static_cast<off_t>(size)));
        EXPECT_EQ(0, fcntl(memory.Number(), F_ADD_SEALS, seals));
        return memory;
    }
    // Memory whose word says that it is filled.
    static Descriptor FilledMemory(std::size_t size)
    {
        Descriptor memory = Memory(size);
        Fill(memory);
        return memory;
    }
    static void Fill(const Descriptor& memory)
    {
        const std::uint32_t word = 1;
        EXPECT_EQ(4, pwrite(memory.Number(), &word, sizeof word, 0));
    }
    void ExpectFault(const std::string& text)
    {
        m_end.Read();
        EXPECT_EQ(ReadResult::at_fault, m_end.last) << text;
        EXPECT_THAT(m_end.socket.Fault(), HasSubstr(text));
    }
    void ExpectUnsafe(const Descriptor& memory, std::uint64_t capacity = 4096)
    {
        Send(SlotFrame(1, capacity), {memory.Number()});
        ExpectFault("not safe");
    }

    End m_end;
    Descriptor m_socket;
};

using ADescriptorThatIsNoMemory = AHostileEnd;

TEST_F(ADescriptorThatIsNoMemory, OfAFile)
{
    ExpectUnsafe(Descriptor(open("/bin/sh", O_RDONLY)));
}
TEST_F(ADescriptorThatIsNoMemory, OfAFolder)
{
    ExpectUnsafe(Descriptor(open("/", O_RDONLY | O_DIRECTORY)));
}
TEST_F(ADescriptorThatIsNoMemory, OfADevice)
{
    ExpectUnsafe(Descriptor(open("/dev/zero", O_RDWR)));
}
TEST_F(ADescriptorThatIsNoMemory, ThatTakesLongToClose)
{
    LingeringSocket socket;
    Send(SlotFrame(1, 4096), {socket.Number()});
    close(socket.Release());
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { ExpectFault("not safe"); }));
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { socket.AwaitItsEnd(); }));
}
TEST_F(ADescriptorThatIsNoMemory, ThatTakesLongToCloseWhereNoneIsAskedFor)
{
    std::array<LingeringSocket, 2> sockets;
    Send(FrameOf(HeadOf(FrameType::notify), Bytes(1)), {sockets[0].Number(), sockets[1].Number()});
    for (LingeringSocket& socket : sockets)
        close(socket.Release());
    EXPECT_TRUE(LingeringSocket::IsQuick([&] { ExpectFault("more descriptors than slots"); }));
    for (const LingeringSocket& socket : sockets)
        EXPECT_TRUE(LingeringSocket::IsQuick([&] { socket.AwaitItsEnd(); }));
}
TEST_F(ADescriptorThatIsNoMemory, OfAPath)
{
    ExpectUnsafe(Descriptor(open("/bin/sh", O_PATH)));
}
TEST_F(ADescriptorThatIsNoMemory, OfAnEvent)
{
    ExpectUnsafe(Descriptor(eventfd(0, 0)));
}
TEST_F(ADescriptorThatIsNoMemory, OfASocket)
{
    ExpectUnsafe(Descriptor(socket(AF_UNIX, SOCK_STREAM, 0)));
}
TEST_F(ADescriptorThatIsNoMemory, OfAPipe)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(0, pipe(ends.data()));
    const Descriptor other(ends[1]);
    ExpectUnsafe(Descriptor(ends[0]));
}

TEST_F(AHostileEnd, PassesMemoryThatMayShrink)
{
    ExpectUnsafe(Memory(8192, F_SEAL_GROW));
}
TEST_F(AHostileEnd, PassesMemoryThatIsTooSmall)
{
    ExpectUnsafe(Memory(4096));
}
TEST_F(AHostileEnd, PassesMemoryThatCannotBeWritten)
{
    ExpectUnsafe(Memory(8192, F_SEAL_SHRINK | F_SEAL_WRITE));
}
TEST_F(AHostileEnd, PassesMemoryOfHugePages)
{
    const Descriptor memory(memfd_create("test", MFD_ALLOW_SEALING | MFD_HUGETLB));
    if (!memory.IsOpen() || ftruncate(memory.Number(), 4L * MIB) != 0 ||
        fcntl(memory.Number(), F_ADD_SEALS, F_SEAL_SHRINK) != 0)
        GTEST_SKIP() << "there are no huge pages here";
    ExpectUnsafe(memory);
}
TEST_F(AHostileEnd, OffersASlotThatIsTooLarge)
{
    ExpectUnsafe(Memory(64 * MIB), DirectSlot::MOST_CAPACITY + 1);
}
TEST_F(AHostileEnd, OffersASlotOfNothing)
{
    ExpectUnsafe(Memory(8192), 0);
}
TEST_F(AHostileEnd, OffersASlotOfMoreThanThereCanBe)
{
    ExpectUnsafe(Memory(8192), ~std::uint64_t{0} - 10);
}

TEST_F(AHostileEnd, OffersASlotWithoutMemory)
{
    Send(SlotFrame(1, 4096));
    ExpectFault("without its memory");
}
TEST_F(AHostileEnd, PassesSeveralDescriptors)
{
    const Descriptor memory = Memory(8192);
    Send(SlotFrame(1, 4096), {memory.Number(), memory.Number()});
    ExpectFault("more descriptors");
}
TEST_F(AHostileEnd, PassesADescriptorWithAMessage)
{
    Send(FrameOf(HeadOf(FrameType::notify)), {m_socket.Number()});
    ExpectFault("a descriptor that nobody asked for");
}
TEST_F(AHostileEnd, PassesADescriptorWithTheEndOfASlot)
{
    Send(FrameOf(HeadOf(FrameType::slot, 0, 1)), {m_socket.Number()});
    ExpectFault("a descriptor that nobody asked for");
}
TEST_F(AHostileEnd, PassesADescriptorForEachPartOfASlot)
{
    const Bytes frame = SlotFrame(1, 4096);
    Send(Bytes(frame.begin(), frame.begin() + 3), {m_socket.Number()});
    Send(Bytes(frame.begin() + 3, frame.end()), {m_socket.Number()});
    ExpectFault("more descriptors");
}
TEST_F(AHostileEnd, FillsASlotThatThereIsNot)
{
    Send(FrameOf(HeadOf(FrameType::notify, 0, 3, 100)));
    ExpectFault("a message of 100 bytes in slot 3");
}
TEST_F(AHostileEnd, FillsASlotThatItHasGivenUp)
{
    Send(SlotFrame(1, 4096), {FilledMemory(8192).Number()});
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, 100)));
    m_end.Read();
    EXPECT_EQ(1U, m_end.came.size());
    Send(FrameOf(HeadOf(FrameType::slot, 0, 1)));
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, 100)));
    ExpectFault("in slot 1");
}
TEST_F(AHostileEnd, SaysThatThereIsMoreInASlotThanItHolds)
{
    const Descriptor memory = FilledMemory(8192);
    Send(SlotFrame(1, 4096), {memory.Number()});
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, 4096)));
    m_end.Read();
    Fill(memory);
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, 4097)));
    ExpectFault("a message of 4097 bytes in slot 1");
    EXPECT_EQ(1U, m_end.came.size());
}
TEST_F(AHostileEnd, AnswersAnOfferThatNobodyMade)
{
    Send(FrameOf(HeadOf(FrameType::taken, 0, 1), {1}));
    ExpectFault("not offered");
}
TEST_F(AHostileEnd, OffersWithoutEndAndReadsNothing)
{
    const Descriptor memory = Memory(8192);
    for (int i = 0; i < 100000 && m_end.last != ReadResult::at_fault; ++i) {
        Send(SlotFrame(1, 4096), {memory.Number()});
        m_end.Read();
        ASSERT_LT(m_end.socket.Waiting(), 1000U);
    }
    EXPECT_EQ(ReadResult::at_fault, m_end.last);
    EXPECT_THAT(m_end.socket.Fault(), HasSubstr("not read"));
}

TEST_F(AHostileEnd, SendsWhatIsNotInTheSlot)
{
    Send(SlotFrame(1, 4096), {FilledMemory(8192).Number()});
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, 100)) +
         FrameOf(HeadOf(FrameType::notify, 0, 1, 100)));
    ExpectFault("not filled");
    EXPECT_EQ(1U, m_end.came.size());
}

// Its message is what it makes of it, and nobody else's.
TEST_F(AHostileEnd, ChangesWhatItHasSent)
{
    constexpr std::size_t page = 4096;
    const Descriptor memory = FilledMemory(2 * page);
    const Bytes text(100, 'x');
    EXPECT_EQ(100, pwrite(memory.Number(), text.data(), text.size(), page));
    Send(SlotFrame(1, page), {memory.Number()});
    Send(FrameOf(HeadOf(FrameType::notify, 0, 1, page)));
    ASSERT_EQ(0,
              fallocate(memory.Number(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, page, page));
    m_end.Read();
    ASSERT_EQ(1U, m_end.came.size());
    EXPECT_EQ(Bytes(page, '\0'), m_end.came[0].payload);
}

}  // namespace
