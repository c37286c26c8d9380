// Memory that both ends of a direct path have, for large messages: a slot. The sender makes and
// fills it, the receiver copies out of it, and both read and write in it whether it is filled.
// Internal. Whoever uses it guards it.
#ifndef PELMAR_DIRECT_SLOTS_H
#define PELMAR_DIRECT_SLOTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "direct-frames.h"

// A mapping of memory that cannot shrink.
class SharedMemory {
public:
    SharedMemory() = default;
    ~SharedMemory();
    SharedMemory(SharedMemory&& other) noexcept;
    SharedMemory& operator=(SharedMemory&& other) noexcept;
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Not mapped when there is no memory, or too little.
    static SharedMemory Map(int memory, std::size_t capacity);

    bool IsMapped() const { return m_start != nullptr; }
    std::size_t Capacity() const { return m_capacity; }
    char* Bytes() const;

    bool IsFilled() const;
    void SetFilled(bool is_filled) const;

private:
    void* m_start = nullptr;
    std::size_t m_capacity = 0;
};

// Those that this end has made.
class OwnSlots {
public:
    // Copies the bytes into a slot: its number. 0 when none is free that has room for them.
    std::uint16_t Fill(const std::vector<char>& bytes);

    // What is worth being sent by a slot at all.
    static bool IsLarge(std::size_t size)
    {
        return size >= SMALLEST_MESSAGE && size <= DirectSlot::MOST_CAPACITY;
    }

    struct Offer {
        std::uint16_t number;
        std::uint64_t capacity;
        Descriptor memory;
    };
    // A slot that the other end is to know for such messages from now on. One at a time, and none
    // any more when one was refused or memory is short.
    std::optional<Offer> MakeFor(std::size_t size);
    std::uint16_t Offered() const { return m_offered; }  // and not answered; 0: none
    // False when it was not asked.
    bool TakeAnswer(std::uint16_t number, bool is_taken);

    // Those that have not been filled since the last call are given up: their numbers.
    std::vector<std::uint16_t> GiveUpIdle();
    bool IsEmpty() const;

private:
    static constexpr std::size_t SMALLEST_MESSAGE = 16UL * 1024;

    struct Slot {
        SharedMemory memory;
        bool was_filled = false;  // since the last call of GiveUpIdle
    };
    std::uint16_t NumberForNew() const;
    bool IsFree(std::uint16_t number) const;

    std::array<Slot, DirectSlot::MOST> m_slots;  // of the number less 1
    std::uint16_t m_offered = 0;
    bool m_is_over = false;
};

// Those that the other end has made; it is not trusted.
class TheirSlots {
public:
    enum class Verdict { taken, refused, at_fault };
    // `memory` stays the caller's; -1 when this process had no room for the descriptor.
    Verdict Take(std::uint16_t number, std::uint64_t capacity, int memory);
    void Forget(std::uint16_t number);

    // Nothing when there is no such slot, or it is not filled or smaller.
    std::optional<std::vector<char>> CopyOut(std::uint16_t number, std::uint64_t size);

private:
    std::array<SharedMemory, DirectSlot::MOST> m_slots;  // of the number less 1
};

#endif
