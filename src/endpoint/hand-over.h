// What GLib's locks hand over to another thread, handed over once more: for the thread sanitizer,
// which does not see those. Internal.
#ifndef PELMAR_HAND_OVER_H
#define PELMAR_HAND_OVER_H

#include <atomic>

class HandOver {
public:
    // In the thread that hands over, after everything else has been made.
    HandOver() { m_done.store(true, std::memory_order_release); }
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

    // In the other thread, before anything is touched.
    void Take() const { static_cast<void>(m_done.load(std::memory_order_acquire)); }

private:
    std::atomic<bool> m_done{false};
};

#endif
