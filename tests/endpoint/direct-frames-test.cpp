// The frames of a direct path: whatever they are cut into, they come out as they went in, and what
// cannot be a frame is told.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frame-bytes.h"

namespace {

using testing::HasSubstr;

constexpr std::uint64_t LARGEST = 1000;

FrameHead HeadOf(FrameType type, std::uint32_t serial = 0, std::uint8_t flags = 0)
{
    FrameHead head;
    head.type = type;
    head.serial = serial;
    head.flags = flags;
    return head;
}

Bytes Greeting()
{
    Hello hello;
    hello.largest = 77;
    return FrameOf(HeadOf(FrameType::hello), EncodeHello(hello));
}

class AFrameReader : public testing::Test {
protected:
    bool Take(const Bytes& bytes) { return m_reader.Take(bytes.data(), bytes.size(), m_frames); }

    void ExpectFault(const Bytes& bytes, const std::string& text)
    {
        FrameReader reader(LARGEST);
        std::vector<Frame> frames;
        ASSERT_TRUE(reader.Take(Greeting().data(), Greeting().size(), frames));
        EXPECT_FALSE(reader.Take(bytes.data(), bytes.size(), frames)) << text;
        EXPECT_THAT(reader.Fault(), HasSubstr(text));
        EXPECT_EQ(1U, frames.size()) << text;
        EXPECT_FALSE(reader.Take(Greeting().data(), Greeting().size(), frames));
        EXPECT_EQ(1U, frames.size()) << text;
    }

