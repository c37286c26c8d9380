#include "direct-slots.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// Older headers do not have it; an older kernel refuses it.
#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

constexpr std::size_t SMALLEST_CAPACITY = 1024UL * 1024;

// What is ahead of a slot's bytes: a word that says whether it is filled, on a cache line of its
// own.
constexpr std::size_t SLOT_HEAD = 64;
using Word = std::atomic<std::uint32_t>;
static_assert(Word::is_always_lock_free, "it is shared with another process");

std::size_t CapacityFor(std::size_t size)
{
    std::size_t capacity = SMALLEST_CAPACITY;
    while (capacity < size)
        capacity *= 2;
    return capacity;
}

Descriptor MakeMemory(std::size_t capacity)
{
    const unsigned flags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
    Descriptor memory(memfd_create("pelmar", flags | MFD_NOEXEC_SEAL));
    if (!memory.IsOpen())
        memory = Descriptor(memfd_create("pelmar", flags));
    if (!memory.IsOpen() ||
        ftruncate(memory.Number(), static_cast<off_t>(SLOT_HEAD + capacity)) != 0 ||
        fcntl(memory.Number(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return Descriptor();
    return memory;
}

// Nothing but a memfd has seals. That of huge pages is none of ours: it can run out of them.
bool IsSound(int memory, std::size_t capacity)
{
    const int seals = fcntl(memory, F_GET_SEALS);
    struct stat status = {};
    struct statfs filesystem = {};
    return seals >= 0 && (seals & F_SEAL_SHRINK) != 0 && fstat(memory, &status) == 0 &&
           status.st_size >= 0 &&
           static_cast<std::uint64_t>(status.st_size) >= SLOT_HEAD + capacity &&
           fstatfs(memory, &filesystem) == 0 &&
           static_cast<std::uint64_t>(filesystem.f_type) == TMPFS_MAGIC;
}

bool IsNumber(std::uint16_t number)
{
    return number >= 1 && number <= DirectSlot::MOST;
}

}  // namespace

// ---- SharedMemory --------------------------------------------------------------------------

SharedMemory SharedMemory::Map(int memory, std::size_t capacity)
{
    SharedMemory shared;
    void* start =
        mmap(nullptr, SLOT_HEAD + capacity, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (start == MAP_FAILED)
        return shared;
    madvise(start, SLOT_HEAD + capacity, MADV_DONTFORK);
    shared.m_start = start;
    shared.m_capacity = capacity;
    return shared;
}

SharedMemory::~SharedMemory()
{
    if (m_start != nullptr)
        munmap(m_start, SLOT_HEAD + m_capacity);
}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept
    : m_start(std::exchange(other.m_start, nullptr)), m_capacity(std::exchange(other.m_capacity, 0))
{
}

SharedMemory& SharedMemory::operator=(SharedMemory&& other) noexcept
{
    std::swap(m_start, other.m_start);
    std::swap(m_capacity, other.m_capacity);
    return *this;
}

char* SharedMemory::Bytes() const
{
    return static_cast<char*>(m_start) + SLOT_HEAD;
}

bool SharedMemory::IsFilled() const
{
    return static_cast<Word*>(m_start)->load(std::memory_order_acquire) != 0;
}

void SharedMemory::SetFilled(bool is_filled) const
{
    static_cast<Word*>(m_start)->store(is_filled ? 1 : 0, std::memory_order_release);
}

// ---- OwnSlots ------------------------------------------------------------------------------

bool OwnSlots::IsFree(std::uint16_t number) const
{
    const SharedMemory& memory = m_slots[number - 1U].memory;
    return number != m_offered && memory.IsMapped() && !memory.IsFilled();
}

std::uint16_t OwnSlots::Fill(const std::vector<char>& bytes)
{
    for (std::uint16_t number = 1; number <= DirectSlot::MOST; ++number) {
        Slot& slot = m_slots[number - 1U];
        if (!IsFree(number) || slot.memory.Capacity() < bytes.size())
            continue;
        std::memcpy(slot.memory.Bytes(), bytes.data(), bytes.size());
        slot.memory.SetFilled(true);
        slot.was_filled = true;
        return number;
    }
    return 0;
}

// One that is not there yet, or else one that is too small for what found no room.
std::uint16_t OwnSlots::NumberForNew() const
{
    std::uint16_t free = 0;
    for (std::uint16_t number = 1; number <= DirectSlot::MOST; ++number) {
        if (!m_slots[number - 1U].memory.IsMapped())
            return number;
        if (free == 0 && IsFree(number))
            free = number;
    }
    return free;
}

std::optional<OwnSlots::Offer> OwnSlots::MakeFor(std::size_t size)
{
    const std::uint16_t number = m_is_over || m_offered != 0 ? 0 : NumberForNew();
    if (number == 0)
        return std::nullopt;
    const std::size_t capacity = CapacityFor(size);
    Descriptor memory = MakeMemory(capacity);
    Slot slot;
    if (memory.IsOpen())
        slot.memory = SharedMemory::Map(memory.Number(), capacity);
    if (!slot.memory.IsMapped()) {
        m_is_over = true;
        return std::nullopt;
    }
    slot.was_filled = true;
    m_slots[number - 1U] = std::move(slot);
    m_offered = number;
    return Offer{number, capacity, std::move(memory)};
}

bool OwnSlots::TakeAnswer(std::uint16_t number, bool is_taken)
{
    if (number != m_offered || number == 0)
        return false;
    m_offered = 0;
    if (!is_taken) {
        m_slots[number - 1U] = {};
        m_is_over = true;
    }
    return true;
}

std::vector<std::uint16_t> OwnSlots::GiveUpIdle()
{
    std::vector<std::uint16_t> given_up;
    for (std::uint16_t number = 1; number <= DirectSlot::MOST; ++number) {
        Slot& slot = m_slots[number - 1U];
        if (std::exchange(slot.was_filled, false) || !IsFree(number))
            continue;
        slot = {};
        given_up.push_back(number);
    }
    return given_up;
}

bool OwnSlots::IsEmpty() const
{
    return std::none_of(m_slots.begin(), m_slots.end(),
                        [](const Slot& slot) { return slot.memory.IsMapped(); });
}

// ---- TheirSlots ----------------------------------------------------------------------------

TheirSlots::Verdict TheirSlots::Take(std::uint16_t number, std::uint64_t capacity, int memory)
{
    if (!IsNumber(number) || capacity == 0 || capacity > DirectSlot::MOST_CAPACITY)
        return Verdict::at_fault;
    Forget(number);
    if (memory < 0)
        return Verdict::refused;
    if (!IsSound(memory, capacity))
        return Verdict::at_fault;
    SharedMemory mapped = SharedMemory::Map(memory, capacity);
    if (!mapped.IsMapped())
        return errno == ENOMEM || errno == EAGAIN ? Verdict::refused : Verdict::at_fault;
    m_slots[number - 1U] = std::move(mapped);
    return Verdict::taken;
}

void TheirSlots::Forget(std::uint16_t number)
{
    m_slots[number - 1U] = SharedMemory();
}

// The other end may write meanwhile: nobody looks at the bytes before they are out.
std::optional<std::vector<char>> TheirSlots::CopyOut(std::uint16_t number, std::uint64_t size)
{
    if (!IsNumber(number) || !m_slots[number - 1U].IsMapped() ||
        m_slots[number - 1U].Capacity() < size)
        return std::nullopt;
    const SharedMemory& memory = m_slots[number - 1U];
    if (!memory.IsFilled())
        return std::nullopt;
    std::vector<char> bytes(memory.Bytes(), memory.Bytes() + size);
    memory.SetFilled(false);
    return bytes;
}
