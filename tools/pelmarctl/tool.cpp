#include "tool.h"

namespace {

constexpr std::chrono::milliseconds DEFAULT_TIMEOUT{10000};

}  // namespace

std::chrono::milliseconds Tool::Timeout() const
{
    return timeout_seconds ? Milliseconds(*timeout_seconds) : DEFAULT_TIMEOUT;
}

EventQueue::Deadline Tool::OptionalDeadline() const
{
    if (!timeout_seconds)
        return std::nullopt;
    return EventQueue::Clock::now() + Milliseconds(*timeout_seconds);
}

std::chrono::milliseconds Milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(seconds * 1000));
}