    FrameReader m_reader{LARGEST};
    std::vector<Frame> m_frames;
};

TEST_F(AFrameReader, PutsFramesTogetherWhereverTheyWereCut)
{
    const Bytes stream = Greeting() +
                         FrameOf(HeadOf(FrameType::request, 0xfffffffe), Bytes(LARGEST, 'r')) +
                         FrameOf(HeadOf(FrameType::answer, 7, FrameHead::OF_BUS), {'a'}) +
                         FrameOf(HeadOf(FrameType::notify)) +
                         FrameOf(HeadOf(FrameType::error, 8), EncodeError(FrameError::busy, "e")) +
                         FrameOf(HeadOf(FrameType::bye));
    for (std::size_t part = 1; part <= stream.size(); part += part < 40 ? 1 : 97) {
        FrameReader reader(LARGEST);
        std::vector<Frame> frames;
        for (std::size_t at = 0; at < stream.size(); at += part)
            ASSERT_TRUE(
                reader.Take(stream.data() + at, std::min(part, stream.size() - at), frames));
        ASSERT_EQ(6U, frames.size()) << part;
        EXPECT_EQ(77U, DecodeHello(frames[0].payload)->largest);
        EXPECT_EQ(FrameType::request, frames[1].head.type);
        EXPECT_EQ(0xfffffffe, frames[1].head.serial);
        EXPECT_EQ(Bytes(LARGEST, 'r'), frames[1].payload);
        EXPECT_EQ(FrameHead::OF_BUS, frames[2].head.flags);
        EXPECT_EQ(Bytes{'a'}, frames[2].payload);
        EXPECT_EQ(FrameType::notify, frames[3].head.type);
        EXPECT_EQ(Bytes(), frames[3].payload);
        EXPECT_EQ((Bytes{2, 'e'}), frames[4].payload);
        EXPECT_EQ(FrameType::bye, frames[5].head.type);
    }
}

TEST_F(AFrameReader, GivesNothingOfAFrameThatIsNotWhole)
{
    EXPECT_TRUE(Take(Greeting()));
    Bytes request = FrameOf(HeadOf(FrameType::request, 1), Bytes(10));
    request.pop_back();
    EXPECT_TRUE(Take(request));
    EXPECT_EQ(1U, m_frames.size());
}

TEST_F(AFrameReader, ReservesNothingForASizeThatIsOnlyClaimed)
{
    FrameReader reader(std::uint64_t{1} << 40U);
    ASSERT_TRUE(reader.Take(Greeting().data(), Greeting().size(), m_frames));
    FrameHead head = HeadOf(FrameType::notify);
    head.size = std::uint64_t{1} << 40U;
    const auto encoded = EncodeHead(head);
    EXPECT_TRUE(reader.Take(encoded.data(), encoded.size(), m_frames));
    EXPECT_EQ(1U, m_frames.size());
}

TEST_F(AFrameReader, WantsAGreetingFirst)
{
    EXPECT_FALSE(Take(FrameOf(HeadOf(FrameType::notify))));
    EXPECT_THAT(m_reader.Fault(), HasSubstr("before the greeting"));
    EXPECT_TRUE(m_frames.empty());
}

TEST_F(AFrameReader, TellsWhatCannotBeAFrame)
{
    ExpectFault(Greeting(), "second greeting");
    ExpectFault(FrameOf(HeadOf(FrameType::request, 1), Bytes(LARGEST + 1)), "1001 bytes");
    ExpectFault(FrameOf(HeadOf(FrameType::answer, 1), Bytes(LARGEST + 1)), "1001 bytes");
    ExpectFault(FrameOf(HeadOf(FrameType::notify), Bytes(LARGEST + 1)), "1001 bytes");
    ExpectFault(FrameOf(HeadOf(FrameType::error, 1), Bytes(4098)), "4098 bytes");
    ExpectFault(FrameOf(HeadOf(FrameType::error, 1)), "without a reason");
    ExpectFault(FrameOf(HeadOf(FrameType::bye), Bytes(1)), "1 bytes");
    ExpectFault(FrameOf(HeadOf(FrameType::notify, 0, FrameHead::OF_BUS)), "flags 1");
    ExpectFault(FrameOf(HeadOf(FrameType::request, 1, FrameHead::OF_BUS)), "flags 1");
    ExpectFault(FrameOf(HeadOf(FrameType::answer, 1, 2)), "flags 2");
    ExpectFault(FrameOf(HeadOf(FrameType::notify, 3)), "serial 3");
    ExpectFault(FrameOf(HeadOf(FrameType::bye, 4)), "serial 4");
    ExpectFault(FrameOf(HeadOf(static_cast<FrameType>(0))), "type 0");
    ExpectFault(FrameOf(HeadOf(static_cast<FrameType>(9))), "type 9");
    ExpectFault(FrameOf(HeadOf(static_cast<FrameType>(255))), "type 255");
}

FrameHead InSlot(FrameHead head, std::uint16_t slot)
{
    head.slot = slot;
    return head;
}

TEST_F(AFrameReader, TakesAMessageInASlotForWholeAtOnce)
{
    FrameHead head = InSlot(HeadOf(FrameType::request, 9), 4);
    head.size = LARGEST;
    const auto encoded = EncodeHead(head);
    ASSERT_TRUE(Take(Greeting() + Bytes(encoded.begin(), encoded.end()) +
                     FrameOf(HeadOf(FrameType::notify), {'n'})));
    ASSERT_EQ(3U, m_frames.size());
    EXPECT_TRUE(m_frames[1].head.IsInSlot());
    EXPECT_EQ(4U, m_frames[1].head.slot);
    EXPECT_EQ(LARGEST, m_frames[1].head.size);
    EXPECT_THAT(m_frames[1].payload, testing::IsEmpty());
    EXPECT_EQ(Bytes{'n'}, m_frames[2].payload);
}

TEST_F(AFrameReader, TakesWordsAboutSlots)
{
    ASSERT_TRUE(Take(Greeting() +
                     FrameOf(InSlot(HeadOf(FrameType::slot), 1), EncodeCapacity(1 << 20)) +
                     FrameOf(InSlot(HeadOf(FrameType::slot), 1)) +
                     FrameOf(InSlot(HeadOf(FrameType::taken), 2), {1})));
    ASSERT_EQ(4U, m_frames.size());
    EXPECT_EQ(1U << 20U, DecodeCapacity(m_frames[1].payload));
    EXPECT_FALSE(m_frames[1].head.IsInSlot());
    EXPECT_THAT(m_frames[2].payload, testing::IsEmpty());
    EXPECT_EQ(Bytes{1}, m_frames[3].payload);
}

TEST_F(AFrameReader, TellsWhatCannotBeASlot)
{
    for (const FrameType type : {FrameType::error, FrameType::bye})
        ExpectFault(FrameOf(InSlot(HeadOf(type), 1), {}), "slot 1 of frame type");
    for (const FrameType type : {FrameType::request, FrameType::answer, FrameType::notify}) {
        ExpectFault(FrameOf(InSlot(HeadOf(type), 5)), "slot 5 of frame type");
        FrameHead head = InSlot(HeadOf(type), 1);
        head.size = LARGEST + 1;
        const auto encoded = EncodeHead(head);
        ExpectFault(Bytes(encoded.begin(), encoded.end()), "1001 bytes");
    }
    ExpectFault(FrameOf(HeadOf(FrameType::slot), Bytes(8)), "slot 0 of frame type");
    ExpectFault(FrameOf(InSlot(HeadOf(FrameType::slot), 5), Bytes(8)), "slot 5 of frame type");
    ExpectFault(FrameOf(InSlot(HeadOf(FrameType::slot), 1), Bytes(7)), "wrong size");
    ExpectFault(FrameOf(HeadOf(FrameType::taken), Bytes(1)), "slot 0 of frame type");
    ExpectFault(FrameOf(InSlot(HeadOf(FrameType::taken), 1), Bytes(2)), "wrong size");
}

TEST_F(AFrameReader, KnowsWhetherItIsInsideTheFrameOfASlot)
{
    const Bytes slot = FrameOf(InSlot(HeadOf(FrameType::slot), 1), EncodeCapacity(1));
    EXPECT_TRUE(Take(Greeting()));
    EXPECT_FALSE(m_reader.IsInsideSlot());
    for (std::size_t i = 0; i + 1 < slot.size(); ++i) {
        EXPECT_TRUE(Take({slot[i]}));
        EXPECT_TRUE(m_reader.IsInsideSlot());
    }
    EXPECT_TRUE(Take({slot.back()}));
    EXPECT_FALSE(m_reader.IsInsideSlot());
    EXPECT_TRUE(Take({static_cast<char>(FrameType::notify)}));
    EXPECT_FALSE(m_reader.IsInsideSlot());
}

TEST_F(AFrameReader, TellsAGreetingOfAWrongSize)
{
    EXPECT_FALSE(Take(FrameOf(HeadOf(FrameType::hello), Bytes(17))));
    EXPECT_THAT(m_reader.Fault(), HasSubstr("greeting"));
}

TEST(AGreeting, IsUnderstoodOfTheSameVersionAlone)
{
    Bytes greeting = EncodeHello({Hello::VERSION, 5});
    EXPECT_EQ(5U, DecodeHello(greeting)->largest);
    greeting[0] = 'p';
    EXPECT_FALSE(DecodeHello(greeting));
    EXPECT_FALSE(DecodeHello(EncodeHello({Hello::VERSION + 1, 5})));
    EXPECT_FALSE(DecodeHello(EncodeHello({0, 5})));
    EXPECT_FALSE(DecodeHello({}));
}

}  // namespace
