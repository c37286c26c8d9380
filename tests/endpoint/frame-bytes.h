// Frames of a direct path as they stand on the socket.
#ifndef PELMAR_TESTS_FRAME_BYTES_H
#define PELMAR_TESTS_FRAME_BYTES_H

#include <utility>
#include <vector>

#include "direct-frames.h"

using Bytes = std::vector<char>;

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A frame with these bytes behind it; the size of a message in a slot stays as it is.
inline Bytes FrameOf(FrameHead head, const Bytes& payload = {})
{
    if (!head.IsInSlot())
        head.size = payload.size();
    const auto encoded = EncodeHead(head);
    return Bytes(encoded.begin(), encoded.end()) + payload;
}

#endif
