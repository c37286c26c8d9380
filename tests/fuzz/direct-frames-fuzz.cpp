// The stream of a direct path, in pieces of any size: what comes out is bounded by what went in,
// and the same however it was cut.

#include "direct-frames.h"
#include "input.h"

namespace {

constexpr std::uint64_t LARGEST = 100000;

void CheckFrame(const Frame& frame)
{
    FUZZ_ASSERT(frame.payload.size() == (frame.head.IsInSlot() ? 0 : frame.head.size));
    FUZZ_ASSERT(frame.head.size <= LARGEST);
    FUZZ_ASSERT(frame.head.slot <= DirectSlot::MOST);
    if (frame.head.type == FrameType::hello)
        DecodeHello(frame.payload);
    if (frame.head.type == FrameType::error)
        FUZZ_ASSERT(!frame.payload.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::size_t part = 1 + input.Byte();
    const std::string stream = input.Rest();

    FrameReader whole(LARGEST);
    std::vector<Frame> at_once;
    const bool is_sound = whole.Take(stream.data(), stream.size(), at_once);
    FUZZ_ASSERT(is_sound == whole.Fault().empty());

    FrameReader cut(LARGEST);
    std::vector<Frame> in_parts;
    for (std::size_t at = 0; at < stream.size(); at += part)
        cut.Take(stream.data() + at, std::min(part, stream.size() - at), in_parts);
    FUZZ_ASSERT(cut.Fault() == whole.Fault());
    FUZZ_ASSERT(at_once.size() == in_parts.size());
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < at_once.size(); ++i) {
        CheckFrame(at_once[i]);
        FUZZ_ASSERT(at_once[i].payload == in_parts[i].payload);
        FUZZ_ASSERT(at_once[i].head.type == in_parts[i].head.type);
        bytes += FrameHead::SIZE + at_once[i].payload.size();
    }
    FUZZ_ASSERT(bytes <= stream.size());
    return 0;
}
